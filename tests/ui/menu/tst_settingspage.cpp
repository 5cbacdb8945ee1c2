#include "app/paths.h"
#include "app/settingsstore.h"
#include "tests/support/modalanswerer.h"
#include "tests/support/scriptedvl.h"
#include "ui/menu/menudialog.h"
#include "updates/updater.h"

#include <QCheckBox>
#include <QFrame>
#include <QLabel>
#include <QMetaMethod>
#include <QMouseEvent>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QStackedWidget>
#include <QTemporaryDir>
#include <QTest>

#include <iostream>
#include <memory>
#include <sstream>

/// The side menu's frame and its settings page, on a scripted update library.
class SettingsPageTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void cleanupTestCase();

    void window();
    void sizeFollowsThePage();
    void dragging();

    void refresh_data();
    void refresh();
    void sizeWrittenByTheFirstRefresh();
    void busyLibraryKeepsThePage();
    void check_data();
    void check();
    void checkWithNothingInstalled();
    void removal_data();
    void removal();
    void specialVersions();

private:
    void install(vlupd::UPD_RESULT checkResult = vlupd::OK,
                 vlupd::UPD_RESULT removeResult = vlupd::OK);
    QString storedValue(const QString& key) const;
    template <class T> T* child(const char* name) const
    {
        return m_dialog->findChild<T*>(QLatin1String(name));
    }
    void verifyPage(const QString& size, const QString& path, bool enabled) const;

    std::unique_ptr<QTemporaryDir> m_installed;
    std::unique_ptr<MenuDialog> m_dialog;
    bool m_idle = true;
};

namespace {

QString settingsFile()
{
    return applicationDirectory().filePath(QStringLiteral("config.ini"));
}

QMouseEvent mouse(QEvent::Type type, QPoint position, Qt::MouseButton button)
{
    return QMouseEvent(type, position, position, button, button, Qt::NoModifier);
}

} // namespace

void SettingsPageTest::init()
{
    scripted::setScript({});
    m_installed = std::make_unique<QTemporaryDir>();
    SettingsStore::instance().setValue(settings::vcsGroup, settings::showSpecialVersions, false);
    SettingsStore::instance().setValue(settings::filesystemGroup, settings::installationSize,
                                       qulonglong{1536});
    m_idle = true;
    m_dialog = std::make_unique<MenuDialog>();
    connect(m_dialog.get(), &MenuDialog::isProgressStateIDLE, this, [this] { return m_idle; });
    m_dialog->show();
}

void SettingsPageTest::cleanup()
{
    m_dialog.reset();
}

void SettingsPageTest::cleanupTestCase()
{
    QFile::remove(settingsFile());
}

void SettingsPageTest::install(vlupd::UPD_RESULT checkResult, vlupd::UPD_RESULT removeResult)
{
    QVERIFY(QDir(m_installed->path()).mkpath(QStringLiteral("bin")));
    scripted::Script script;
    script.installed["1.2.0"] = {m_installed->path().toStdString()};
    script.checkResult = checkResult;
    script.removeResult = removeResult;
    scripted::setScript(script);
}

QString SettingsPageTest::storedValue(const QString& key) const
{
    return QSettings(settingsFile(), QSettings::IniFormat).value(key).toString();
}

void SettingsPageTest::verifyPage(const QString& size, const QString& path, bool enabled) const
{
    QCOMPARE(child<QLabel>("installationSizeLabel")->text(), size);
    QCOMPARE(child<QPlainTextEdit>("installationPathTextEdit")->toPlainText(), path);
    QCOMPARE(child<QPushButton>("checkFilesButton")->isEnabled(), enabled);
    QCOMPARE(child<QPushButton>("deleteSimulatorButton")->isEnabled(), enabled);
}

void SettingsPageTest::window()
{
    QCOMPARE(m_dialog->windowFlags() & ~Qt::WindowType_Mask,
             Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    QVERIFY((m_dialog->windowFlags() & Qt::WindowType_Mask) != Qt::Dialog);

    QStringList methods;
    const QMetaObject& meta = MenuDialog::staticMetaObject;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        methods << QString::fromLatin1(meta.method(i).methodSignature());
    QCOMPARE(methods, (QStringList{QStringLiteral("warningWindowRequested(QString)"),
                                   QStringLiteral("onRemovingSimulatorSucceed()"),
                                   QStringLiteral("isProgressStateIDLE()"),
                                   QStringLiteral("reloadConfigRequired()")}));

    // The minimum above the maximum comes from the form.
    const auto* descriptions = child<QStackedWidget>("descriptionStackedWidget");
    QCOMPARE(descriptions->minimumSize(), QSize(450, 300));
    QCOMPARE(descriptions->maximumSize(), QSize(QWIDGETSIZE_MAX, 200));

    child<QPushButton>("closeButton")->click();
    QVERIFY(m_dialog->isHidden());
}

void SettingsPageTest::sizeFollowsThePage()
{
    install();
    const auto verifyFitted = [this] {
        const QSize hint =
            child<QStackedWidget>("stackedWidget")->currentWidget()->minimumSizeHint();
        const QSize expected(hint.width(),
                             child<QFrame>("windowControlsFrame")->height() + hint.height());
        QCOMPARE(m_dialog->minimumSize(), expected);
        QCOMPARE(m_dialog->maximumSize(), expected);
    };
    QVERIFY(m_dialog->switchToPage(1));
    verifyFitted();
    QVERIFY(m_dialog->switchToPage(0));
    verifyFitted();
    const QSize before = m_dialog->size();
    child<QPushButton>("checkFilesButton")->click();
    verifyFitted(); // at once, with no event processed in between
    QVERIFY(m_dialog->height() > before.height());
}

void SettingsPageTest::dragging()
{
    const QPoint start = m_dialog->pos();
    for (const auto button : {Qt::RightButton, Qt::LeftButton}) {
        QMouseEvent press = mouse(QEvent::MouseButtonPress, {10, 10}, button);
        QCoreApplication::sendEvent(m_dialog.get(), &press);
        QMouseEvent move = mouse(QEvent::MouseMove, {25, 4}, button);
        QCoreApplication::sendEvent(m_dialog.get(), &move);
        QCOMPARE(m_dialog->pos() - start, button == Qt::LeftButton ? QPoint(15, -6) : QPoint(0, 0));
    }
}

void SettingsPageTest::refresh_data()
{
    QTest::addColumn<bool>("installed");
    QTest::addColumn<QString>("folder"); // below the temporary one
    QTest::addColumn<bool>("idle");
    QTest::addColumn<bool>("shown");
    QTest::addColumn<bool>("enabled");

    const QString whole = QStringLiteral(".");
    QTest::newRow("nothing installed") << false << whole << true << false << false;
    QTest::newRow("folder gone") << true << QStringLiteral("gone") << true << false << false;
    QTest::newRow("folder empty") << true << QStringLiteral("bin") << true << false << false;
    QTest::newRow("installed") << true << whole << true << true << true;
    QTest::newRow("installation running") << true << whole << false << true << false;
}

void SettingsPageTest::refresh()
{
    QFETCH(bool, installed);
    QFETCH(QString, folder);
    QFETCH(bool, idle);
    QFETCH(bool, shown);
    QFETCH(bool, enabled);
    QVERIFY(QDir(m_installed->path()).mkpath(QStringLiteral("bin")));
    scripted::Script script;
    const QString path = QDir::cleanPath(m_installed->filePath(folder));
    if (installed)
        script.installed["1.2.0"] = {path.toStdString()};
    scripted::setScript(script);
    m_idle = idle;

    QVERIFY(m_dialog->switchToPage(0));
    verifyPage(shown ? QStringLiteral("1.5 КБ") : QStringLiteral("0 байт"),
               shown ? path : QStringLiteral("Не установлено"), enabled);
    QVERIFY(child<QLabel>("settingsStatusLabel")->isHidden());
}

void SettingsPageTest::sizeWrittenByTheFirstRefresh()
{
    install();
    QSettings(settingsFile(), QSettings::IniFormat)
        .remove(QStringLiteral("FILESYSTEM/installationSize"));
    m_dialog->switchToPage(0);
    verifyPage(QStringLiteral("0 байт"), QStringLiteral("Не установлено"), false);
    m_dialog->switchToPage(0);
    verifyPage(QStringLiteral("0 байт"), m_installed->path(), true);
}

void SettingsPageTest::busyLibraryKeepsThePage()
{
    install();
    QVERIFY(updaterAccess.tryAcquire(3));
    m_dialog->switchToPage(0);
    QCOMPARE(child<QLabel>("installationSizeLabel")->text(), QStringLiteral("4.5 ГБ"));
    child<QPushButton>("checkFilesButton")->click();
    QVERIFY(child<QLabel>("settingsStatusLabel")->isHidden());
    updaterAccess.release(3);
    QVERIFY(scripted::calls().empty());
}

void SettingsPageTest::check_data()
{
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("logLine");

    QTest::newRow("whole") << 0 << QStringLiteral("Ошибки не найдены.") << QByteArray();
    QTest::newRow("broken") << 12
                            << QStringLiteral(
                                   "Файлы повреждены. Возможно, требуется переустановка.")
                            << QByteArray("[checkFiles] Installed app files is broken. Please "
                                          "reinstall or fix.");
    for (const int other : {1, 10, 13})
        QTest::addRow("other %d", other)
            << other << QStringLiteral("Неизвестная ошибка.")
            << QByteArray("[checkFiles] Cause an internal libupd error");
}

void SettingsPageTest::check()
{
    QFETCH(int, result);
    QFETCH(QByteArray, logLine);
    install(static_cast<vlupd::UPD_RESULT>(result));
    m_dialog->switchToPage(0);
    if (!logLine.isEmpty())
        QTest::ignoreMessage(QtDebugMsg, logLine.constData());
    child<QPushButton>("checkFilesButton")->click();
    QVERIFY(child<QLabel>("settingsStatusLabel")->isVisible());
    QTEST(child<QLabel>("settingsStatusLabel")->text(), "text");
    QCOMPARE(scripted::callsOf("checkFiles"), std::vector<std::string>{"1.2.0"});
    QCOMPARE(updaterAccess.available(), 3);
}

void SettingsPageTest::checkWithNothingInstalled()
{
    child<QPushButton>("checkFilesButton")->click();
    QVERIFY(child<QLabel>("settingsStatusLabel")->isHidden());
    QVERIFY(scripted::callsOf("checkFiles").empty());
}

void SettingsPageTest::removal_data()
{
    QTest::addColumn<QString>("answer");
    QTest::addColumn<bool>("installed");
    QTest::addColumn<int>("permitsInUse");
    QTest::addColumn<int>("result"); // of the library, -1 when it is not asked
    QTest::addColumn<QByteArray>("logLine");
    QTest::addColumn<QString>("standardError");

    const QString accept = QStringLiteral("acceptButton");
    QTest::newRow("declined") << QStringLiteral("declineButton") << true << 0 << -1 << QByteArray()
                              << QString();
    QTest::newRow("nothing installed")
        << accept << false << 0 << -1
        << QByteArray("The app is not installed or some operation is in progress, please wait\n")
        << QString();
    QTest::newRow("no permit for the lookup")
        << accept << true << 2 << -1
        << QByteArray("The app is not installed or some operation is in progress, please wait\n")
        << QString();
    QTest::newRow("no permit") << accept << true << 3 << -1 << QByteArray() << QString();
    QTest::newRow("failed")
        << accept << true << 0 << 1
        << QByteArray("\"Causing an error while removing the current 1.2.0 version.\\n\"")
        << QStringLiteral("Exit code: SYSTEM_CALL_ERROR");
    QTest::newRow("done") << accept << true << 0 << 0 << QByteArray() << QString();
}

void SettingsPageTest::removal()
{
    QFETCH(QString, answer);
    QFETCH(bool, installed);
    QFETCH(int, permitsInUse);
    QFETCH(int, result);
    QFETCH(QByteArray, logLine);

    install(vlupd::OK, static_cast<vlupd::UPD_RESULT>(qMax(result, 0)));
    m_dialog->switchToPage(0);
    if (!installed)
        scripted::setScript({});
    QSignalSpy removed(m_dialog.get(), &MenuDialog::onRemovingSimulatorSucceed);
    QSignalSpy warned(m_dialog.get(), &MenuDialog::warningWindowRequested);
    ModalAnswerer answerer(
        [&](QDialog& dialog) { dialog.findChild<QPushButton*>(answer)->click(); });
    if (!logLine.isEmpty())
        QTest::ignoreMessage(QtDebugMsg, logLine.constData());
    QVERIFY(permitsInUse == 0 || updaterAccess.tryAcquire(permitsInUse));
    std::ostringstream standardError;
    std::streambuf* const previous = std::cerr.rdbuf(standardError.rdbuf());
    child<QPushButton>("deleteSimulatorButton")->click();
    std::cerr.rdbuf(previous);
    updaterAccess.release(permitsInUse);

    QCOMPARE(answerer.texts(),
             QStringList{QStringLiteral("Вы уверены, что хотите удалить текущую версию?")});
    QTEST(QString::fromStdString(standardError.str()), "standardError");
    QCOMPARE(scripted::callsOf("removeVersion").size(), std::size_t(result < 0 ? 0 : 1));
    QCOMPARE(updaterAccess.available(), 3);
    QCOMPARE(warned.size(), 0);
    const bool done = result == 0;
    QCOMPARE(removed.size(), done ? 1 : 0);
    QCOMPARE(storedValue(QStringLiteral("FILESYSTEM/installationSize")),
             done ? QStringLiteral("0") : QStringLiteral("1536"));
    if (done)
        verifyPage(QStringLiteral("0 байт"), QStringLiteral("Не установлено"), false);
    else
        verifyPage(QStringLiteral("1.5 КБ"), m_installed->path(), true);
}

void SettingsPageTest::specialVersions()
{
    SettingsStore::instance().setValue(settings::vcsGroup, settings::showSpecialVersions, true);
    QSignalSpy reloads(m_dialog.get(), &MenuDialog::reloadConfigRequired);
    auto* box = child<QCheckBox>("showSpecialCheckBox");
    const QString key = QStringLiteral("VCS/showSpecialVersions");

    m_dialog->switchToPage(0);
    QVERIFY(box->isChecked());
    QCOMPARE(reloads.size(), 1);
    m_dialog->switchToPage(0);
    QCOMPARE(reloads.size(), 1);

    box->click();
    QCOMPARE(storedValue(key), QStringLiteral("false"));
    QCOMPARE(reloads.size(), 2);
    QTest::ignoreMessage(QtDebugMsg, "PartiallyChecked is not implemented");
    box->setCheckState(Qt::PartiallyChecked);
    QCOMPARE(storedValue(key), QStringLiteral("false"));
    QCOMPARE(reloads.size(), 2);
    box->setCheckState(Qt::Checked);
    QCOMPARE(storedValue(key), QStringLiteral("true"));
    QCOMPARE(reloads.size(), 3);
}

QTEST_MAIN(SettingsPageTest)
#include "tst_settingspage.moc"
