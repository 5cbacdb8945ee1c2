#include "vlupd/vlupd.h"

#include <QTest>

#include <vector>

/// The launcher sorts whatever texts a catalogue or a settings file holds.
class SemanticVersionTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ascendingTextsAreOrdered_data();
    void ascendingTextsAreOrdered();
    void buildMetadataIsIgnored();
    void anyTextsSortAndComeBackUnchanged();
};

void SemanticVersionTest::ascendingTextsAreOrdered_data()
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
}

void SemanticVersionTest::ascendingTextsAreOrdered()
{
    QFETCH(QStringList, ascending);
    for (qsizetype i = 0; i < ascending.size(); ++i) {
        for (qsizetype j = 0; j < ascending.size(); ++j) {
            const SemanticVersion left(ascending[i].toStdString());
            const SemanticVersion right(ascending[j].toStdString());
            QVERIFY2((left < right) == (i < j), qPrintable(ascending[i] + u" < " + ascending[j]));
        }
    }
}

void SemanticVersionTest::buildMetadataIsIgnored()
{
    const SemanticVersion first("1.0.0+20130313144700");
    const SemanticVersion second("1.0.0+21AF26D3---117B344092BD");
    QVERIFY(!(first < second) && !(second < first));
    QVERIFY(SemanticVersion("1.0.0-rc.1+9") < SemanticVersion("1.0.0+1"));
}

void SemanticVersionTest::anyTextsSortAndComeBackUnchanged()
{
    const std::vector<std::string> texts{
        "",     "...",     "-",      "1..0",    " 1.0.0",  "1.0.0",     "1.0",   "1.0.0-rc",
        "\xff", "1.0.0\n", "-1.0.0", "1.0.0+b", "1.0.0+a", "1.0.0-0.0", "1.-.0", "١.٠.٠"};
    std::vector<SemanticVersion> versions;
    for (const std::string& text : texts) {
        versions.emplace_back(text);
        QCOMPARE(versions.back().String(), text);
    }
    const auto same = [](const SemanticVersion& a, const SemanticVersion& b) {
        return !(a < b) && !(b < a);
    };
    for (const auto& a : versions) {
        QVERIFY(!(a < a));
        for (const auto& b : versions) {
            QVERIFY(!(a < b && b < a));
            for (const auto& c : versions) {
                QVERIFY(!(a < b && b < c) || a < c);
                QVERIFY(!(same(a, b) && same(b, c)) || same(a, c));
            }
        }
    }
}

QTEST_APPLESS_MAIN(SemanticVersionTest)
#include "semanticversiontest.moc"
