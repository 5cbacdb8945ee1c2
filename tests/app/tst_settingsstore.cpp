#include "app/settingsstore.h"
#include "tests/support/childprogram.h"

#include <QCoreApplication>
#include <QFile>
#include <QTest>

#include <iostream>

class TestSettingsStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void freshFile();
    void reads_data();
    void reads();
    void valuesSurviveTheProcess_data();
    void valuesSurviveTheProcess();
};

namespace {

const QString settingsFile = QStringLiteral("config.ini");

QByteArray content(const QDir& folder)
{
    QFile file(folder.filePath(settingsFile));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("no file");
}

void printed(const std::optional<QStringList>& value)
{
    std::cout << (value
                      ? '[' + value->join(u'|').toStdString() + ']' + std::to_string(value->size())
                      : "absent")
              << '\n';
}

void printed(const std::optional<qulonglong>& value)
{
    std::cout << (value ? std::to_string(*value) : "absent") << '\n';
}

void printed(const std::optional<bool>& value)
{
    std::cout << (value ? *value ? "true" : "false" : "absent") << '\n';
}

std::optional<bool> hidden()
{
    return SettingsStore::instance().getValue(
        settings::stateGroup, settings::shouldHideNewUpdateNotification, true, true);
}

/// Prints the two lists, the size and the flag that the store writes at its start, then a first
/// and a second read of a flag that it does not.
int readAll(int& argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    SettingsStore& store = SettingsStore::instance();
    printed(store.getValue(settings::vcsGroup, settings::availableVersions, true, QStringList()));
    printed(
        store.getValue(settings::filesystemGroup, settings::installationSize, true, qulonglong{5}));
    printed(store.getValue(settings::stateGroup, settings::shouldRequestDescriptions, true, false));
    printed(hidden());
    printed(hidden());
    return 0;
}

/// Stores its arguments as the list of versions; the event loop alone writes the file.
int writeVersions(int& argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    SettingsStore::instance().setValue(settings::vcsGroup, settings::availableVersions,
                                       QCoreApplication::arguments().mid(3));
    QCoreApplication::processEvents();
    return 0;
}

/// Creates the store, and reads a missing key without writing its default.
int start(int& argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    printed(SettingsStore::instance().getValue(settings::vcsGroup, settings::showSpecialVersions,
                                               false, true));
    SettingsStore::instance().sync();
    return 0;
}

} // namespace

void TestSettingsStore::freshFile()
{
    const ChildProgram child;
    QCOMPARE(child.run(QStringLiteral("start")), QByteArray("absent\n"));
    QCOMPARE(content(child.folder()), QByteArray("[FILESYSTEM]\ninstallationSize=0\n\n"
                                                 "[STATE]\nbShouldRequestDescriptions=true\n\n"
                                                 "[VCS]\navailableVersions=\n"));
}

void TestSettingsStore::reads_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<QByteArray>("values");
    const QByteArray defaults("[]1\n0\ntrue\n");
    const QByteArray flagWritten("absent\ntrue\n");
    QTest::newRow("no file") << QByteArray() << QByteArray(defaults + flagWritten);
    QTest::newRow("garbage") << QByteArray("\xff\0[[VCS=]\n=\n;", 13)
                             << QByteArray(defaults + flagWritten);
    QTest::newRow("list of one") << QByteArray("[VCS]\navailableVersions=1.0.0\n")
                                 << QByteArray("[1.0.0]1\n0\ntrue\n" + flagWritten);
    QTest::newRow("sizes and flags as text")
        << QByteArray("[FILESYSTEM]\ninstallationSize=18446744073709551615\n[STATE]\n"
                      "bShouldRequestDescriptions=false\nbShouldHideNewUpdateNotification=false\n")
        << QByteArray("[]1\n18446744073709551615\nfalse\nfalse\nfalse\n");
    QTest::newRow("wrong types") << QByteArray("[FILESYSTEM]\ninstallationSize=abc\n[STATE]\n"
                                               "bShouldRequestDescriptions=true, true\n"
                                               "bShouldHideNewUpdateNotification=@Invalid()\n")
                                 << QByteArray("[]1\n0\nfalse\nfalse\nfalse\n");
}

void TestSettingsStore::reads()
{
    QFETCH(QByteArray, file);
    QFETCH(QByteArray, values);
    const ChildProgram child;
    if (!file.isNull()) {
        QFile settings(child.folder().filePath(settingsFile));
        QVERIFY(settings.open(QIODevice::WriteOnly) && settings.write(file) == file.size());
    }
    QCOMPARE(child.run(QStringLiteral("readAll")), values);
}

void TestSettingsStore::valuesSurviveTheProcess_data()
{
    QTest::addColumn<QString>("versions"); // separated by spaces
    QTest::addColumn<QByteArray>("read");
    QTest::addColumn<bool>("fileInTheWay");
    QTest::newRow("none") << "" << QByteArray("[]0\n") << false;
    QTest::newRow("one") << "1.0.0" << QByteArray("[1.0.0]1\n") << false;
    QTest::newRow("with commas and Cyrillic")
        << "1,0 \"эхо\"" << QByteArray("[1,0|\"эхо\"]2\n") << false;
    // A folder in the place of the file can be neither read nor replaced, whoever the user is.
    QTest::newRow("unreadable and unwritable") << "1.0.0" << QByteArray("[]1\n") << true;
}

void TestSettingsStore::valuesSurviveTheProcess()
{
    QFETCH(QString, versions);
    QFETCH(QByteArray, read);
    QFETCH(bool, fileInTheWay);
    const ChildProgram child;
    if (fileInTheWay)
        QVERIFY(child.folder().mkpath(settingsFile + u"/folder"));
    QCOMPARE(child.run(QStringLiteral("writeVersions"), versions.split(u' ', Qt::SkipEmptyParts)),
             QByteArray());
    const QByteArray values = child.run(QStringLiteral("readAll"));
    QVERIFY2(values.startsWith(read), values.constData());
}

static int runTest(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    TestSettingsStore test;
    return QTest::qExec(&test, argc, argv);
}

int main(int argc, char** argv)
{
    return runScenarioOr(runTest,
                         {{"start", start}, {"readAll", readAll}, {"writeVersions", writeVersions}},
                         argc, argv);
}

#include "tst_settingsstore.moc"
