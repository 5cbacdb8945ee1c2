#pragma once

#include "app/logging.h"
#include "updates/updater.h"

#include <QString>
#include <QThread>

#include <cstdint>
#include <functional>

/// Runs one installation on a thread of its own. Its signals are emitted from that thread; this
/// object itself belongs to the thread that made it and must outlive the installation, because the
/// update library goes on writing to its log buffer afterwards.
class InstallationHelper final : public QThread
{
    Q_OBJECT

public:
    explicit InstallationHelper(QObject* parent);

    // To be set before start().

    /// `callback(bytesPerSecond, bytesDownloaded, totalBytes)` is called on the worker's thread;
    /// false ends the installation.
    void
    setProgressCallback(std::function<bool(std::uint64_t, std::uint64_t, std::uint64_t)> callback);
    /// `callback` is called on the worker's thread.
    void setStageCallback(std::function<void(vlupd::UPD_INSTALLATION_STAGE)> callback);
    /// The version to install, as the catalogue names it.
    void setVersion(const QString& newVersion);

Q_SIGNALS:
    void onDownloadFinished(QString installedVersion, vlupd::UPD_RESULT);
    void setDownloadProgressText(uint64_t bytesPerSecond, uint64_t bytesDownloaded,
                                 uint64_t totalBytes);
    void setInstallationStage(vlupd::UPD_INSTALLATION_STAGE);

protected:
    void run() override;

private:
    vlupd::VLUPD* updater = nullptr;
    std::function<bool(std::uint64_t, std::uint64_t, std::uint64_t)> progressCallback;
    std::function<void(vlupd::UPD_INSTALLATION_STAGE)> stageCallback;
    QString version;
    windowbuf logBuffer;
};
