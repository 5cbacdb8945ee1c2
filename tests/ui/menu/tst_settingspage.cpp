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
#include <QStackedWidget>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <iostream>
#include <memory>
#include <sstream>

/// Runs when the installed version has been looked up, before what follows takes a permit.
static std::function<void()> afterLookup;

/// In place of the library's.
std::string SemanticVersion::String() const
{
    if (afterLookup)
        afterLookup();
    return m_text;
}

/// The side menu's frame and its settings page, on a scripted update library.
class SettingsPageTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void cleanupTestCase() { QFile::remove(settingsFile()); }

    void frame();
    void refresh_data();
    void refresh();
    void actions_data();
    void actions();
    void specialVersions();

private:
    static QString settingsFile()
    {
        return applicationDirectory().filePath(QStringLiteral("config.ini"));
    }
    static QString stored(const QString& key)
    {
        return QSettings(settingsFile(), QSettings::IniFormat).value(key).toString();
    }
    template <class T> T* child(const char* name) const
    {
        return m_dialog->findChild<T*>(QLatin1String(name));
    }
    /// Size, path and the buttons' state as the page shows them; the version's folder is "~".
    QString page() const;

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<MenuDialog> m_dialog;
    /// Says that "1.2.0" is installed into a folder that holds ".bin".
    scripted::Script m_script;
    bool m_idle = true;
};

namespace {

const QString installed = QStringLiteral("1.5 КБ, ~, enabled");
const QString notInstalled = QStringLiteral("0 байт, Не установлено, disabled");

/// Whether this is the situation that the row is named after.
bool isRow(const char* situation)
{
    return QByteArray(QTest::currentDataTag()).endsWith(situation);
}

} // namespace

void SettingsPageTest::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QVERIFY(QDir(m_folder->path()).mkdir(QStringLiteral(".bin")));
    m_script = {};
    m_script.installed["1.2.0"] = {m_folder->path().toStdString()};
    scripted::setScript(m_script);
    SettingsStore::instance().setValue(settings::vcsGroup, settings::showSpecialVersions, false);
    SettingsStore::instance().setValue(settings::filesystemGroup, settings::installationSize,
                                       qulonglong{1536});
    m_dialog = std::make_unique<MenuDialog>();
    m_idle = true;
    connect(m_dialog.get(), &MenuDialog::isProgressStateIDLE, this, [this] { return m_idle; });
    m_dialog->show();
}

void SettingsPageTest::cleanup()
{
    m_dialog.reset();
    afterLookup = {};
    QCOMPARE(updaterAccess.available(), 3);
}

QString SettingsPageTest::page() const
{
    const bool enabled = child<QPushButton>("checkFilesButton")->isEnabled();
    if (child<QPushButton>("deleteSimulatorButton")->isEnabled() != enabled)
        return QStringLiteral("one button disabled");
    QString path = child<QPlainTextEdit>("installationPathTextEdit")->toPlainText();
    path.replace(m_folder->path(), QStringLiteral("~"));
    return child<QLabel>("installationSizeLabel")->text() + QStringLiteral(", ") + path +
           QLatin1String(enabled ? ", enabled" : ", disabled");
}

void SettingsPageTest::frame()
{
    const auto flags = Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint;
    QCOMPARE(m_dialog->windowFlags() & flags, flags);
    // The minimum above the maximum comes from the form.
    const auto* descriptions = child<QStackedWidget>("descriptionStackedWidget");
    QCOMPARE(descriptions->minimumSize(), QSize(450, 300));
    QCOMPARE(descriptions->maximumSize(), QSize(QWIDGETSIZE_MAX, 200));
    child<QPushButton>("closeButton")->click();
    QVERIFY(m_dialog->isHidden());
}

void SettingsPageTest::refresh_data()
{
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("second"); // after another refresh
    const auto row = [](const char* name, const QString& first, const QString& second = {}) {
        QTest::newRow(name) << first << (second.isNull() ? first : second);
    };
    row("nothing installed", notInstalled);
    row("folder gone", notInstalled);
    row("folder empty", notInstalled);
    row("installed", installed);
    row("running", QStringLiteral("1.5 КБ, ~, disabled"));
    row("busy", QStringLiteral("4.5 ГБ, C:/Varnel/simulator, enabled"), installed);
    row("no size", notInstalled, QStringLiteral("0 байт, ~, enabled"));
}

void SettingsPageTest::refresh()
{
    if (isRow("nothing installed"))
        m_script.installed.clear();
    else if (isRow("folder gone") || isRow("folder empty"))
        m_script.installed["1.2.0"].installDirectory += isRow("folder gone") ? "/gone" : "/.bin";
    scripted::setScript(m_script);
    m_idle = !isRow("running");
    if (isRow("no size"))
        QSettings(settingsFile(), QSettings::IniFormat)
            .remove(QStringLiteral("FILESYSTEM/installationSize"));
    const int permitsInUse = isRow("busy") ? 3 : 0;

    updaterAccess.acquire(permitsInUse);
    QVERIFY(m_dialog->switchToPage(0));
    updaterAccess.release(permitsInUse);
    QTEST(page(), "first");
    m_dialog->switchToPage(0);
    QTEST(page(), "second");
    QVERIFY(child<QLabel>("settingsStatusLabel")->isHidden());
}

void SettingsPageTest::actions_data()
{
    QTest::addColumn<int>("permitsInUse");
    QTest::addColumn<int>("result"); // of the library, -1 when it is not asked
    QTest::addColumn<QByteArray>("logLine");
    QTest::addColumn<QString>("shown"); // the status text, the page where there is none
    const auto row = [](const char* name, int permitsInUse, int result, const char* logLine,
                        const QString& shown = installed) {
        QTest::newRow(name) << permitsInUse << result << QByteArray(logLine) << shown;
    };
    const char* const refused =
        "The app is not installed or some operation is in progress, please wait\n";
    const char* const failed = "[checkFiles] Cause an internal libupd error";
    const QString unknown = QStringLiteral("Неизвестная ошибка.");
    row("check, nothing installed", 0, -1, "");
    row("check, no permit", 3, -1, "");
    row("check, no permit after the lookup", 0, -1, "", QStringLiteral("Внутренняя ошибка."));
    row("check, whole", 0, 0, "", QStringLiteral("Ошибки не найдены."));
    row("check, broken", 0, 12,
        "[checkFiles] Installed app files is broken. Please reinstall or fix.",
        QStringLiteral("Файлы повреждены. Возможно, требуется переустановка."));
    row("check, below", 0, 1, failed, unknown);
    row("check, above", 0, 13, failed, unknown);
    row("removal, declined", 0, -1, "");
    row("removal, nothing installed", 0, -1, refused);
    row("removal, no permit for the lookup", 2, -1, refused);
    row("removal, no permit", 3, -1, "");
    row("removal, failed", 0, 1,
        "\"Causing an error while removing the current 1.2.0 version.\\n\"");
    row("removal, done", 0, 0, "", notInstalled);
}

void SettingsPageTest::actions()
{
    QFETCH(int, permitsInUse);
    QFETCH(int, result);
    QFETCH(QByteArray, logLine);
    const bool removes = QByteArray(QTest::currentDataTag()).startsWith("removal");
    m_dialog->switchToPage(0);
    const int height = m_dialog->height();
    if (isRow("nothing installed"))
        m_script.installed.clear();
    m_script.checkResult = m_script.removeResult = static_cast<vlupd::UPD_RESULT>(qMax(result, 0));
    scripted::setScript(m_script);
    QSignalSpy removed(m_dialog.get(), &MenuDialog::onRemovingSimulatorSucceed);
    QSignalSpy warned(m_dialog.get(), &MenuDialog::warningWindowRequested);
    const QString answer = QLatin1String(isRow("declined") ? "declineButton" : "acceptButton");
    ModalAnswerer answerer(
        [&](QDialog& dialog) { dialog.findChild<QPushButton*>(answer)->click(); });
    if (!logLine.isEmpty())
        QTest::ignoreMessage(QtDebugMsg, logLine.constData());
    updaterAccess.acquire(permitsInUse);
    if (isRow("after the lookup"))
        afterLookup = [] { updaterAccess.acquire(3); };
    std::ostringstream standardError;
    std::streambuf* const previous = std::cerr.rdbuf(standardError.rdbuf());
    child<QPushButton>(removes ? "deleteSimulatorButton" : "checkFilesButton")->click();
    std::cerr.rdbuf(previous);
    updaterAccess.release(3 - updaterAccess.available());

    const auto* status = child<QLabel>("settingsStatusLabel");
    QTEST(status->isVisible() ? status->text() : page(), "shown");
    // The dialog makes room for the status at once and stays fixed.
    QVERIFY(status->isHidden() || m_dialog->height() >= height + status->sizeHint().height());
    QCOMPARE(m_dialog->minimumSize(), m_dialog->maximumSize());
    const QString question = QStringLiteral("Вы уверены, что хотите удалить текущую версию?");
    QCOMPARE(answerer.texts(), QStringList(removes ? 1 : 0, question));
    QCOMPARE(scripted::callsOf(removes ? "removeVersion" : "checkFiles"),
             std::vector<std::string>(result < 0 ? 0 : 1, "1.2.0"));
    QCOMPARE(standardError.str(),
             std::string(isRow("failed") ? "Exit code: SYSTEM_CALL_ERROR" : ""));
    QCOMPARE(warned.size(), 0);
    QCOMPARE(removed.size(), isRow("done") ? 1 : 0);
    QCOMPARE(stored(QStringLiteral("FILESYSTEM/installationSize")),
             isRow("done") ? QStringLiteral("0") : QStringLiteral("1536"));
}

void SettingsPageTest::specialVersions()
{
    SettingsStore::instance().setValue(settings::vcsGroup, settings::showSpecialVersions, true);
    QSignalSpy reloads(m_dialog.get(), &MenuDialog::reloadConfigRequired);
    auto* box = child<QCheckBox>("showSpecialCheckBox");
    const QString key = QStringLiteral("VCS/showSpecialVersions");

    for (int i = 0; i < 2; ++i)
        m_dialog->switchToPage(0);
    QVERIFY(box->isChecked());
    QCOMPARE(reloads.size(), 1);
    box->click();
    QCOMPARE(stored(key), QStringLiteral("false"));
    QCOMPARE(reloads.size(), 2);
    QTest::ignoreMessage(QtDebugMsg, "PartiallyChecked is not implemented");
    box->setCheckState(Qt::PartiallyChecked);
    QCOMPARE(stored(key), QStringLiteral("false"));
    QCOMPARE(reloads.size(), 2);
    box->setCheckState(Qt::Checked);
    QCOMPARE(stored(key), QStringLiteral("true"));
    QCOMPARE(reloads.size(), 3);
}

QTEST_MAIN(SettingsPageTest)
#include "tst_settingspage.moc"
