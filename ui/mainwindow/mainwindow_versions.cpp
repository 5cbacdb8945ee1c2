// The versions that the main window offers, and the notice of a new one.
#include "app/networkmanager.h"
#include "app/settingsstore.h"
#include "ui/mainwindow/mainwindow.h"
#include "ui/menu/descriptionsfile.h"
#include "ui_mainwindow.h"
#include "updates/catalogue.h"
#include "updates/updater.h"

#include <QDebug>

void MainWindow::checkForUpdates()
{
    SettingsStore& store = SettingsStore::instance();
    const bool showSpecial =
        store.getValue(settings::vcsGroup, settings::showSpecialVersions, true, false)
            .value_or(false);
    const auto catalogue = availableVersionsJson(true, showSpecial);
    const auto known =
        store.getValue(settings::vcsGroup, settings::availableVersions, true, QStringList());
    const NewVersionCheck check = checkForNewVersions(catalogue, known);
    store.setValue(settings::stateGroup, settings::shouldHideNewUpdateNotification,
                   check.hideNotification);
    store.setValue(settings::vcsGroup, settings::availableVersions, check.availableVersions);
}

void MainWindow::refreshView()
{
    refreshDescriptions();
    refreshUpdateNotification();
    refreshVersions();

    UpdaterPermit permit;
    if (!permit)
        return;
    const auto installed = latestInstalledVersion();
    permit.release();
    ui->currentInstalledVersionLabel->setText(installed ? QStringLiteral("v. ") + installed->first
                                                        : QStringLiteral("Не установлен"));
}

void MainWindow::reloadConfig()
{
    checkForUpdates();
    refreshView();
}

void MainWindow::refreshDescriptions()
{
    const auto wanted = SettingsStore::instance().getValue(
        settings::stateGroup, settings::shouldRequestDescriptions, true, true);
    if (wanted == false)
        return;
    const auto descriptions = requestDescriptions(networkManager());
    if (!descriptions)
        qDebug() << "The requested list of changes corrupted.";
    else if (!writeFile(descriptions->toJson(QJsonDocument::Indented),
                        DescriptionsFile::instance().filePath))
        qDebug() << "The list of changes could not be saved to a file. Try restarting the program "
                    "as an administrator and try again.";
}

void MainWindow::refreshUpdateNotification()
{
    SettingsStore& store = SettingsStore::instance();
    const auto hidden =
        store.getValue(settings::stateGroup, settings::shouldHideNewUpdateNotification, true, true);
    setUpdateNotificationVisible(hidden != true);
    // The notice appears on one start or reload only.
    if (hidden != true)
        store.setValue(settings::stateGroup, settings::shouldHideNewUpdateNotification, true);
}

void MainWindow::refreshVersions()
{
    const auto available = SettingsStore::instance().getValue(
        settings::vcsGroup, settings::availableVersions, true, QStringList());
    const auto installed = latestInstalledVersion();
    ui->versionsComboBox->clear();
    for (const VersionItem& item : versionItems(
             available, installed ? std::optional(installed->first) : std::nullopt, versionPrefix))
        ui->versionsComboBox->addItem(QIcon(), item.text, item.version);
}

void MainWindow::setUpdateNotificationVisible(bool visible)
{
    QSizePolicy policy = ui->updateButton->sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    ui->updateButton->setSizePolicy(policy);
    ui->updateButton->setHidden(!visible);
}
