#pragma once

#include <QDialog>
#include <QPoint>

#include <memory>

namespace Ui {
class ReplyWindow;
}

/// A modal question with the answers "Принять" and "Отклонить". Create it without a parent, set
/// the text, run exec(), read isAccepted(), delete it.
class ReplyWindow final : public QDialog
{
    Q_OBJECT

public:
    explicit ReplyWindow(QWidget* parent = nullptr);
    ~ReplyWindow() override;

    /// Sets the question. An empty text is refused with a line in the log.
    void setReplyText(const QString& text);
    /// True once the user has pressed "Принять".
    bool isAccepted() const { return accepted; }

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    void acceptBtnHandler();

    std::unique_ptr<Ui::ReplyWindow> ui;
    bool accepted = false;
    QPoint dragPosition;
};
