#include "app/paths.h"
#include "app/settingsstore.h"
#include "ui/menu/menudialog.h"
#include "ui/widgets/replywindow.h"
#include "ui_menudialog.h"
#include "updates/updater.h"

#include <QDebug>

#include <iostream>

namespace {

bool isRemovalConfirmed()
{
    ReplyWindow question;
    question.setReplyText(QStringLiteral("Вы уверены, что хотите удалить текущую версию?"));
    question.exec();
    return question.isAccepted();
}

} // namespace

void MenuDialog::prepareSettingsPage()
{
    SettingsStore& store = SettingsStore::instance();
    const auto showSpecial =
        store.getValue(settings::vcsGroup, settings::showSpecialVersions, true, false);
    // Checking the box on the first refresh runs its handler: one reload, which is intended.
    ui->showSpecialCheckBox->setChecked(showSpecial.value_or(false));

    UpdaterPermit permit;
    if (!permit)
        return;
    const auto installed = latestInstalledVersion();
    permit.release();

    std::optional<qulonglong> size;
    if (installed && !installed->first.isEmpty() && hasEntries(installed->second))
        size = store.getValue(settings::filesystemGroup, settings::installationSize, true,
                              qulonglong{0});
    if (!size) {
        ui->installationSizeLabel->setText(QStringLiteral("0 байт"));
        showInstallationPath(QStringLiteral("Не установлено"));
        setActionButtonsEnabled(false);
        return;
    }
    setActionButtonsEnabled(Q_EMIT isProgressStateIDLE());
    ui->installationSizeLabel->setText(humanReadableSize(*size));
    showInstallationPath(installed->second.absolutePath());
}

void MenuDialog::checkInstalledFiles()
{
    const auto installed = latestInstalledVersion();
    if (!installed)
        return;
    const UpdaterPermit permit;
    if (!permit) {
        showSettingsStatus(QStringLiteral("Внутренняя ошибка."));
        return;
    }
    switch (updater->checkFiles(installed->first.toStdString(), std::nullopt)) {
    case vlupd::OK:
        showSettingsStatus(QStringLiteral("Ошибки не найдены."));
        break;
    case vlupd::INSTALLED_FILES_BROKEN:
        qDebug() << "[checkFiles] Installed app files is broken. Please reinstall or fix.";
        showSettingsStatus(QStringLiteral("Файлы повреждены. Возможно, требуется переустановка."));
        break;
    default:
        qDebug() << "[checkFiles] Cause an internal libupd error";
        showSettingsStatus(QStringLiteral("Неизвестная ошибка."));
        break;
    }
}

void MenuDialog::deleteInstalledVersion()
{
    if (!isRemovalConfirmed())
        return;

    // Deliberate: the user is told nothing when no permit is free or the removal fails.
    UpdaterPermit lookup;
    if (!lookup)
        return;
    const auto installed = latestInstalledVersion();
    lookup.release();
    if (!installed || !isUpdaterIdle()) {
        qDebug() << "The app is not installed or some operation is in progress, please wait\n";
        return;
    }
    UpdaterPermit removal;
    if (!removal)
        return;
    const vlupd::UPD_RESULT result = updater->removeVersion(installed->first.toStdString());
    removal.release();
    if (result != vlupd::OK) {
        qDebug() << QString(QStringLiteral("Causing an error while removing the current ") +
                            installed->first + QStringLiteral(" version.\n"));
        std::cerr << "Exit code: " << result;
        return;
    }
    SettingsStore::instance().setValue(settings::filesystemGroup, settings::installationSize,
                                       qulonglong{0});
    Q_EMIT onRemovingSimulatorSucceed();
    prepareSettingsPage();
}

void MenuDialog::onShowSpecialStateChanged(Qt::CheckState state)
{
    switch (state) {
    case Qt::PartiallyChecked:
        qDebug() << "PartiallyChecked is not implemented";
        break;
    case Qt::Unchecked:
    case Qt::Checked:
        SettingsStore::instance().setValue(settings::vcsGroup, settings::showSpecialVersions,
                                           state == Qt::Checked);
        Q_EMIT reloadConfigRequired();
        break;
    }
}

void MenuDialog::setActionButtonsEnabled(bool enabled)
{
    ui->checkFilesButton->setEnabled(enabled);
    ui->deleteSimulatorButton->setEnabled(enabled);
}

void MenuDialog::showInstallationPath(const QString& text)
{
    ui->installationPathTextEdit->setPlainText(text);
    // The field neither wraps nor scrolls: the tooltip has what a long path lacks.
    ui->installationPathTextEdit->setToolTip(text);
}

void MenuDialog::showSettingsStatus(const QString& text)
{
    ui->settingsStatusLabel->setVisible(true);
    ui->settingsStatusLabel->setText(text);
    resizeToCurrentPage();
}
