#pragma once

#include "ui/widgets/focusring.h"

#include <QColor>
#include <QPropertyAnimation>
#include <QPushButton>

class QGraphicsOpacityEffect;

/// A push button whose opacity, text colour and background colour can each be faded when the mouse
/// enters and leaves. Forms set its properties; the order of properties and style sheet does not
/// matter.
///
/// A colour is applied by rewriting "color: rgba(...);" and "background-color: rgba(...);" in the
/// button's own style sheet. A colour that nothing ever set leaves the style sheet alone.
class SemiTransparentButton final : public QPushButton
{
    Q_OBJECT
    Q_PROPERTY(bool bAnimateTransparency MEMBER m_animateTransparency)
    Q_PROPERTY(bool bAnimateTextColor MEMBER m_animateTextColor)
    Q_PROPERTY(bool bAnimateBackgroundColor MEMBER m_animateBackgroundColor)
    Q_PROPERTY(double transparency READ transparency WRITE setTransparency)
    Q_PROPERTY(double startTransparency MEMBER m_startTransparency)
    Q_PROPERTY(double endTransparency MEMBER m_endTransparency)
    Q_PROPERTY(QColor textColor READ textColor WRITE setTextColor)
    Q_PROPERTY(QColor startTextColor MEMBER m_startTextColor)
    Q_PROPERTY(QColor endTextColor MEMBER m_endTextColor)
    Q_PROPERTY(QColor backgroundColor READ backgroundColor WRITE setBackgroundColor)
    Q_PROPERTY(QColor startBackgroundColor MEMBER m_startBackgroundColor)
    Q_PROPERTY(QColor endBackgroundColor MEMBER m_endBackgroundColor)

public:
    explicit SemiTransparentButton(QWidget* parent = nullptr);

    /// Opacity, from 0 (invisible) to 1.
    double transparency() const { return m_transparency; }
    void setTransparency(double opacity);
    QColor textColor() const { return m_textColor; }
    void setTextColor(const QColor& colour);
    QColor backgroundColor() const { return m_backgroundColor; }
    void setBackgroundColor(const QColor& colour);
    /// Sets the opacity to `start` and fades it to `end` while the mouse is over the button.
    void animateTransparency(double start, double end);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void changeEvent(QEvent* event) override;
    bool event(QEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void initStyleOption(QStyleOptionButton* option) const override;

private:
    bool needsGap() const;
    void setHovered(bool hovered);
    void endHover();
    void fade(QPropertyAnimation& animation, const QVariant& end) const;
    void applyOpacity();
    void applyColours();

    bool m_animateTransparency = false;
    bool m_animateTextColor = false;
    bool m_animateBackgroundColor = false;
    double m_transparency = 1.0;
    double m_startTransparency = 1.0;
    double m_endTransparency = 1.0;
    QColor m_textColor{0, 0, 0};
    QColor m_startTextColor{0, 0, 0};
    QColor m_endTextColor{255, 255, 255};
    QColor m_backgroundColor{255, 109, 27};
    QColor m_startBackgroundColor{255, 109, 27};
    // A white label needs a darker orange than the accent: contrast 4.7 instead of 2.8.
    QColor m_endBackgroundColor{200, 76, 0};
    bool m_textColorSet = false;
    bool m_backgroundColorSet = false;
    bool m_hovered = false;
    FocusRing m_focusRing;
    QGraphicsOpacityEffect* m_opacityEffect; // owned by QWidget
    QPropertyAnimation m_transparencyAnimation;
    QPropertyAnimation m_textColorAnimation;
    QPropertyAnimation m_backgroundColorAnimation;
};
