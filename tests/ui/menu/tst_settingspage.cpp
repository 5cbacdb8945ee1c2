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
    void check_data();
    void check();
    void removal_data();
    void removal();
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

const QString notInstalled = QStringLiteral("0 байт, Не установлено, disabled");

/// The situation that a row is named after.
bool isRow(const char* name)
{
    return qstrcmp(QTest::currentDataTag(), name) == 0;
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
    const QString shown = QStringLiteral("1.5 КБ, ~, enabled");
    const auto row = [](const char* name, const QString& first, const QString& second = {}) {
        QTest::newRow(name) << first << (second.isNull() ? first : second);
    };
    row("nothing installed", notInstalled);
    row("folder gone", notInstalled);
    row("folder empty", notInstalled);
    row("installed", shown);
    row("running", QStringLiteral("1.5 КБ, ~, disabled"));
    row("busy", QStringLiteral("4.5 ГБ, C:/Varnel/simulator, enabled"), shown);
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

void SettingsPageTest::check_data()
{
    QTest::addColumn<int>("result"); // of the library, -1 when it is not asked
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("logLine");
    const auto row = [](const char* name, int result, const char* text, const char* logLine) {
        QTest::newRow(name) << result << QString::fromUtf8(text) << QByteArray(logLine);
    };
    row("nothing installed", -1, "", "");
    row("busy", -1, "", "");
    row("busy after the lookup", -1, "Внутренняя ошибка.", "");
    row("whole", 0, "Ошибки не найдены.", "");
    row("broken", 12, "Файлы повреждены. Возможно, требуется переустановка.",
        "[checkFiles] Installed app files is broken. Please reinstall or fix.");
    row("below", 1, "Неизвестная ошибка.", "[checkFiles] Cause an internal libupd error");
    row("above", 13, "Неизвестная ошибка.", "[checkFiles] Cause an internal libupd error");
}

void SettingsPageTest::check()
{
    QFETCH(int, result);
    QFETCH(QString, text);
    QFETCH(QByteArray, logLine);
    m_dialog->switchToPage(0);
    const int height = m_dialog->height();
    if (isRow("nothing installed"))
        m_script.installed.clear();
    m_script.checkResult = static_cast<vlupd::UPD_RESULT>(result);
    scripted::setScript(m_script);
    if (isRow("busy"))
        updaterAccess.acquire(3);
    if (isRow("busy after the lookup"))
        afterLookup = [] { updaterAccess.acquire(3); };
    if (!logLine.isEmpty())
        QTest::ignoreMessage(QtDebugMsg, logLine.constData());
    child<QPushButton>("checkFilesButton")->click();
    updaterAccess.release(3 - updaterAccess.available());

    QCOMPARE(scripted::callsOf("checkFiles"),
             std::vector<std::string>(result < 0 ? 0 : 1, "1.2.0"));
    const auto* status = child<QLabel>("settingsStatusLabel");
    QCOMPARE(status->isVisible(), !text.isEmpty());
    if (text.isEmpty())
        return;
    QCOMPARE(status->text(), text);
    // The dialog makes room at once and stays fixed.
    QVERIFY(m_dialog->height() >= height + status->sizeHint().height());
    QCOMPARE(m_dialog->minimumSize(), m_dialog->maximumSize());
}

void SettingsPageTest::removal_data()
{
    QTest::addColumn<int>("permitsInUse");
    QTest::addColumn<int>("result"); // of the library, -1 when it is not asked
    QTest::addColumn<QByteArray>("logLine");
    const auto row = [](const char* name, int permitsInUse, int result, const char* logLine) {
        QTest::newRow(name) << permitsInUse << result << QByteArray(logLine);
    };
    const char* const refused =
        "The app is not installed or some operation is in progress, please wait\n";
    row("declined", 0, -1, "");
    row("nothing installed", 0, -1, refused);
    row("no permit for the lookup", 2, -1, refused);
    row("no permit", 3, -1, "");
    row("failed", 0, 1, "\"Causing an error while removing the current 1.2.0 version.\\n\"");
    row("done", 0, 0, "");
}

void SettingsPageTest::removal()
{
    QFETCH(int, permitsInUse);
    QFETCH(int, result);
    QFETCH(QByteArray, logLine);
    m_dialog->switchToPage(0);
    if (isRow("nothing installed"))
        m_script.installed.clear();
    m_script.removeResult = static_cast<vlupd::UPD_RESULT>(qMax(result, 0));
    scripted::setScript(m_script);
    QSignalSpy removed(m_dialog.get(), &MenuDialog::onRemovingSimulatorSucceed);
    QSignalSpy warned(m_dialog.get(), &MenuDialog::warningWindowRequested);
    const QString answer = QLatin1String(isRow("declined") ? "declineButton" : "acceptButton");
    ModalAnswerer answerer(
        [&](QDialog& dialog) { dialog.findChild<QPushButton*>(answer)->click(); });
    if (!logLine.isEmpty())
        QTest::ignoreMessage(QtDebugMsg, logLine.constData());
    updaterAccess.acquire(permitsInUse);
    std::ostringstream standardError;
    std::streambuf* const previous = std::cerr.rdbuf(standardError.rdbuf());
    child<QPushButton>("deleteSimulatorButton")->click();
    std::cerr.rdbuf(previous);
    updaterAccess.release(permitsInUse);

    QCOMPARE(answerer.texts(),
             QStringList{QStringLiteral("Вы уверены, что хотите удалить текущую версию?")});
    QCOMPARE(standardError.str(), std::string(result > 0 ? "Exit code: SYSTEM_CALL_ERROR" : ""));
    QCOMPARE(scripted::callsOf("removeVersion"),
             std::vector<std::string>(result < 0 ? 0 : 1, "1.2.0"));
    QCOMPARE(warned.size(), 0);
    QCOMPARE(removed.size(), result == 0 ? 1 : 0);
    QCOMPARE(stored(QStringLiteral("FILESYSTEM/installationSize")),
             result == 0 ? QStringLiteral("0") : QStringLiteral("1536"));
    QCOMPARE(page(), result == 0 ? notInstalled : QStringLiteral("1.5 КБ, ~, enabled"));
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
