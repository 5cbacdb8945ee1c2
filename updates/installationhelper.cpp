#include "updates/installationhelper.h"

#include <QDebug>

#include <utility>

InstallationHelper::InstallationHelper(QObject* parent) : QThread(parent)
{
    updater = updaterInstance();
}

void InstallationHelper::setProgressCallback(
    std::function<bool(std::uint64_t, std::uint64_t, std::uint64_t)> callback)
{
    progressCallback = std::move(callback);
}

void InstallationHelper::setStageCallback(
    std::function<void(vlupd::UPD_INSTALLATION_STAGE)> callback)
{
    stageCallback = std::move(callback);
}

void InstallationHelper::setVersion(const QString& newVersion)
{
    version = newVersion;
}

void InstallationHelper::run()
{
    if (!updaterAccess.tryAcquire(1))
        return;
    updater->setLogBuf(&logBuffer);
    if (version.isEmpty()) {
        // The permit stays taken and no signal follows. This is deliberate: the window that asked
        // for no version stays busy until the program ends.
        qDebug() << "Version to install is empty! Aborting...";
        return;
    }
    const vlupd::UPD_RESULT result =
        updater->installVersion(version.toStdString(), progressCallback, stageCallback);
    updaterAccess.release(1);
    Q_EMIT onDownloadFinished(version, result);
}
