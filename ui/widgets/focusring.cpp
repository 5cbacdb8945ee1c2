#include "ui/widgets/focusring.h"

#include <QPainter>
#include <QWidget>

#include <algorithm>

namespace {

constexpr double lineWidth = 2.0;
constexpr double cornerRadius = 10.0;
constexpr QRgb ringColour = 0xffffffff;
constexpr QRgb gapColour = 0xff141414;

void drawFrame(QPainter& painter, const QRectF& area, double radius, QRgb colour)
{
    const double half = lineWidth / 2;
    painter.setPen(QPen(QColor::fromRgba(colour), lineWidth));
    painter.drawRoundedRect(area.adjusted(half, half, -half, -half), radius - half, radius - half);
}

} // namespace

void FocusRing::focusIn(Qt::FocusReason reason)
{
    switch (reason) {
    case Qt::TabFocusReason:
    case Qt::BacktabFocusReason:
    case Qt::ShortcutFocusReason:
    case Qt::OtherFocusReason:
        m_shown = true;
        break;
    case Qt::MouseFocusReason:
        m_shown = false;
        break;
    default:
        break; // the window came to the front or a popup closed: as it was
    }
}

void FocusRing::paint(QWidget& widget) const
{
    if (!m_shown || !widget.hasFocus())
        return;
    QPainter painter(&widget);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF area = widget.rect();
    const double radius = std::min(cornerRadius, std::min(area.width(), area.height()) / 2);
    drawFrame(painter, area, radius, ringColour);
    drawFrame(painter, area.adjusted(lineWidth, lineWidth, -lineWidth, -lineWidth),
              radius - lineWidth, gapColour);
}
