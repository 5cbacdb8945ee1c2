#include "app/logging.h"
#include "tests/support/childprogram.h"
#include "tests/support/scriptedvl.h"
#include "updates/updater.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTest>

#include <cstdlib>
#include <iostream>
#include <sstream>

class TestUpdater : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void oneObject();
    void permits();
    void latest_data();
    void latest();
    void latestWithoutPermit();
    void resultNames_data();
    void resultNames();
    void releasedAtExit();
};

void TestUpdater::oneObject()
{
    scripted::setScript({});
    QVERIFY(!latestInstalledVersion());
    QVERIFY(scripted::calls().empty());

    vlupd::VLUPD* const updater = updaterInstance();
    QVERIFY(updater != nullptr);
    QCOMPARE(updaterInstance(), updater);
    const std::string root = QCoreApplication::applicationDirPath().toStdString();
    QCOMPARE(scripted::callsOf("constructor"), std::vector{root});
    QCOMPARE(scripted::callsOf("cleanDownloads"), std::vector{std::string("30")});
    QCOMPARE(updaterAccess.available(), 3);
}

void TestUpdater::permits()
{
    UpdaterPermit installation;
    {
        const UpdaterPermit operation;
        const UpdaterPermit nested;
        QVERIFY(installation && operation && nested);
        QVERIFY(!isUpdaterIdle());
        const UpdaterPermit refused;
        QVERIFY(!refused);
    }
    QCOMPARE(updaterAccess.available(), 2);
    installation.release();
    installation.release();
    QVERIFY(!installation);
    QCOMPARE(updaterAccess.available(), 3);
}

void TestUpdater::latest_data()
{
    QTest::addColumn<QString>("installed"); // versions; "-" before one whose folder is gone
    QTest::addColumn<QString>("latest");
    QTest::newRow("none") << ""
                          << "";
    QTest::newRow("one") << "1.0.0"
                         << "1.0.0";
    QTest::newRow("numbers, not text") << "1.2.0 1.10.0 1.9.0"
                                       << "1.10.0";
    QTest::newRow("pre-release") << "2.0.0-rc.1 2.0.0 2.0.0-beta"
                                 << "2.0.0";
    QTest::newRow("no version number") << "zeta 0.1.0"
                                       << "0.1.0";
    QTest::newRow("folder removed by hand") << "-1.0.0"
                                            << "";
    QTest::newRow("folder of the greatest removed") << "1.0.0 -1.1.0"
                                                    << "";
}

void TestUpdater::latest()
{
    QFETCH(QString, installed);
    QFETCH(QString, latest);
    const QTemporaryDir root;
    scripted::Script script;
    for (QString version : installed.split(u' ', Qt::SkipEmptyParts)) {
        const bool gone = version.startsWith(u'-');
        version = version.mid(gone ? 1 : 0);
        const QString folder = root.filePath(QStringLiteral("папка ") + version);
        if (!gone)
            QVERIFY(QDir().mkdir(folder));
        script.installed[version.toStdString()] = {folder.toStdString()};
    }
    scripted::setScript(script);
    updaterInstance();

    const auto found = latestInstalledVersion();
    QCOMPARE(found ? found->first : QString(), latest);
    if (found)
        QCOMPARE(found->second.absolutePath(), root.filePath(QStringLiteral("папка ") + latest));
    QCOMPARE(updaterAccess.available(), 3);
}

void TestUpdater::latestWithoutPermit()
{
    const QTemporaryDir folder;
    scripted::Script script;
    script.installed["1.0.0"] = {folder.path().toStdString()};
    scripted::setScript(script);
    QVERIFY(latestInstalledVersion());

    updaterAccess.acquire(3);
    QVERIFY(!latestInstalledVersion());
    QCOMPARE(scripted::callsOf("getInstalledVersions").size(), std::size_t{1});
    updaterAccess.release(3);
}

void TestUpdater::resultNames_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<std::string>("text");
    QTest::newRow("first") << 0 << std::string("OK");
    QTest::newRow("middle") << 6 << std::string("CONTENT_LEN_ERROR");
    QTest::newRow("last") << 11 << std::string("UPDATER_DATA_ERROR");
    QTest::newRow("without a name") << 12 << std::string("12");
    QTest::newRow("negative") << -1 << std::string("-1");
}

void TestUpdater::resultNames()
{
    QFETCH(int, value);
    QFETCH(std::string, text);
    std::ostringstream stream;
    stream << static_cast<vlupd::UPD_RESULT>(value);
    QCOMPARE(stream.str(), text);
}

void TestUpdater::releasedAtExit()
{
    const ChildProgram child;
    QCOMPARE(child.run(QStringLiteral("exit")), QByteArray("destroyed, no log buffer"));
}

/// Ends while the library still knows the log buffer of a window that is gone.
static int endProcess(int& argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    // Registered first, so run after the library object is destroyed.
    std::atexit([] {
        const auto destroyed = scripted::callsOf("destructor");
        if (destroyed.size() == 1)
            std::cout << "destroyed, "
                      << (destroyed.front().empty() ? "no log buffer" : destroyed.front());
        std::cout.flush();
    });
    windowbuf buffer;
    updaterInstance()->setLogBuf(&buffer);
    return 0;
}

static int runTest(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    TestUpdater test;
    return QTest::qExec(&test, argc, argv);
}

int main(int argc, char** argv)
{
    return runScenarioOr(runTest, {{"exit", endProcess}}, argc, argv);
}

#include "tst_updater.moc"
