#include "ui/widgets/warningwindow.h"

#include "ui_warningwindow.h"

WarningWindow::WarningWindow(QWidget* parent)
    : QDialog(parent), ui(std::make_unique<Ui::WarningWindow>())
{
    ui->setupUi(this);
    setWindowFlags(Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    connect(ui->closeButton, &QPushButton::clicked, this, &WarningWindow::close);
    connect(ui->secondCloseButton, &QPushButton::clicked, this, &WarningWindow::close);
}

WarningWindow::~WarningWindow() = default;

void WarningWindow::setErrorText(const QString& text)
{
    ui->errorLabel->setText(text);
}

int WarningWindow::exec()
{
    setFixedSize(sizeHint());
    return QDialog::exec();
}
