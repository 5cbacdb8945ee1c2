#pragma once

#include <QDialog>
#include <QPoint>
#include <QStringList>

#include <memory>

class SemiTransparentButton;

namespace Ui {
class MenuDialog;
}
namespace vlupd {
class VLUPD;
}

/// The side menu: one frameless window that stays on top, with the pages settings (0), bug report
/// (1) and version history (2). It is modeless, is only ever hidden and keeps all its state
/// between two openings. GUI thread only.
class MenuDialog final : public QDialog
{
    Q_OBJECT

public:
    /// Builds the form and connects its buttons; creates the update library object if none exists.
    explicit MenuDialog(QWidget* parent = nullptr);
    ~MenuDialog() override;

    /// Shows page `index` and prepares it. False only when the version history could not be built;
    /// the dialog is then hidden and a warning has been requested.
    bool switchToPage(int index);
    /// Fixes the dialog's size to the current page's minimum size hint plus the title strip.
    void resizeToCurrentPage();

Q_SIGNALS:
    /// Asks for a modal warning with this text.
    void warningWindowRequested(QString aText);
    /// The installed version has been removed.
    void onRemovingSimulatorSucceed();
    /// Asks the receiver whether no installation is running. Needs a direct connection; false when
    /// nothing is connected.
    bool isProgressStateIDLE();
    /// A setting changed that decides which versions are listed.
    void reloadConfigRequired();

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    // menudialog_settings.cpp
    void prepareSettingsPage();
    void checkInstalledFiles();
    void deleteInstalledVersion();
    void onShowSpecialStateChanged(Qt::CheckState state);
    void setActionButtonsEnabled(bool enabled);
    void showInstallationPath(const QString& text);
    void showSettingsStatus(const QString& text);

    // menudialog_report.cpp
    void attachFiles();
    void sendReport();
    void showReportStatus(const QString& text);
    void hideReportStatus();

    // menudialog_history.cpp
    bool buildVersionHistory();
    bool addVersionDescription(const QString& version);
    void selectVersion(SemiTransparentButton* button, int index);

    bool versionHistoryLoaded = false;
    std::unique_ptr<Ui::MenuDialog> ui;
    SemiTransparentButton* selectedVersionButton = nullptr;
    QPoint dragPosition;
    QStringList attachedFiles;
    vlupd::VLUPD* updater = nullptr;
};
