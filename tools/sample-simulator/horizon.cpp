#include "tools/sample-simulator/horizon.h"

#include <QKeyEvent>
#include <QPainter>
#include <QPainterPath>

#include <cmath>

namespace {

constexpr double pixelsPerDegree = 9;
constexpr int frameMilliseconds = 16;
const QColor skyTop(0x0b, 0x2a, 0x4a);
const QColor skyLow(0x5b, 0x9b, 0xc8);
const QColor groundHigh(0x8a, 0x5a, 0x33);
const QColor groundLow(0x2b, 0x1c, 0x12);
const QColor ink(0xf5, 0xf5, 0xf5);
const QColor accent(0xff, 0x6d, 0x1b);
const QColor panel(0x10, 0x10, 0x10, 200);

QPen line(const QColor& colour, double width)
{
    return QPen(colour, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
}

void setFontSize(QPainter& painter, int points, bool bold = false)
{
    QFont font = painter.font();
    font.setPointSize(points);
    font.setBold(bold);
    painter.setFont(font);
}

} // namespace

Horizon::Horizon(const QString& captionText, const QString& statusText)
    : caption(captionText), status(statusText)
{
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMinimumSize(480, 320);
    resize(880, 560);
    clock.start();
    connect(&frames, &QTimer::timeout, this, [this] {
        flight.advance(static_cast<double>(clock.restart()) / 1000);
        update();
    });
    frames.start(frameMilliseconds);
}

void Horizon::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    paintWorld(painter);
    paintBankScale(painter);
    paintAircraft(painter);
    paintHeading(painter);
    paintReadouts(painter);
}

void Horizon::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape)
        close();
    else if (!event->isAutoRepeat())
        moveStick(event->key(), 1);
}

void Horizon::keyReleaseEvent(QKeyEvent* event)
{
    if (!event->isAutoRepeat())
        moveStick(event->key(), 0);
}

void Horizon::moveStick(int key, double amount)
{
    switch (key) {
    case Qt::Key_Left:
        flight.stickRoll = -amount;
        break;
    case Qt::Key_Right:
        flight.stickRoll = amount;
        break;
    case Qt::Key_Up:
        flight.stickPitch = upPitch * amount;
        break;
    case Qt::Key_Down:
        flight.stickPitch = -upPitch * amount;
        break;
    default:
        break;
    }
}

void Horizon::paintWorld(QPainter& painter) const
{
    painter.save();
    painter.translate(width() / 2.0, height() / 2.0);
    painter.rotate(-flight.roll);
    painter.translate(0, flight.pitch * pixelsPerDegree);
    const double reach = width() + height();

    QLinearGradient sky(0, -reach / 2, 0, 0);
    sky.setColorAt(0, skyTop);
    sky.setColorAt(1, skyLow);
    painter.fillRect(QRectF(-reach, -reach, 2 * reach, reach), sky);
    QLinearGradient ground(0, 0, 0, reach / 2);
    ground.setColorAt(0, groundHigh);
    ground.setColorAt(1, groundLow);
    painter.fillRect(QRectF(-reach, 0, 2 * reach, reach), ground);
    painter.setPen(line(ink, 2));
    painter.drawLine(QPointF(-reach, 0), QPointF(reach, 0));

    setFontSize(painter, 10);
    for (int angle = -20; angle <= 20; angle += 5) {
        if (angle == 0)
            continue;
        const double y = -angle * pixelsPerDegree;
        const double half = angle % 10 == 0 ? 70 : 35;
        painter.drawLine(QPointF(-half, y), QPointF(half, y));
        if (angle % 10 == 0)
            painter.drawText(QRectF(half + 8, y - 10, 40, 20), Qt::AlignVCenter,
                             QString::number(std::abs(angle)));
    }
    painter.restore();
}

void Horizon::paintBankScale(QPainter& painter) const
{
    painter.save();
    painter.translate(width() / 2.0, height() / 2.0);
    const double radius = std::min(width(), height()) * 0.38;
    painter.setPen(line(ink, 2));
    painter.drawArc(QRectF(-radius, -radius, 2 * radius, 2 * radius), 30 * 16, 120 * 16);
    for (const int angle : {-60, -45, -30, -20, -10, 0, 10, 20, 30, 45, 60}) {
        painter.save();
        painter.rotate(angle);
        painter.drawLine(QPointF(0, -radius), QPointF(0, -radius - (angle % 30 == 0 ? 16 : 9)));
        painter.restore();
    }
    painter.rotate(-flight.roll);
    painter.setPen(Qt::NoPen);
    painter.setBrush(accent);
    painter.drawPolygon(
        QPolygonF{QPointF(0, -radius + 4), QPointF(-9, -radius + 20), QPointF(9, -radius + 20)});
    painter.restore();
}

void Horizon::paintAircraft(QPainter& painter) const
{
    painter.save();
    painter.translate(width() / 2.0, height() / 2.0);
    QPainterPath shape;
    shape.moveTo(-110, 0);
    shape.lineTo(-45, 0);
    shape.moveTo(110, 0);
    shape.lineTo(45, 0);
    shape.moveTo(-26, 0);
    shape.lineTo(0, 22);
    shape.lineTo(26, 0);
    painter.setPen(line(QColor(0, 0, 0, 160), 9));
    painter.drawPath(shape);
    painter.setPen(line(accent, 5));
    painter.drawPath(shape);
    painter.restore();
}

void Horizon::paintHeading(QPainter& painter) const
{
    const QRectF strip(width() / 2.0 - 170, 14, 340, 40);
    painter.save();
    painter.setPen(Qt::NoPen);
    painter.setBrush(panel);
    painter.drawRoundedRect(strip, 8, 8);
    painter.setClipRect(strip);
    painter.setPen(line(ink, 1.5));
    setFontSize(painter, 10);
    const int nearest = static_cast<int>(std::lround(flight.heading / 5)) * 5;
    for (int angle = nearest - 30; angle <= nearest + 30; angle += 5) {
        const double x = strip.center().x() + (angle - flight.heading) * 7;
        painter.drawLine(QPointF(x, strip.bottom()), QPointF(x, strip.bottom() - 8));
        if (angle % 10 == 0)
            painter.drawText(QRectF(x - 25, strip.top() + 4, 50, 22), Qt::AlignCenter,
                             QStringLiteral("%1°").arg((angle + 360) % 360));
    }
    painter.setPen(line(accent, 3));
    painter.drawLine(QPointF(strip.center().x(), strip.bottom() - 12),
                     QPointF(strip.center().x(), strip.bottom()));
    painter.restore();
}

void Horizon::paintReadouts(QPainter& painter) const
{
    const auto box = [&painter](const QRectF& area, const QString& title, const QString& value) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(panel);
        painter.drawRoundedRect(area, 8, 8);
        painter.setPen(ink);
        setFontSize(painter, 9);
        painter.drawText(area.adjusted(12, 8, -12, 0), Qt::AlignTop | Qt::AlignLeft, title);
        setFontSize(painter, 18, true);
        painter.drawText(area.adjusted(12, 0, -12, -8), Qt::AlignBottom | Qt::AlignLeft, value);
    };
    const double middle = height() / 2.0 - 32;
    box(QRectF(20, middle, 130, 64), tr("Скорость, км/ч"), QString::number(flight.speed, 'f', 0));
    box(QRectF(width() - 150, middle, 130, 64), tr("Высота, м"),
        QString::number(flight.altitude, 'f', 0));

    const QRectF foot(0, height() - 56, width(), 56);
    painter.fillRect(foot, panel);
    painter.setPen(accent);
    setFontSize(painter, 14, true);
    painter.drawText(foot.adjusted(20, 0, -20, 0), Qt::AlignVCenter | Qt::AlignLeft, caption);
    painter.setPen(ink);
    setFontSize(painter, 10);
    painter.drawText(foot.adjusted(20, 0, -20, 0), Qt::AlignVCenter | Qt::AlignRight, status);
}
