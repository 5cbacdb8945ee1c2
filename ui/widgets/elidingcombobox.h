#pragma once

#include "ui/widgets/focusring.h"

#include <QComboBox>

/// A combo box for long lists of long texts: it shortens what does not fit with an ellipsis, tells
/// the whole text in a tooltip then, and opens a list of uniform rows in no time however long it
/// is.
class ElidingComboBox final : public QComboBox
{
    Q_OBJECT

public:
    explicit ElidingComboBox(QWidget* parent = nullptr);

    void showPopup() override;

protected:
    bool event(QEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    QString elidedText(const QStyleOptionComboBox& option) const;

    FocusRing m_focusRing;
};
