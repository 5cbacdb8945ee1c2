#include "app/paths.h"
#include "app/settingsstore.h"

#include <QFile>
#include <QTest>

#include <algorithm>

/// The store is made once per process; a row replaces its file and lets it read anew.
class TestSettingsStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QFile::remove(path()); }
    void cleanupTestCase() { QFile::remove(path()); }
    void defaults();
    void conversions_data();
    void conversions();

private:
    static QString path() { return applicationDirectory().filePath(QStringLiteral("config.ini")); }
};

namespace {

std::optional<bool> hidden()
{
    return SettingsStore::instance().getValue(
        settings::stateGroup, settings::shouldHideNewUpdateNotification, true, true);
}

} // namespace

void TestSettingsStore::defaults()
{
    SettingsStore& store = SettingsStore::instance();
    store.sync();
    QFile file(path());
    QVERIFY(file.open(QIODevice::ReadOnly | QIODevice::Text));
    // Windows keeps the groups in the order of their making.
    auto groups = file.readAll().append('\n').split('[');
    std::ranges::sort(groups);
    QCOMPARE(groups, (QList<QByteArray>{"", "FILESYSTEM]\ninstallationSize=0\n\n",
                                        "STATE]\nbShouldRequestDescriptions=true\n\n",
                                        "VCS]\navailableVersions=\n\n"}));
    // Absent on the read that writes it; without the flag nothing is written.
    QCOMPARE(hidden(), std::nullopt);
    QCOMPARE(hidden(), std::optional(true));
    for (int i = 0; i < 2; ++i)
        QVERIFY(!store.getValue(settings::vcsGroup, settings::showSpecialVersions, false, true));
    store.setValue(settings::vcsGroup, settings::availableVersions, QStringList());
    QCOMPARE(store.getValue(settings::vcsGroup, settings::availableVersions, true, QStringList()),
             std::optional(QStringList()));
}

void TestSettingsStore::conversions_data()
{
    QTest::addColumn<QByteArray>("versions"); // as they stand in the file
    QTest::addColumn<QByteArray>("size");
    QTest::addColumn<QByteArray>("flag");
    QTest::addColumn<QStringList>("versionsRead");
    QTest::addColumn<qulonglong>("sizeRead");
    QTest::addColumn<bool>("flagRead");
    QTest::newRow("text") << QByteArray("1.0.0") << QByteArray("18446744073709551615")
                          << QByteArray("true") << QStringList{QStringLiteral("1.0.0")}
                          << ~qulonglong{0} << true;
    QTest::newRow("wrong types") << QByteArray("1, 2") << QByteArray("abc") << QByteArray("a, b")
                                 << QStringList{QStringLiteral("1"), QStringLiteral("2")}
                                 << qulonglong{0} << false;
    QTest::newRow("no types") << QByteArray("@Invalid()") << QByteArray("1, 2")
                              << QByteArray("@Invalid()") << QStringList() << qulonglong{0}
                              << false;
}

void TestSettingsStore::conversions()
{
    QFETCH(QByteArray, versions);
    QFETCH(QByteArray, size);
    QFETCH(QByteArray, flag);
    SettingsStore& store = SettingsStore::instance();
    store.sync(); // or what is not written yet would go over the row
    QFile file(path());
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[VCS]\navailableVersions=" + versions + "\n[FILESYSTEM]\ninstallationSize=" + size +
               "\n[STATE]\nbShouldHideNewUpdateNotification=" + flag + "\n\xff=[;\n");
    file.close();
    store.sync();

    QTEST(store
              .getValue(settings::vcsGroup, settings::availableVersions, true,
                        QStringList{QStringLiteral("default")})
              .value(),
          "versionsRead");
    QTEST(store.getValue(settings::filesystemGroup, settings::installationSize, true, qulonglong{5})
              .value(),
          "sizeRead");
    QTEST(hidden().value(), "flagRead");
}

QTEST_GUILESS_MAIN(TestSettingsStore)
#include "tst_settingsstore.moc"
