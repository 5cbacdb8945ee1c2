#pragma once

#include <QObject>
#include <QPoint>
#include <QSize>

class QMouseEvent;
class QWidget;

/// Moves a frameless window by its title bar with the left button, and maximises or restores it on
/// a double-click there. The move starts once the mouse has gone the platform's drag distance, so
/// that it never swallows the double-click, and is the window system's own where that works.
class WindowDrag final : public QObject
{
    Q_OBJECT

public:
    /// `titleBar` is a descendant of `window`. Owned by `window`.
    WindowDrag(QWidget* window, QWidget* titleBar);

    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    bool press(const QMouseEvent& event);
    bool move(const QMouseEvent& event);
    void begin();

    enum class State { Idle, Pressed, Moving };

    QWidget* m_window;
    State m_state = State::Idle;
    QPoint m_pressPosition; ///< of the mouse, on the screen
    QPoint m_grip;          ///< mouse position relative to the window's corner
    QSize m_size;           ///< of the window while it moves
};

/// Maximises `window`, or gives it back the size it had before.
void toggleMaximized(QWidget& window);
/// Whether the window system can be asked to move or resize windows. XWayland says yes and does
/// nothing.
bool systemMoveIsReliable();
