#include "ui/widgets/replywindow.h"

#include "ui_replywindow.h"

#include <QDebug>
#include <QMouseEvent>

ReplyWindow::ReplyWindow(QWidget* parent) : QDialog(parent), ui(std::make_unique<Ui::ReplyWindow>())
{
    ui->setupUi(this);
    setWindowFlags(Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    connect(ui->closeButton, &QPushButton::clicked, this, &ReplyWindow::close);
    connect(ui->declineButton, &QPushButton::clicked, this, &ReplyWindow::close);
    connect(ui->acceptButton, &QPushButton::clicked, this, &ReplyWindow::acceptBtnHandler);
}

ReplyWindow::~ReplyWindow() = default;

void ReplyWindow::setReplyText(const QString& text)
{
    if (text.isEmpty()) {
        qDebug() << "Attempting to set an empty reply text!";
        return;
    }
    ui->replyLabel->setText(text);
    resize(sizeHint().expandedTo(size()));
}

void ReplyWindow::mousePressEvent(QMouseEvent* event)
{
    dragPosition = event->position().toPoint();
}

void ReplyWindow::mouseMoveEvent(QMouseEvent* event)
{
    if (event->buttons().testFlag(Qt::LeftButton))
        move(pos() - dragPosition + event->position().toPoint());
}

void ReplyWindow::acceptBtnHandler()
{
    accepted = true;
    close();
}
