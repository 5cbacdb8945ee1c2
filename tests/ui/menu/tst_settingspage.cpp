#include "app/paths.h"
#include "app/settingsstore.h"
#include "tests/support/modalanswerer.h"
#include "tests/support/scriptedvl.h"
#include "ui/menu/menudialog.h"
#include "updates/updater.h"

#include <QCheckBox>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <iostream>
#include <memory>
#include <sstream>

namespace {

QString settingsFile()
{
    return applicationDirectory().filePath(QStringLiteral("config.ini"));
}

} // namespace

/// The settings page of the side menu, on a scripted update library.
class SettingsPageTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup() { m_dialog.reset(); }
    void cleanupTestCase() { QFile::remove(settingsFile()); }

    void refresh_data();
    void refresh();
    void sizeWrittenByTheFirstRefresh();
    void busyLibraryKeepsThePage();
    void check_data();
    void check();
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

void SettingsPageTest::install(vlupd::UPD_RESULT checkResult, vlupd::UPD_RESULT removeResult)
{
    QVERIFY(QDir(m_installed->path()).mkpath(QStringLiteral(".bin")));
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
    QTest::newRow("folder empty") << true << QStringLiteral(".bin") << true << false << false;
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
    QVERIFY(QDir(m_installed->path()).mkpath(QStringLiteral(".bin")));
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
    child<QPushButton>("checkFilesButton")->click(); // nothing is installed
    QVERIFY(child<QLabel>("settingsStatusLabel")->isHidden());
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

    const auto row = [](const char* name, int result, const QString& text, const char* logLine) {
        QTest::newRow(name) << result << text << QByteArray(logLine);
    };
    row("whole", 0, QStringLiteral("Ошибки не найдены."), "");
    row("broken", 12, QStringLiteral("Файлы повреждены. Возможно, требуется переустановка."),
        "[checkFiles] Installed app files is broken. Please reinstall or fix.");
    const QString unknown = QStringLiteral("Неизвестная ошибка.");
    row("below", 1, unknown, "[checkFiles] Cause an internal libupd error");
    row("above", 13, unknown, "[checkFiles] Cause an internal libupd error");
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

void SettingsPageTest::removal_data()
{
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<bool>("installed");
    QTest::addColumn<int>("permitsInUse");
    QTest::addColumn<int>("result"); // of the library, -1 when it is not asked
    QTest::addColumn<QByteArray>("logLine");
    QTest::addColumn<QString>("standardError");

    const auto row = [](const char* name, bool accepted, bool installed, int permitsInUse,
                        int result, const char* logLine, const QString& standardError = {}) {
        QTest::newRow(name) << accepted << installed << permitsInUse << result
                            << QByteArray(logLine) << standardError;
    };
    const char* const refused =
        "The app is not installed or some operation is in progress, please wait\n";
    row("declined", false, true, 0, -1, "");
    row("nothing installed", true, false, 0, -1, refused);
    row("no permit for the lookup", true, true, 2, -1, refused);
    row("no permit", true, true, 3, -1, "");
    row("failed", true, true, 0, 1,
        "\"Causing an error while removing the current 1.2.0 version.\\n\"",
        QStringLiteral("Exit code: SYSTEM_CALL_ERROR"));
    row("done", true, true, 0, 0, "");
}

void SettingsPageTest::removal()
{
    QFETCH(bool, accepted);
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
    const QString answer = QLatin1String(accepted ? "acceptButton" : "declineButton");
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
