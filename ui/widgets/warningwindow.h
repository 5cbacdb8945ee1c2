#pragma once

#include <QDialog>

#include <memory>

namespace Ui {
class WarningWindow;
}

/// A modal message with one button, "Закрыть". Create it without a parent, set the text, run
/// exec(), delete it.
class WarningWindow final : public QDialog
{
    Q_OBJECT

public:
    explicit WarningWindow(QWidget* parent = nullptr);
    ~WarningWindow() override;

    /// Sets the message; any text is taken.
    void setErrorText(const QString& text);
    /// Fixes the size to what the message needs, then runs the dialog.
    int exec() override;

private:
    std::unique_ptr<Ui::WarningWindow> ui;
};
