#pragma once

#include "app/logging.h"
#include "ui/mainwindow/progresstexts.h"

#include <QMainWindow>
#include <QString>

#include <cstdint>
#include <memory>

class MenuDialog;
class QDir;

namespace Ui {
class MainWindow;
}
namespace vlupd {
class VLUPD;
}

/// The launcher's main window: the list of versions, the button that installs or starts the
/// selected one, the progress of an installation, and the way to the side menu. GUI thread only.
class MainWindow final : public QMainWindow
{
    Q_OBJECT

public:
    /// Builds the window and fills it from the update library, whose object this creates if there
    /// is none yet.
    explicit MainWindow(QWidget* parent = nullptr);
    /// Must not run during an installation: the installation's thread belongs to the window.
    ~MainWindow() override;

    /// True while an installation's thread runs.
    bool isInstalling() const;

protected:
    void changeEvent(QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private Q_SLOTS:
    /// Shows a modal message. The window may be gone when it returns.
    void showWarningWindow(const QString& aErrorText) const;
    void onProgressUnitPassed(uint64_t bytesPerSecond, uint64_t bytesDownloaded,
                              uint64_t totalBytes);
    bool isProgressStateIDLE();

private:
    // mainwindow.cpp
    void connectButtons();
    void setUpFrame();
    void showActivation();
    void showWindowState();
    void openSupportPage();

    // mainwindow_versions.cpp
    void checkForUpdates();
    void refreshView();
    void reloadConfig();
    void refreshDescriptions();
    void refreshUpdateNotification();
    void refreshVersions();
    void setUpdateNotificationVisible(bool visible);

    // mainwindow_installation.cpp
    void runSimulatorBtnHandler();
    void startInstalledVersion(const QString& version, const QDir& directory);
    void installVersion(const QString& version);
    void setProgressState(ProgressState state);
    void showProgressState(ProgressState state);
    void onInstallationStageChanged(vlupd::UPD_INSTALLATION_STAGE stage);
    void onInstallationFinished(const QString& installedVersion, vlupd::UPD_RESULT result);

    // mainwindow_menu.cpp
    void openMenu(int page);

    std::unique_ptr<Ui::MainWindow> ui;
    std::unique_ptr<MenuDialog> menuDialog; ///< made by the first openMenu
    vlupd::VLUPD* updater = nullptr;
    QString progressSizeString;
    QString progressTimeString;
    double progressPercent = 0;
    ProgressState progressState = ProgressState::IDLE;
    QString versionPrefix = QStringLiteral("v. ");
    windowbuf logBuffer;
};
