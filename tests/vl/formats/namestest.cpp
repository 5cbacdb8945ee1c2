#include "vl/src/formats/pathrules.h"
#include "vlupd/vlupd.h"

#include <QTest>

#include <vector>

/// A path of a hostile manifest must not leave the version's folder, nor mean on one system
/// something else than on another; and the launcher sorts whatever versions it is given.
class NamesTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pathsAreJudged_data();
    void pathsAreJudged();
    void versionKeysAreOneComponent();
    void ascendingVersionsAreOrdered_data();
    void ascendingVersionsAreOrdered();
    void buildMetadataIsIgnored();
};

void NamesTest::pathsAreJudged_data()
{
    QTest::addColumn<QByteArray>("paths");  // a line each
    QTest::addColumn<std::string>("fault"); // empty: allowed
    const auto row = [](const char* name, const QByteArray& paths, const char* fault) {
        QTest::newRow(name) << paths << std::string(fault);
    };
    row("Cyrillic", "данные/карта 1.txt", "");
    row("like a device", "console/COMA/nulls.txt/COM10", "");
    row("tilde that is no short name", "~backup/notes~/version~12345678.txt", "");
    row("component at the limit", QByteArray(255, 'x'), "");
    row("component above the limit", QByteArray(256, 'x'), "255 bytes");
    row("path at the limit", QByteArray("ab/").repeated(341) + "z", "");
    row("path above the limit", QByteArray("ab/").repeated(341) + "zz", "1024 bytes");
    row("absolute", "/etc/passwd", "absolute");
    row("parent", "../x", "\"..\"");
    row("parent at the end", "a/..", "\"..\"");
    row("empty component", "a//b", "empty component");
    row("backslash", "a\\..\\x", "character \\");
    row("drive", "C:/x", "character :");
    row("stream", "a.txt:stream", "character :");
    row("NUL inside", QByteArray("a\0b", 3), "control");
    row("C1 control", "a\xc2\x85", "control");
    row("trailing dot", "a./b", "dot or a space");
    row("device in lower case with extension", "x/nul.tar.gz", "reserved");
    row("device with space", "aux .txt", "reserved");
    row("superscript port", "COM\xc2\xb9", "reserved");
    row("short name with extension", "setup~12.exe", "short name");
    row("staging folder", ".VL/x", "begins with the reserved name .VL");
    row("like the staging folder", ".vlx/a\nb/.vl", "");
    row("overlong slash", "a\xc0\xaf", "UTF-8");
    row("apart", "a\nb/a\nb/c", "");
    row("twice", "a/b\na/b", "are one file");
    row("Cyrillic case", "Карта\nкАРТА", "are one file");
    row("composed and decomposed", "\u0439\n\u0438\u0306", "are one file");
    row("file below a file, others between", "a\na-b\na.c\na/b", "below the other");
    row("file below a file of other case", "LIB\na\nlib/x/y", "below the other");
}

void NamesTest::pathsAreJudged()
{
    QFETCH(QByteArray, paths);
    QFETCH(std::string, fault);
    const QList<QByteArray> lines = paths.split('\n');
    std::vector<std::string_view> views;
    std::string found;
    for (const QByteArray& line : lines)
        found += vl::pathFault(views.emplace_back(line.constData(), line.size()));
    found += vl::pathSetFault(views);
    QVERIFY2(fault.empty() ? found.empty() : found.find(fault) != found.npos, found.c_str());
}

void NamesTest::versionKeysAreOneComponent()
{
    QCOMPARE(vl::versionKeyFault("1.2.0-rc.1+build"), std::string());
    for (const char* key : {"", "..", "1/2", "1.0.", "con", "a\\b"})
        QVERIFY2(!vl::versionKeyFault(key).empty(), key);
    QVERIFY(vl::versionKeyFault(std::string(128, '1')).empty());
    QVERIFY(!vl::versionKeyFault(std::string(129, '1')).empty());
}

void NamesTest::ascendingVersionsAreOrdered_data()
{
    QTest::addColumn<QStringList>("ascending");
    const auto row = [](const char* name, const char* texts) {
        QTest::newRow(name) << QString::fromUtf8(texts).split(QLatin1Char(' '));
    };
    row("semver.org, clause 11.2", "1.0.0 2.0.0 2.1.0 2.1.1");
    row("semver.org, clause 11.4", "1.0.0-alpha 1.0.0-alpha.1 1.0.0-alpha.beta 1.0.0-beta "
                                   "1.0.0-beta.2 1.0.0-beta.11 1.0.0-rc.1 1.0.0");
    row("beyond 64 bits", "18446744073709551615.0.0 18446744073709551616.0.0 "
                          "99999999999999999999999999.0.0 100000000000000000000000000.0.0");
    row("pre-release beyond 64 bits", "1.0.0-2 1.0.0-18446744073709551616 "
                                      "1.0.0-18446744073709551617 1.0.0-a");
    row("no versions below all versions", "01.0.0 1 1.0 1.0.0.0 v2.0.0 версия 0.0.0-0 0.0.0");
    row("broken fields are no versions", "1.0.0+ 1.0.0- 1.0.0-01 1.0.0-a..b 1.0.0-a_b 0.0.0-0");
    row("no text and odd texts", " - ... 1.-.0 1..0 1.0.0\n ١.٠.٠ 1.0.0-rc 1.0.0");
}

void NamesTest::ascendingVersionsAreOrdered()
{
    QFETCH(QStringList, ascending);
    for (qsizetype i = 0; i < ascending.size(); ++i) {
        for (qsizetype j = 0; j < ascending.size(); ++j) {
            const SemanticVersion left(ascending[i].toStdString());
            const SemanticVersion right(ascending[j].toStdString());
            QCOMPARE(left.String(), ascending[i].toStdString());
            QVERIFY2((left < right) == (i < j), qPrintable(ascending[i] + u" < " + ascending[j]));
        }
    }
}

void NamesTest::buildMetadataIsIgnored()
{
    const SemanticVersion first("1.0.0+20130313144700");
    const SemanticVersion second("1.0.0+21AF26D3---117B344092BD");
    QVERIFY(!(first < second) && !(second < first));
    QVERIFY(SemanticVersion("1.0.0-rc.1+9") < SemanticVersion("1.0.0+1"));
}

QTEST_APPLESS_MAIN(NamesTest)
#include "namestest.moc"
