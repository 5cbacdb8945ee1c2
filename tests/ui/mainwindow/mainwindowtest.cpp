#include "ui/mainwindow/mainwindow.h"

#include "app/settingsstore.h"
#include "tests/support/modalanswerer.h"
#include "tests/support/scriptedvl.h"
#include "ui/menu/menudialog.h"
#include "updates/installationhelper.h"
#include "updates/updater.h"

#include <QComboBox>
#include <QDesktopServices>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

/// The main window on a scripted update library.
class MainWindowTest final : public QObject
{
    Q_OBJECT

public Q_SLOTS:
    void open(const QUrl& url) { m_opened.append(url); }

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase() { QDesktopServices::unsetUrlHandler(QStringLiteral("https")); }
    void window();
    void keyboardOrder();
    void versions();
    void noticeAppearsOnce();
    void runButton_data();
    void runButton();
    void runButtonWithoutPermit();
    void startsTheSimulator();
    void installation();
    void stages_data();
    void stages();
    void failedInstallation();
    void finishedWithoutPermit();
    void supportPage_data();
    void supportPage();
    void menu();

private:
    void script(scripted::Script changed);
    void makeInstalled(const QString& version);

    std::unique_ptr<QTemporaryDir> m_folder;
    scripted::Script m_script;
    QList<QUrl> m_opened;
};

namespace {

const QString failedMessage = QStringLiteral("Произошла ошибка\nпри установке симулятора");

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

/// Lets the installation's thread come to its end while the window hears nothing of it.
void finishThread(const MainWindow& window)
{
    scripted::openGate();
    for (auto* worker : window.findChildren<InstallationHelper*>())
        QVERIFY(worker->wait());
}

} // namespace

void MainWindowTest::initTestCase()
{
    // The catalogue is read once in a process.
    m_script.catalogue = nlohmann::json::parse(R"({
        "1.1.0": {"date": "2026-01-01"},
        "1.2.0": {"date": "2026-02-02", "name": ""},
        "1.10.0": {"date": "2026-03-03"},
        "2.0.0": {"date": "2026-04-04", "name": "Особая"}
    })");
    QDesktopServices::setUrlHandler(QStringLiteral("https"), this, "open");
}

void MainWindowTest::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_opened.clear();
    script(m_script);
    auto& store = SettingsStore::instance();
    store.setValue(settings::vcsGroup, settings::showSpecialVersions, true);
    store.setValue(settings::filesystemGroup, settings::installationSize, qulonglong(7));
}

void MainWindowTest::cleanup()
{
    QCOMPARE(updaterAccess.available(), 3);
}

void MainWindowTest::script(scripted::Script changed)
{
    scripted::setScript(std::move(changed));
}

/// Lets `version` be installed into a folder with one file of 5 bytes.
void MainWindowTest::makeInstalled(const QString& version)
{
    QFile file(m_folder->filePath(QStringLiteral("simulator")));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("12345") == 5);
    scripted::Script changed = m_script;
    changed.installed[version.toStdString()] = {m_folder->path().toStdString()};
    changed.executables[version.toStdString()] = file.fileName().toStdString();
    script(changed);
}

void MainWindowTest::window()
{
    MainWindow window;
    // Without these hints the task bar could not minimise the window.
    const auto needed = Qt::FramelessWindowHint | Qt::WindowMinimizeButtonHint |
                        Qt::WindowMaximizeButtonHint | Qt::WindowSystemMenuHint;
    QCOMPARE(window.windowFlags() & needed, needed);
    QCOMPARE(window.windowTitle(), QStringLiteral("Varnel Simulator"));
    QCOMPARE(child<QPushButton>(window, "runSimulatorButton")->text(),
             QStringLiteral("  Запустить симулятор"));
    QCOMPARE(child<QPushButton>(window, "updateButton")->text(),
             QStringLiteral("Доступно обновление"));
    QCOMPARE(text(window, "currentInstalledVersionLabel"), QStringLiteral("Не установлен"));
    const auto* report = child<QPushButton>(window, "bugreportButton");
    QVERIFY(!report->isEnabled() && !report->toolTip().isEmpty());

    // Nothing of the design's sample texts may be left, and nothing of the frame while idle.
    QCOMPARE(text(window, "progressText"), QStringLiteral("Нет активных загрузок"));
    QCOMPARE(text(window, "progressSizeText"), QString());
    QCOMPARE(text(window, "progressTimeText"), QString());
    for (const char* name : {"progressBar", "progressSizeText", "progressTimeText", "progressText"})
        QVERIFY2(!isShown(window, name), name);

    window.show();
    auto* expand = child<QPushButton>(window, "expandButton");
    expand->click();
    QVERIFY(window.isMaximized());
    QCOMPARE(expand->accessibleName(), QStringLiteral("Восстановить"));
    expand->click();
    QVERIFY(!window.isMaximized());
    QCOMPARE(expand->accessibleName(), QStringLiteral("Развернуть"));
    child<QPushButton>(window, "minimizeButton")->click();
    QVERIFY(window.isMinimized());
}

void MainWindowTest::keyboardOrder()
{
    MainWindow window;
    child<QWidget>(window, "updateButton")->show();
    child<QWidget>(window, "bugreportButton")->setEnabled(true);
    window.show();
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    QStringList names;
    for (int i = 0; i < 10; ++i) {
        names.append(QApplication::focusWidget()->objectName());
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
    }
    const QStringList expected = QStringLiteral("runSimulatorButton updateButton settingsButton "
                                                "versionHistoryButton bugreportButton helpButton "
                                                "minimizeButton expandButton closeButton "
                                                "versionsComboBox")
                                     .split(u' ');
    QCOMPARE(names, expected);
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
    QTest::addColumn<QStringList>("installs");
    QTest::addColumn<QStringList>("messages");
    const auto row = [](const char* name, const char* installed, bool empty, bool known,
                        const QStringList& installs, const QStringList& messages) {
        QTest::newRow(name) << QString::fromLatin1(installed) << empty << known << installs
                            << messages;
    };
    const QStringList selected(QStringLiteral("1.2.0"));
    const QStringList done(QStringLiteral("Загружено!"));
    row("nothing installed", "", false, false, selected, done);
    row("lower version installed", "1.1.0", false, true, selected, done);
    row("higher version installed", "1.10.0", false, true, selected, done);
    row("empty folder", "1.2.0", true, true, {},
        {QStringLiteral("Симулятор некорректно\nустановлен")});
    row("no executable", "1.2.0", false, false, {},
        {QStringLiteral("Нет данных об\nисполняемом файле")});
}

void MainWindowTest::runButton()
{
    QFETCH(const QString, installed);
    QFETCH(const bool, emptyFolder);
    QFETCH(const bool, executableKnown);
    QFETCH(const QStringList, installs);
    QFETCH(const QStringList, messages);
    if (!emptyFolder)
        makeInstalled(QStringLiteral("0.0.1"));
    scripted::Script changed = m_script;
    if (!installed.isEmpty())
        changed.installed[installed.toStdString()] = {m_folder->path().toStdString()};
    if (executableKnown)
        changed.executables["1.2.0"] = "unused";
    script(changed);

    const ModalAnswerer answerer;
    MainWindow window;
    select(window, QStringLiteral("1.2.0"));
    pressRun(window);
    QTRY_COMPARE(answerer.texts(), messages);
    QTRY_VERIFY(!window.isInstalling());
    QStringList called;
    for (const std::string& version : scripted::callsOf("installVersion"))
        called.append(QString::fromStdString(version));
    QCOMPARE(called, installs);
    QVERIFY(isIdle(window));
}

void MainWindowTest::runButtonWithoutPermit()
{
    makeInstalled(QStringLiteral("1.2.0"));
    MainWindow window;
    select(window, QStringLiteral("1.2.0"));
    updaterAccess.acquire(3);
    pressRun(window);
    QVERIFY(isIdle(window));
    updaterAccess.release(3);
    QVERIFY(scripted::callsOf("getAppExecutablePath").empty());
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
    const QFileInfo executable(m_folder->filePath(QStringLiteral("simulator")));
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
    script(changed);

    const ModalAnswerer answerer;
    MainWindow window;
    select(window, QStringLiteral("1.2.0"));
    const auto* bar = child<QProgressBar>(window, "progressBar");
    pressRun(window);
    QVERIFY(!isIdle(window));
    QVERIFY(isShown(window, "progressBar"));
    scripted::waitAtGate();
    QTRY_COMPARE(bar->value(), 50);
    QCOMPARE(text(window, "progressSizeText"), QStringLiteral("512\t/\t1024\tбайт"));
    QCOMPARE(text(window, "progressTimeText"), QStringLiteral("Осталось примерно\t9\tмин"));

    // A second press starts nothing.
    QTest::ignoreMessage(QtInfoMsg, "[runSimulatorBtnHandler] Already in process\n");
    pressRun(window);
    QCOMPARE(scripted::callsOf("installVersion").size(), 1U);
    QVERIFY(child<QPushButton>(window, "runSimulatorButton")->isEnabled());

    scripted::openGate();
    QTRY_COMPARE(answerer.texts(), QStringList(QStringLiteral("Загружено!")));
    QCOMPARE(text(window, "currentInstalledVersionLabel"), QStringLiteral("v. 1.2.0"));
    QCOMPARE(SettingsStore::instance().getValue(settings::filesystemGroup,
                                                settings::installationSize, false, qulonglong(0)),
             std::optional<qulonglong>(5));
    QVERIFY(isIdle(window));
    QVERIFY(!isShown(window, "progressBar"));
    QCOMPARE(bar->value(), 0);

    // A report that comes late fills what nobody sees.
    QMetaObject::invokeMethod(&window, "onProgressUnitPassed", Q_ARG(uint64_t, 0),
                              Q_ARG(uint64_t, 9), Q_ARG(uint64_t, 3));
    QCOMPARE(bar->value(), 100);
    QVERIFY(!isShown(window, "progressBar"));
    QTRY_VERIFY(!window.isInstalling());
}

void MainWindowTest::stages_data()
{
    QTest::addColumn<int>("stage");
    QTest::addColumn<QString>("shown");
    QTest::newRow("again") << 1 << QStringLiteral("Скачивание новых файлов");
    QTest::newRow("unpacking") << 2 << QStringLiteral("Распаковка архивов");
    QTest::newRow("applying") << 3 << QStringLiteral("Применение изменений");
    QTest::newRow("unknown") << 17 << QStringLiteral("Нет активных загрузок");
}

void MainWindowTest::stages()
{
    QFETCH(const int, stage);
    QFETCH(const QString, shown);
    scripted::Script changed = m_script;
    changed.installation.emplace_back(scripted::Progress{1, 1, 4});
    changed.installation.emplace_back(
        scripted::Stage{static_cast<vlupd::UPD_INSTALLATION_STAGE>(stage)});
    changed.installation.emplace_back(scripted::Gate{});
    script(changed);
    const ModalAnswerer answerer;
    MainWindow window;
    pressRun(window);
    scripted::waitAtGate();
    QTRY_COMPARE(child<QProgressBar>(window, "progressBar")->value(), 25);
    QTRY_COMPARE(text(window, "progressText"), shown);
    for (const char* name : {"progressBar", "progressSizeText", "progressTimeText", "progressText"})
        QVERIFY2(isShown(window, name), name);
    // A new stage leaves the figures as they were.
    QCOMPARE(child<QProgressBar>(window, "progressBar")->value(), 25);
    QVERIFY(!isIdle(window));
    scripted::openGate();
    QTRY_COMPARE(answerer.texts().size(), 1);
    QTRY_VERIFY(!window.isInstalling());
}

void MainWindowTest::failedInstallation()
{
    scripted::Script changed = m_script;
    changed.installResult = vlupd::NOT_FOUND;
    script(changed);
    bool idleMeanwhile = false;
    MainWindow window;
    const ModalAnswerer answerer([&](QDialog&) { idleMeanwhile = isIdle(window); });
    pressRun(window);
    QTRY_COMPARE(answerer.texts(), QStringList(failedMessage));
    QVERIFY(idleMeanwhile);
    QCOMPARE(text(window, "currentInstalledVersionLabel"), QStringLiteral("Не установлен"));
    QCOMPARE(SettingsStore::instance().getValue(settings::filesystemGroup,
                                                settings::installationSize, false, qulonglong(0)),
             std::optional<qulonglong>(7));
    QTRY_VERIFY(!window.isInstalling());
}

void MainWindowTest::finishedWithoutPermit()
{
    scripted::Script changed = m_script;
    changed.installation.emplace_back(scripted::Gate{});
    script(changed);
    const ModalAnswerer answerer;
    MainWindow window;
    select(window, QStringLiteral("1.2.0"));
    pressRun(window);
    scripted::waitAtGate();
    finishThread(window);
    updaterAccess.acquire(3);
    QTRY_COMPARE(text(window, "currentInstalledVersionLabel"), QStringLiteral("v. 1.2.0"));
    QVERIFY(!isIdle(window));
    QVERIFY(answerer.texts().isEmpty());
    updaterAccess.release(3);
}

void MainWindowTest::supportPage_data()
{
    QTest::addColumn<QByteArray>("button");
    QTest::addColumn<int>("opened");
    QTest::newRow("accepted") << QByteArray("acceptButton") << 1;
    QTest::newRow("declined") << QByteArray("declineButton") << 0;
}

void MainWindowTest::supportPage()
{
    QFETCH(const QByteArray, button);
    QFETCH(const int, opened);
    MainWindow window;
    const ModalAnswerer answerer([&](QDialog& question) {
        QVERIFY(m_opened.isEmpty());
        child<QPushButton>(question, button.constData())->click();
    });
    child<QPushButton>(window, "helpButton")->click();
    QCOMPARE(answerer.texts(),
             QStringList(QStringLiteral(
                 "Для обращения в поддержку требуется открыть браузер. Продолжить?")));
    QCOMPARE(m_opened.size(), opened);
    if (opened)
        QCOMPARE(m_opened.first().path(), QStringLiteral("/ru/support"));
}

void MainWindowTest::menu()
{
    const auto findMenu = [] {
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (auto* dialog = qobject_cast<MenuDialog*>(widget))
                return dialog;
        }
        return static_cast<MenuDialog*>(nullptr);
    };
    auto window = std::make_unique<MainWindow>();
    window->move(40, 50);
    window->show();
    QVERIFY(!findMenu());
    child<QPushButton>(*window, "settingsButton")->click();
    MenuDialog* menu = findMenu();
    QVERIFY(menu && menu->isVisible() && !menu->isModal());
    QCOMPARE(menu->pos(), window->pos() + QPoint(window->width() / 2 - menu->width() / 2,
                                                 window->height() / 2 - menu->height() / 2));

    QVERIFY(Q_EMIT menu->isProgressStateIDLE());
    const ModalAnswerer answerer;
    Q_EMIT menu->warningWindowRequested(QStringLiteral("Внимание"));
    QCOMPARE(answerer.texts(), QStringList(QStringLiteral("Внимание")));

    makeInstalled(QStringLiteral("1.1.0"));
    Q_EMIT menu->onRemovingSimulatorSucceed();
    QCOMPARE(text(*window, "currentInstalledVersionLabel"), QStringLiteral("v. 1.1.0"));

    const auto* box = child<QComboBox>(*window, "versionsComboBox");
    QVERIFY(box->findData(QStringLiteral("2.0.0")) >= 0);
    SettingsStore::instance().setValue(settings::vcsGroup, settings::showSpecialVersions, false);
    Q_EMIT menu->reloadConfigRequired();
    QCOMPARE(box->findData(QStringLiteral("2.0.0")), -1);

    // One dialog for the whole life of the window, and not longer.
    menu->hide();
    child<QPushButton>(*window, "versionHistoryButton")->click();
    QCOMPARE(findMenu(), menu);
    window.reset();
    QVERIFY(!findMenu());
}

QTEST_MAIN(MainWindowTest)
#include "mainwindowtest.moc"
