#include "ui/widgets/elidingcombobox.h"

#include <QFocusEvent>
#include <QHelpEvent>
#include <QListView>
#include <QStylePainter>
#include <QStyledItemDelegate>
#include <QToolTip>

ElidingComboBox::ElidingComboBox(QWidget* parent) : QComboBox(parent)
{
    setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    auto* list = new QListView(this);
    list->setUniformItemSizes(true); // asks one row for its height, not all of them
    list->setTextElideMode(Qt::ElideRight);
    list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setView(list);
    setItemDelegate(new QStyledItemDelegate(this)); // the own one ignores "::item" rules
}

void ElidingComboBox::showPopup()
{
    QComboBox::showPopup();
    // As wide as the box looks, without the margin that its focus ring needs.
    QWidget* popup = view()->window();
    popup->setGeometry(popup->geometry().adjusted(FocusRing::width, 0, -FocusRing::width, 0));
}

bool ElidingComboBox::event(QEvent* event)
{
    if (event->type() == QEvent::ToolTip) {
        QStyleOptionComboBox option;
        initStyleOption(&option);
        if (elidedText(option) != option.currentText) {
            QToolTip::showText(static_cast<QHelpEvent*>(event)->globalPos(), option.currentText,
                               this);
            return true;
        }
    }
    return QComboBox::event(event);
}

void ElidingComboBox::focusInEvent(QFocusEvent* event)
{
    m_focusRing.focusIn(event->reason());
    QComboBox::focusInEvent(event);
}

void ElidingComboBox::focusOutEvent(QFocusEvent* event)
{
    if (event->reason() != Qt::ActiveWindowFocusReason && event->reason() != Qt::PopupFocusReason)
        m_focusRing.focusOut();
    QComboBox::focusOutEvent(event);
}

void ElidingComboBox::keyPressEvent(QKeyEvent* event)
{
    m_focusRing.keyPressed();
    update();
    QComboBox::keyPressEvent(event);
}

void ElidingComboBox::paintEvent(QPaintEvent* /*event*/)
{
    QStyleOptionComboBox option;
    initStyleOption(&option);
    option.currentText = elidedText(option);
    {
        QStylePainter painter(this);
        painter.drawComplexControl(QStyle::CC_ComboBox, option);
        painter.drawControl(QStyle::CE_ComboBoxLabel, option);
    }
    m_focusRing.paint(*this);
}

QString ElidingComboBox::elidedText(const QStyleOptionComboBox& option) const
{
    const QRect field =
        style()->subControlRect(QStyle::CC_ComboBox, &option, QStyle::SC_ComboBoxEditField, this);
    return fontMetrics().elidedText(option.currentText, Qt::ElideRight, field.width() - 2);
}
