#include "tests/support/scriptedvl.h"
#include "updates/updater.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTest>

#include <sstream>

class TestUpdater : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void oneObject();
    void latest_data();
    void latest();
    void resultNames();
};

void TestUpdater::oneObject()
{
    scripted::setScript({});
    QVERIFY(!latestInstalledVersion());
    QVERIFY(scripted::calls().empty());

    vlupd::VLUPD* const updater = updaterInstance();
    QCOMPARE(updaterInstance(), updater);
    const std::string root = QCoreApplication::applicationDirPath().toStdString();
    QCOMPARE(scripted::callsOf("constructor"), std::vector{root});
    QCOMPARE(scripted::callsOf("cleanDownloads"), std::vector{std::string("30")});
}

void TestUpdater::latest_data()
{
    QTest::addColumn<QString>("latest");
    // Named by what is installed; "-" stands before a version whose folder is gone.
    QTest::newRow("1.2.0 1.10.0 1.9.0") << "1.10.0";
    QTest::newRow("2.0.0-rc.1 2.0.0") << "2.0.0";
    QTest::newRow("zeta 0.1.0") << "0.1.0";
    QTest::newRow("1.0.0 -1.1.0") << "";
}

void TestUpdater::latest()
{
    QFETCH(QString, latest);
    const QTemporaryDir root;
    const QDir folders(root.path());
    scripted::Script script;
    for (QString version : QString::fromUtf8(QTest::currentDataTag()).split(u' ')) {
        const bool gone = version.startsWith(u'-');
        version = version.mid(gone ? 1 : 0);
        QVERIFY(gone || folders.mkdir(u"папка " + version));
        script.installed[version.toStdString()] = {
            folders.filePath(u"папка " + version).toStdString()};
    }
    scripted::setScript(script);
    updaterInstance();

    const auto found = latestInstalledVersion();
    QCOMPARE(found ? found->first : QString(), latest);
    if (found)
        QCOMPARE(found->second.absolutePath(), folders.filePath(u"папка " + latest));
    // An installation and an operation of the window leave a permit for the lookup, no more.
    const UpdaterPermit installation, operation;
    QCOMPARE(latestInstalledVersion().has_value(), found.has_value());
    UpdaterPermit third;
    QVERIFY(third && !isUpdaterIdle() && !UpdaterPermit() && !latestInstalledVersion());
    third.release();
    third.release();
    QCOMPARE(updaterAccess.available(), 1);
}

void TestUpdater::resultNames()
{
    std::ostringstream stream;
    stream << vlupd::OK << ' ' << vlupd::UPDATER_DATA_ERROR << ' ' << vlupd::INSTALLED_FILES_BROKEN;
    QCOMPARE(stream.str(), std::string("OK UPDATER_DATA_ERROR 12"));
}

QTEST_GUILESS_MAIN(TestUpdater)
#include "tst_updater.moc"
