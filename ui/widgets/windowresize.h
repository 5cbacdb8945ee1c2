#pragma once

#include <QObject>
#include <QRect>

class QMouseEvent;
class QWidget;

/// Lets a frameless window be resized by its edges and corners. The zones lie inside the window:
/// 6 px along the edges, 12 px at the corners, never over a button and not while maximised.
class WindowResize final : public QObject
{
    Q_OBJECT

public:
    /// Owned by `window`.
    explicit WindowResize(QWidget* window);

    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    bool press(const QMouseEvent& event);
    bool move(const QMouseEvent& event);
    void showCursor(Qt::Edges edges);

    QWidget* m_window;
    Qt::Edges m_shownEdges;
    Qt::Edges m_resizedEdges;
    QPoint m_pressPosition; ///< of the mouse, on the screen
    QRect m_startGeometry;
};

/// The edges that a press at `position`, in a window of `size`, takes hold of.
Qt::Edges edgesAt(QPoint position, QSize size);
/// The same for a window as it is now; none over a button or while it is maximised. `mouse` is a
/// position on the screen.
Qt::Edges resizableEdges(const QWidget& window, QPoint mouse);
/// `start` with `edges` moved by `offset`, its size kept between `smallest` and `largest`; the
/// other edges stay where they are.
QRect resizedGeometry(const QRect& start, Qt::Edges edges, QPoint offset, QSize smallest,
                      QSize largest);
