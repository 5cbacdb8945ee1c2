#include "ui/mainwindow/mainwindow.h"

#include "app/settingsstore.h"
#include "tests/support/modalanswerer.h"
#include "tests/support/scriptedvl.h"
#include "updates/installationhelper.h"
#include "updates/updater.h"

#include <QComboBox>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

/// The main window on a scripted update library.
class MainWindowTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup() { QCOMPARE(updaterAccess.available(), 3); }
    void window();
    void versions();
    void noticeAppearsOnce();
    void runButton_data();
    void runButton();
    void startsTheSimulator();
    void installation();
    void failedInstallation();
    void finishedWithoutPermit();

private:
    void makeInstalled(const QString& version);

    std::unique_ptr<QTemporaryDir> m_folder;
    scripted::Script m_script;
};

namespace {

const QString doneMessage = QStringLiteral("Загружено!");

template <class T> T* child(const QWidget& window, const char* name)
{
    T* found = window.findChild<T*>(QLatin1String(name));
    if (!found)
        qFatal("no widget %s", name);
    return found;
}

QString text(const QWidget& window, const char* label)
{
    return child<QLabel>(window, label)->text();
}

bool isShown(const MainWindow& window, const char* name)
{
    return child<QWidget>(window, name)->isVisibleTo(&window);
}

void select(const MainWindow& window, const QString& version)
{
    auto* box = child<QComboBox>(window, "versionsComboBox");
    box->setCurrentIndex(box->findData(version));
}

void pressRun(const MainWindow& window)
{
    child<QPushButton>(window, "runSimulatorButton")->click();
}

bool isIdle(MainWindow& window)
{
    bool idle = false;
    QMetaObject::invokeMethod(&window, "isProgressStateIDLE", Q_RETURN_ARG(bool, idle));
    return idle;
}

} // namespace

void MainWindowTest::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_script.catalogue = nlohmann::json::parse(R"({
        "1.1.0": {}, "1.2.0": {"name": ""}, "1.10.0": {}, "2.0.0": {"name": "Особая"}
    })");
    scripted::setScript(m_script);
    SettingsStore::instance().setValue(settings::vcsGroup, settings::showSpecialVersions, true);
}

/// Lets `version` be installed into a folder with one file of 5 bytes.
void MainWindowTest::makeInstalled(const QString& version)
{
    QFile file(m_folder->filePath(QStringLiteral("simulator.exe"))); // what Windows can execute
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("12345") == 5);
    scripted::Script changed = m_script;
    changed.installed[version.toStdString()] = {m_folder->path().toStdString()};
    changed.executables[version.toStdString()] = file.fileName().toStdString();
    scripted::setScript(changed);
}

void MainWindowTest::window()
{
    MainWindow window;
    // Without these hints the task bar could not minimise the window.
    const auto needed = Qt::FramelessWindowHint | Qt::WindowMinimizeButtonHint |
                        Qt::WindowMaximizeButtonHint | Qt::WindowSystemMenuHint;
    QCOMPARE(window.windowFlags() & needed, needed);
    QCOMPARE(window.windowTitle(), QStringLiteral("Varnel Simulator"));
    QCOMPARE(text(window, "currentInstalledVersionLabel"), QStringLiteral("Не установлен"));

    // Nothing of the design's sample texts may be left, and nothing of the frame while idle.
    QCOMPARE(text(window, "progressText"), QStringLiteral("Нет активных загрузок"));
    for (const char* name : {"progressBar", "progressSizeText", "progressTimeText", "progressText"})
        QVERIFY2(!isShown(window, name), name);
}

void MainWindowTest::versions()
{
    makeInstalled(QStringLiteral("1.9.0"));
    MainWindow window;
    const auto* box = child<QComboBox>(window, "versionsComboBox");
    QStringList shown;
    for (int i = 0; i < box->count(); ++i)
        shown.append(box->itemText(i) + u'|' + box->itemData(i, Qt::UserRole).toString());
    const QStringList expected{QStringLiteral("v. 2.0.0 (Особая)|2.0.0"),
                               QStringLiteral("v. 1.10.0|1.10.0"), QStringLiteral("v. 1.9.0|1.9.0"),
                               QStringLiteral("v. 1.2.0 ()|1.2.0"),
                               QStringLiteral("v. 1.1.0|1.1.0")};
    QCOMPARE(shown, expected);
    QCOMPARE(box->currentIndex(), 0);
    QCOMPARE(text(window, "currentInstalledVersionLabel"), QStringLiteral("v. 1.9.0"));
}

void MainWindowTest::noticeAppearsOnce()
{
    SettingsStore::instance().setValue(settings::vcsGroup, settings::availableVersions,
                                       QStringList{QStringLiteral("1.1.0")});
    QVERIFY(isShown(MainWindow(), "updateButton"));
    MainWindow next;
    QVERIFY(!isShown(next, "updateButton"));
    QVERIFY(child<QWidget>(next, "updateButton")->sizePolicy().retainSizeWhenHidden());
}

void MainWindowTest::runButton_data()
{
    QTest::addColumn<QString>("installed");
    QTest::addColumn<bool>("emptyFolder");
    QTest::addColumn<bool>("executableKnown");
    QTest::addColumn<QString>("message");
    const auto row = [](const char* name, const char* installed, bool empty, bool known,
                        const QString& message) {
        QTest::newRow(name) << QString::fromLatin1(installed) << empty << known << message;
    };
    row("nothing installed", "", false, false, doneMessage);
    row("lower version installed", "1.1.0", false, true, doneMessage);
    row("higher version installed", "1.10.0", false, true, doneMessage);
    row("empty folder", "1.2.0", true, true, QStringLiteral("Симулятор некорректно\nустановлен"));
    row("no executable", "1.2.0", false, false, QStringLiteral("Нет данных об\nисполняемом файле"));
}

void MainWindowTest::runButton()
{
    QFETCH(const QString, installed);
    QFETCH(const bool, emptyFolder);
    QFETCH(const bool, executableKnown);
    QFETCH(const QString, message);
    if (!emptyFolder)
        makeInstalled(QStringLiteral("0.0.1"));
    scripted::Script changed = m_script;
    if (!installed.isEmpty())
        changed.installed[installed.toStdString()] = {m_folder->path().toStdString()};
    if (executableKnown)
        changed.executables["1.2.0"] = "unused";
    scripted::setScript(changed);

    const ModalAnswerer answerer;
    MainWindow window;
    select(window, QStringLiteral("1.2.0"));
    pressRun(window);
    QTRY_COMPARE(answerer.texts(), QStringList(message));
    QTRY_VERIFY(!window.isInstalling());
    const std::vector<std::string> selected{"1.2.0"};
    QCOMPARE(scripted::callsOf("installVersion"),
             message == doneMessage ? selected : std::vector<std::string>{});
    QVERIFY(isIdle(window));
}

void MainWindowTest::startsTheSimulator()
{
    makeInstalled(QStringLiteral("1.2.0"));
    MainWindow window;
    select(window, QStringLiteral("1.2.0"));
    pressRun(window);
    QCOMPARE(scripted::callsOf("getAppExecutablePath"),
             std::vector<std::string>{"1.2.0 default_exec"});
    QVERIFY(scripted::callsOf("installVersion").empty());
    const QFileInfo executable(m_folder->filePath(QStringLiteral("simulator.exe")));
    QVERIFY(executable.permission(QFile::ExeOwner | QFile::ExeOther));
    QVERIFY(!(executable.permissions() & QFile::WriteOwner));
    QVERIFY(isIdle(window));
}

void MainWindowTest::installation()
{
    makeInstalled(QStringLiteral("0.0.1"));
    scripted::Script changed = m_script;
    changed.installation.emplace_back(scripted::Stage{vlupd::STAGE_DOWNLOADING});
    changed.installation.emplace_back(scripted::Progress{1, 512, 1024});
    changed.installation.emplace_back(scripted::Gate{});
    changed.installedAfterwards = scripted::Installed{{"1.2.0", {m_folder->path().toStdString()}}};
    scripted::setScript(changed);

    const ModalAnswerer answerer;
    MainWindow window;
    select(window, QStringLiteral("1.2.0"));
    pressRun(window);
    QVERIFY(!isIdle(window));
    scripted::waitAtGate();
    QTRY_COMPARE(child<QProgressBar>(window, "progressBar")->value(), 50);
    for (const char* name : {"progressBar", "progressSizeText", "progressTimeText", "progressText"})
        QVERIFY2(isShown(window, name), name);
    QCOMPARE(text(window, "progressText"), QStringLiteral("Скачивание новых файлов"));
    QCOMPARE(text(window, "progressSizeText"), QStringLiteral("512\t/\t1024\tбайт"));
    QCOMPARE(text(window, "progressTimeText"), QStringLiteral("Осталось примерно\t9\tмин"));

    // A second press starts nothing.
    QTest::ignoreMessage(QtInfoMsg, "[runSimulatorBtnHandler] Already in process\n");
    pressRun(window);
    QCOMPARE(scripted::callsOf("installVersion").size(), 1U);

    scripted::openGate();
    QTRY_COMPARE(answerer.texts(), QStringList(doneMessage));
    QCOMPARE(text(window, "currentInstalledVersionLabel"), QStringLiteral("v. 1.2.0"));
    QCOMPARE(SettingsStore::instance().getValue(settings::filesystemGroup,
                                                settings::installationSize, false, qulonglong(0)),
             std::optional<qulonglong>(5));
    QVERIFY(isIdle(window));
    QVERIFY(!isShown(window, "progressBar"));
    QTRY_VERIFY(!window.isInstalling());
}

void MainWindowTest::failedInstallation()
{
    scripted::Script changed = m_script;
    changed.installResult = vlupd::NOT_FOUND;
    scripted::setScript(changed);
    bool idleMeanwhile = false;
    MainWindow window;
    const ModalAnswerer answerer([&](QDialog&) { idleMeanwhile = isIdle(window); });
    pressRun(window);
    QTRY_COMPARE(answerer.texts(),
                 QStringList(QStringLiteral("Произошла ошибка\nпри установке симулятора")));
    QVERIFY(idleMeanwhile);
    QCOMPARE(text(window, "currentInstalledVersionLabel"), QStringLiteral("Не установлен"));
    QTRY_VERIFY(!window.isInstalling());
}

void MainWindowTest::finishedWithoutPermit()
{
    scripted::Script changed = m_script;
    changed.installation.emplace_back(scripted::Gate{});
    scripted::setScript(changed);
    const ModalAnswerer answerer;
    MainWindow window;
    select(window, QStringLiteral("1.2.0"));
    pressRun(window);
    scripted::waitAtGate();
    scripted::openGate();
    for (auto* worker : window.findChildren<InstallationHelper*>())
        QVERIFY(worker->wait()); // and the window has heard nothing of it yet
    updaterAccess.acquire(3);
    QTRY_COMPARE(text(window, "currentInstalledVersionLabel"), QStringLiteral("v. 1.2.0"));
    QVERIFY(!isIdle(window));
    QVERIFY(answerer.texts().isEmpty());
    updaterAccess.release(3);
}

QTEST_MAIN(MainWindowTest)
#include "mainwindowtest.moc"
