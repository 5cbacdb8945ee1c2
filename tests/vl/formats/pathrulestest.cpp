#include "vl/src/formats/pathrules.h"

#include <QTest>

#include <vector>

/// A path of a hostile manifest must not leave the version's folder, nor mean on one system
/// something else than on another.
class PathRulesTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pathsAreJudged_data();
    void pathsAreJudged();
    void versionKeysAreOneComponent();
    void setsOfPathsAreJudged_data();
    void setsOfPathsAreJudged();
};

void PathRulesTest::pathsAreJudged_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QByteArray>("fault"); // empty: allowed
    const auto row = [](const char* name, const QByteArray& path, const char* fault) {
        QTest::newRow(name) << path << QByteArray(fault);
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
    row("overlong slash", "a\xc0\xaf", "UTF-8");
}

void PathRulesTest::pathsAreJudged()
{
    QFETCH(QByteArray, path);
    QFETCH(QByteArray, fault);
    const std::string found = vl::pathFault(path.toStdString());
    QVERIFY2(found.empty() == fault.isEmpty(), found.c_str());
    QVERIFY2(found.find(fault.toStdString()) != std::string::npos, found.c_str());
}

void PathRulesTest::versionKeysAreOneComponent()
{
    QCOMPARE(vl::versionKeyFault("1.2.0-rc.1+build"), std::string());
    for (const char* key : {"", "..", "1/2", "1.0.", "con", "a\\b"})
        QVERIFY2(!vl::versionKeyFault(key).empty(), key);
    QVERIFY(vl::versionKeyFault(std::string(128, '1')).empty());
    QVERIFY(!vl::versionKeyFault(std::string(129, '1')).empty());
}

void PathRulesTest::setsOfPathsAreJudged_data()
{
    QTest::addColumn<QStringList>("paths");
    QTest::addColumn<bool>("allowed");
    const auto row = [](const char* name, const QStringList& paths, bool allowed) {
        QTest::newRow(name) << paths << allowed;
    };
    const auto text = [](const char* utf8) { return QString::fromUtf8(utf8); };
    row("apart", {text("a"), text("b/a"), text("b/c")}, true);
    row("twice", {text("a/b"), text("a/b")}, false);
    row("Cyrillic case", {text("Карта"), text("кАРТА")}, false);
    row("composed and decomposed", {text("\u0439"), text("\u0438\u0306")}, false);
    row("file below a file, others between", {text("a"), text("a-b"), text("a.c"), text("a/b")},
        false);
    row("file below a file of other case", {text("LIB"), text("a"), text("lib/x/y")}, false);
}

void PathRulesTest::setsOfPathsAreJudged()
{
    QFETCH(QStringList, paths);
    QFETCH(bool, allowed);
    std::vector<std::string> texts;
    for (const QString& path : paths)
        texts.push_back(path.toStdString());
    const std::vector<std::string_view> views(texts.begin(), texts.end());
    const std::string fault = vl::pathSetFault(views);
    QVERIFY2(fault.empty() == allowed, fault.c_str());
}

QTEST_APPLESS_MAIN(PathRulesTest)
#include "pathrulestest.moc"
