#include "bugreport/bugreport.h"
#include "ui/menu/menudialog.h"
#include "ui/menu/reportrules.h"
#include "ui_menudialog.h"

#include <QDir>
#include <QFileDialog>

void MenuDialog::attachFiles()
{
    // The commas in the filter are deliberate.
    QStringList files = QFileDialog::getOpenFileNames(
        this, QStringLiteral("Выберите файл(-ы)"), QDir::currentPath(),
        QStringLiteral("Input files (*.py, *.jpg, *.jpeg, *.bmp, *.png)"));
    if (files.isEmpty()) {
        if (attachedFiles.isEmpty())
            hideReportStatus();
        return;
    }
    if (files.size() > maximumAttachments) {
        showReportStatus(QStringLiteral("Возможно прикрепить не более 5 файлов."));
        return;
    }
    const int removed = removeOversizedFiles(files);
    attachedFiles = files;
    if (removed != 0)
        showReportStatus(
            QStringLiteral("Максимальный размер файла 10 МБ. %1 файлов было откреплено.")
                .arg(removed));
    else
        showReportStatus(
            QStringLiteral("Было прикреплено %1 файла (-ов).").arg(attachedFiles.size()));
}

void MenuDialog::sendReport()
{
    const QString subject = ui->reportHeaderTextEdit->toPlainText();
    const QString body = ui->reportBodyTextEdit->toPlainText();
    if (const auto refusal = reportRefusal(subject, body)) {
        Q_EMIT warningWindowRequested(*refusal);
        return;
    }
    if (!sendBugReport({subject, body, attachedFiles})) {
        Q_EMIT warningWindowRequested(
            QStringLiteral("Не удалось отправить сообщение об ошибке. Проверьте подключение к "
                           "интернету или повторите попытку позже."));
        return;
    }
    Q_EMIT warningWindowRequested(
        QStringLiteral("Ваше сообщение было успешно отправлено команде разработчиков. Мы "
                       "постараемся решить проблему как можно скорее."));
    ui->reportHeaderTextEdit->clear();
    ui->reportBodyTextEdit->clear();
    attachedFiles.clear();
    hideReportStatus();
}

void MenuDialog::showReportStatus(const QString& text)
{
    ui->reportStatusLabel->setVisible(true);
    ui->reportStatusLabel->setText(text);
    resizeToCurrentPage();
}

void MenuDialog::hideReportStatus()
{
    ui->reportStatusLabel->setVisible(false);
    resizeToCurrentPage();
}
