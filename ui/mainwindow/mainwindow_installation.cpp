// The run button: installing a version with its progress, or starting the installed one.
#include "app/paths.h"
#include "app/settingsstore.h"
#include "ui/mainwindow/mainwindow.h"
#include "ui_mainwindow.h"
#include "updates/installationhelper.h"
#include "updates/simulatorprocesshelper.h"
#include "updates/updater.h"

#include <QDebug>

void MainWindow::runSimulatorBtnHandler()
{
    const QString selected = ui->versionsComboBox->currentData(Qt::UserRole).toString();
    UpdaterPermit permit;
    if (!permit)
        return;
    const auto installed = latestInstalledVersion();
    permit.release();

    if (!isProgressStateIDLE()) {
        qInfo() << "[runSimulatorBtnHandler] Already in process\n";
    } else if (!installed || installed->first != selected) {
        installVersion(selected);
    } else if (!hasEntries(installed->second)) {
        showWarningWindow(QStringLiteral("Симулятор некорректно\nустановлен"));
    } else {
        startInstalledVersion(selected, installed->second);
    }
}

void MainWindow::startInstalledVersion(const QString& version, const QDir& directory)
{
    UpdaterPermit permit;
    if (!permit)
        return;
    const auto executable = updater->getAppExecutablePath(version.toStdString(), "default_exec");
    permit.release();
    if (executable && !executable->empty())
        startSimulator(*executable, directory);
    else
        showWarningWindow(QStringLiteral("Нет данных об\nисполняемом файле"));
}

void MainWindow::installVersion(const QString& version)
{
    // One worker per installation, kept until the window goes: the library may still write to the
    // worker's log buffer after the installation.
    auto* worker = new InstallationHelper(this);
    showProgressState(ProgressState::DOWNLOADING);
    ui->progressBar->setRange(0, 100);

    connect(worker, &InstallationHelper::onDownloadFinished, this,
            &MainWindow::onInstallationFinished);
    connect(worker, &InstallationHelper::setDownloadProgressText, this,
            &MainWindow::onProgressUnitPassed);
    connect(worker, &InstallationHelper::setInstallationStage, this,
            &MainWindow::onInstallationStageChanged);
    worker->setVersion(version);
    worker->setProgressCallback(
        [worker](std::uint64_t speed, std::uint64_t done, std::uint64_t total) {
            Q_EMIT worker->setDownloadProgressText(speed, done, total);
            return true;
        });
    worker->setStageCallback([worker](vlupd::UPD_INSTALLATION_STAGE stage) {
        Q_EMIT worker->setInstallationStage(stage);
    });
    worker->start(QThread::InheritPriority);
}

void MainWindow::setProgressState(ProgressState state)
{
    if (state == ProgressState::IDLE) {
        ui->progressBar->setValue(0);
        ui->progressSizeText->setText({});
        ui->progressTimeText->setText({});
    }
    showProgressState(state);
}

void MainWindow::showProgressState(ProgressState state)
{
    progressState = state;
    const bool busy = state != ProgressState::IDLE;
    ui->progressBar->setVisible(busy);
    ui->progressSizeText->setVisible(busy);
    ui->progressTimeText->setVisible(busy);
    ui->loadingFrame->setVisible(busy);
    ui->progressText->setText(progressStateText(state));
}

void MainWindow::onProgressUnitPassed(uint64_t bytesPerSecond, uint64_t bytesDownloaded,
                                      uint64_t totalBytes)
{
    progressSizeString = progressSizeText(bytesDownloaded, totalBytes);
    progressTimeString = progressTimeText(bytesPerSecond, bytesDownloaded, totalBytes);
    progressPercent = progressPercentage(bytesDownloaded, totalBytes);
    ui->progressSizeText->setText(progressSizeString);
    ui->progressTimeText->setText(progressTimeString);
    ui->progressBar->setValue(static_cast<int>(progressPercent));
}

bool MainWindow::isProgressStateIDLE()
{
    return progressState == ProgressState::IDLE;
}

void MainWindow::onInstallationStageChanged(vlupd::UPD_INSTALLATION_STAGE stage)
{
    showProgressState(progressStateOf(stage));
}

void MainWindow::onInstallationFinished(const QString& installedVersion, vlupd::UPD_RESULT result)
{
    if (result != vlupd::OK) {
        setProgressState(ProgressState::IDLE);
        showWarningWindow(QStringLiteral("Произошла ошибка\nпри установке симулятора"));
        return;
    }
    ui->currentInstalledVersionLabel->setText(QStringLiteral("v. ") + installedVersion);
    UpdaterPermit permit;
    if (!permit)
        return; // deliberately still busy and without a message
    const auto installed = latestInstalledVersion();
    permit.release();
    if (installed) {
        const auto size = static_cast<qulonglong>(directorySize(installed->second.absolutePath()));
        SettingsStore::instance().setValue(settings::filesystemGroup, settings::installationSize,
                                           size);
    }
    setProgressState(ProgressState::IDLE);
    showWarningWindow(QStringLiteral("Загружено!"));
}
