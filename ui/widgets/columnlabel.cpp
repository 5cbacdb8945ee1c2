#include "ui/widgets/columnlabel.h"

#include <QPainter>
#include <QStyle>
#include <QStyleOption>

#include <algorithm>

namespace {

bool isNumber(const QString& part)
{
    return !part.isEmpty() && part.front().isDigit();
}

} // namespace

ColumnLabel::ColumnLabel(QWidget* parent) : QLabel(parent)
{
    setTextFormat(Qt::PlainText);
}

QSize ColumnLabel::sizeHint() const
{
    return {textWidth(), fontMetrics().height()};
}

QSize ColumnLabel::minimumSizeHint() const
{
    return sizeHint();
}

void ColumnLabel::paintEvent(QPaintEvent* /*event*/)
{
    QPainter painter(this);
    QStyleOption option;
    option.initFrom(this);
    style()->drawPrimitive(QStyle::PE_Widget, &option, &painter, this);

    const QStringList parts = text().split(u'\t');
    const int columnWidth = numberWidth(parts);
    const int space = fontMetrics().horizontalAdvance(u' ');
    const QRect area = contentsRect();
    int x = alignment().testFlag(Qt::AlignRight) ? area.right() + 1 - textWidth() : area.left();
    for (const QString& part : parts) {
        const int width = partWidth(part, columnWidth);
        const auto side = isNumber(part) ? Qt::AlignRight : Qt::AlignLeft;
        style()->drawItemText(&painter, QRect(x, area.top(), width, area.height()),
                              int(Qt::AlignVCenter | side) | Qt::TextDontClip, palette(),
                              isEnabled(), part, foregroundRole());
        x += width + space;
    }
}

int ColumnLabel::numberWidth(const QStringList& parts) const
{
    int width = fontMetrics().horizontalAdvance(QStringLiteral("00"));
    for (const QString& part : parts) {
        if (isNumber(part))
            width = std::max(width, fontMetrics().horizontalAdvance(part));
    }
    return width;
}

int ColumnLabel::partWidth(const QString& part, int numberWidth) const
{
    return isNumber(part) ? numberWidth : fontMetrics().horizontalAdvance(part);
}

int ColumnLabel::textWidth() const
{
    const QStringList parts = text().split(u'\t');
    const int columnWidth = numberWidth(parts);
    int width = int(parts.size() - 1) * fontMetrics().horizontalAdvance(u' ');
    for (const QString& part : parts)
        width += partWidth(part, columnWidth);
    return width;
}
