#include "ui/widgets/semitransparentbutton.h"

#include <QEvent>
#include <QGraphicsOpacityEffect>
#include <QKeyEvent>
#include <QPainter>
#include <QPixmap>
#include <QRegularExpression>
#include <QStyle>
#include <QStyleOptionButton>
#include <QStylePainter>

namespace {

constexpr int fadeMilliseconds = 120;

QString colourRule(QLatin1String property, const QColor& colour)
{
    return QStringLiteral("%1: rgba(%2, %3, %4, %5);")
        .arg(property)
        .arg(colour.red())
        .arg(colour.green())
        .arg(colour.blue())
        .arg(colour.alpha());
}

/// Carries the opacity and leaves the painting to the button: drawn by the effect itself, each
/// button has Qt go through all widgets of its window first, hidden pages included.
class FaceOpacity final : public QGraphicsOpacityEffect
{
protected:
    void draw(QPainter* painter) override { drawSource(painter); }
};

} // namespace

SemiTransparentButton::SemiTransparentButton(QWidget* parent)
    : QPushButton(parent), m_opacityEffect(new FaceOpacity),
      m_transparencyAnimation(this, "transparency"), m_textColorAnimation(this, "textColor"),
      m_backgroundColorAnimation(this, "backgroundColor")
{
    setGraphicsEffect(m_opacityEffect);
    applyOpacity();
}

void SemiTransparentButton::setTransparency(double opacity)
{
    m_transparency = opacity;
    applyOpacity();
}

void SemiTransparentButton::setTextColor(const QColor& colour)
{
    m_textColor = colour;
    m_textColorSet = true;
    applyColours();
}

void SemiTransparentButton::setBackgroundColor(const QColor& colour)
{
    m_backgroundColor = colour;
    m_backgroundColorSet = true;
    applyColours();
}

void SemiTransparentButton::animateTransparency(double start, double end)
{
    m_animateTransparency = true;
    m_startTransparency = start;
    m_endTransparency = end;
    setTransparency(start);
}

QSize SemiTransparentButton::sizeHint() const
{
    QSize hint = QPushButton::sizeHint();
    if (needsGap())
        hint.rwidth() += fontMetrics().horizontalAdvance(u' ');
    return hint;
}

void SemiTransparentButton::enterEvent(QEnterEvent* event)
{
    QPushButton::enterEvent(event);
    if (isEnabled())
        setHovered(true);
}

void SemiTransparentButton::leaveEvent(QEvent* event)
{
    QPushButton::leaveEvent(event);
    if (isEnabled())
        setHovered(false);
}

void SemiTransparentButton::hideEvent(QHideEvent* event)
{
    QPushButton::hideEvent(event);
    if (m_hovered && m_animateTransparency) {
        m_transparencyAnimation.stop();
        setTransparency(m_startTransparency);
    }
    endHover();
}

void SemiTransparentButton::changeEvent(QEvent* event)
{
    QPushButton::changeEvent(event);
    if (event->type() == QEvent::StyleChange) {
        applyColours();
    } else if (event->type() == QEvent::EnabledChange) {
        if (!isEnabled())
            endHover();
        else if (isVisible() && underMouse())
            setHovered(true);
    }
}

bool SemiTransparentButton::event(QEvent* event)
{
    const bool handled = QPushButton::event(event);
    // A style sheet that arrives before the first polish, below a parent that has one, sends no
    // StyleChange.
    if (event->type() == QEvent::Polish)
        applyColours();
    return handled;
}

void SemiTransparentButton::focusInEvent(QFocusEvent* event)
{
    m_focusRing.focusIn(event->reason());
    applyOpacity();
    QPushButton::focusInEvent(event);
}

void SemiTransparentButton::focusOutEvent(QFocusEvent* event)
{
    // Another window or a popup takes the focus for a while only.
    if (event->reason() != Qt::ActiveWindowFocusReason && event->reason() != Qt::PopupFocusReason)
        m_focusRing.focusOut();
    applyOpacity();
    QPushButton::focusOutEvent(event);
}

void SemiTransparentButton::keyPressEvent(QKeyEvent* event)
{
    m_focusRing.keyPressed();
    applyOpacity();
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter)
        click(); // QPushButton does so in dialogs only
    else
        QPushButton::keyPressEvent(event);
}

void SemiTransparentButton::paintEvent(QPaintEvent* event)
{
    if (m_opacityEffect->isEnabled()) {
        QPixmap face(size() * devicePixelRatioF());
        face.setDevicePixelRatio(devicePixelRatioF());
        face.fill(Qt::transparent);
        QStyleOptionButton option;
        initStyleOption(&option);
        QStylePainter(&face, this).drawControl(QStyle::CE_PushButton, option);
        QPainter painter(this);
        painter.setOpacity(m_opacityEffect->opacity());
        painter.drawPixmap(QPoint(), face);
    } else {
        QPushButton::paintEvent(event);
    }
    m_focusRing.paint(*this);
}

void SemiTransparentButton::initStyleOption(QStyleOptionButton* option) const
{
    QPushButton::initStyleOption(option);
    if (needsGap())
        option->text.prepend(u' ');
    // Nothing else cuts a text that is too long for the button with a mark.
    const int room = style()->subElementRect(QStyle::SE_PushButtonContents, option, this).width();
    if (icon().isNull() && option->fontMetrics.horizontalAdvance(option->text) > room)
        option->text = option->fontMetrics.elidedText(option->text, Qt::ElideRight, room);
}

bool SemiTransparentButton::needsGap() const
{
    // Styles put no more than 4 px between icon and text, and no property changes that.
    return !icon().isNull() && !text().isEmpty() && !text().startsWith(u' ');
}

void SemiTransparentButton::setHovered(bool hovered)
{
    m_hovered = hovered;
    if (m_animateTransparency)
        fade(m_transparencyAnimation, hovered ? m_endTransparency : m_startTransparency);
    if (m_animateTextColor)
        fade(m_textColorAnimation, hovered ? m_endTextColor : m_startTextColor);
    if (m_animateBackgroundColor)
        fade(m_backgroundColorAnimation, hovered ? m_endBackgroundColor : m_startBackgroundColor);
}

void SemiTransparentButton::endHover()
{
    if (!m_hovered)
        return;
    m_hovered = false;
    // The opacity stays: a version's button is disabled under the mouse when it is selected, and
    // keeps the opacity that it was given.
    if (m_transparencyAnimation.state() == QAbstractAnimation::Running)
        m_transparencyAnimation.setCurrentTime(m_transparencyAnimation.duration());
    m_textColorAnimation.stop();
    m_backgroundColorAnimation.stop();
    if (m_animateTextColor)
        setTextColor(m_startTextColor);
    if (m_animateBackgroundColor)
        setBackgroundColor(m_startBackgroundColor);
}

void SemiTransparentButton::fade(QPropertyAnimation& animation, const QVariant& end) const
{
    animation.stop();
    animation.setDuration(style()->styleHint(QStyle::SH_Widget_Animation_Duration, nullptr, this) >
                                  0
                              ? fadeMilliseconds
                              : 0);
    animation.setEndValue(end);
    animation.start();
}

void SemiTransparentButton::applyOpacity()
{
    // The ring has to be seen whole, whatever the opacity of the face below it.
    const double opacity = m_focusRing.isShown() && hasFocus() ? 1.0 : m_transparency;
    m_opacityEffect->setOpacity(opacity);
    // Drawing through the effect costs a pixmap and blurs text at fractional scales.
    m_opacityEffect->setEnabled(opacity < 1.0);
}

void SemiTransparentButton::applyColours()
{
    static const QRegularExpression textPattern(
        QStringLiteral(R"((?<!background-)color:\s*rgba\([^\)]+\);)"));
    static const QRegularExpression backgroundPattern(
        QStringLiteral(R"(background-color:\s*rgba\([^\)]+\);)"));

    QString sheet = styleSheet();
    if (m_textColorSet)
        sheet.replace(textPattern, colourRule(QLatin1String("color"), m_textColor));
    if (m_backgroundColorSet)
        sheet.replace(backgroundPattern,
                      colourRule(QLatin1String("background-color"), m_backgroundColor));
    if (sheet != styleSheet())
        setStyleSheet(sheet);
}
