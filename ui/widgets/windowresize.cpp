#include "ui/widgets/windowresize.h"

#include "ui/widgets/windowdrag.h"

#include <QAbstractButton>
#include <QMouseEvent>
#include <QWindow>

#include <algorithm>

namespace {

constexpr int edgeWidth = 6;
constexpr int cornerSize = 12;

Qt::CursorShape cursorShape(Qt::Edges edges)
{
    if (edges == (Qt::TopEdge | Qt::LeftEdge) || edges == (Qt::BottomEdge | Qt::RightEdge))
        return Qt::SizeFDiagCursor;
    if (edges == (Qt::TopEdge | Qt::RightEdge) || edges == (Qt::BottomEdge | Qt::LeftEdge))
        return Qt::SizeBDiagCursor;
    return edges & (Qt::LeftEdge | Qt::RightEdge) ? Qt::SizeHorCursor : Qt::SizeVerCursor;
}

} // namespace

WindowResize::WindowResize(QWidget* window) : QObject(window), m_window(window)
{
    window->setAttribute(Qt::WA_Hover); // hover events tell of every move, over children too
    window->installEventFilter(this);
}

bool WindowResize::eventFilter(QObject* watched, QEvent* event)
{
    switch (event->type()) {
    case QEvent::HoverEnter:
    case QEvent::HoverMove:
        if (!m_resizedEdges)
            showCursor(resizableEdges(
                *m_window,
                m_window->mapToGlobal(static_cast<QHoverEvent*>(event)->position().toPoint())));
        break;
    case QEvent::HoverLeave:
        if (!m_resizedEdges)
            showCursor({});
        break;
    case QEvent::MouseButtonPress:
        return press(*static_cast<QMouseEvent*>(event));
    case QEvent::MouseMove:
        return move(*static_cast<QMouseEvent*>(event));
    case QEvent::MouseButtonRelease:
        m_resizedEdges = {};
        break;
    default:
        break;
    }
    return QObject::eventFilter(watched, event);
}

bool WindowResize::press(const QMouseEvent& event)
{
    m_resizedEdges = {};
    const QPoint mouse = event.globalPosition().toPoint();
    const Qt::Edges edges = resizableEdges(*m_window, mouse);
    if (event.button() != Qt::LeftButton || !edges)
        return false;
    if (!systemMoveIsReliable() || !m_window->windowHandle()->startSystemResize(edges)) {
        m_resizedEdges = edges;
        m_pressPosition = mouse;
        m_startGeometry = m_window->geometry();
    }
    return true;
}

bool WindowResize::move(const QMouseEvent& event)
{
    if (!event.buttons().testFlag(Qt::LeftButton))
        m_resizedEdges = {};
    if (!m_resizedEdges)
        return false;
    m_window->setGeometry(resizedGeometry(m_startGeometry, m_resizedEdges,
                                          event.globalPosition().toPoint() - m_pressPosition,
                                          m_window->minimumSize(), m_window->maximumSize()));
    return true;
}

void WindowResize::showCursor(Qt::Edges edges)
{
    if (edges == m_shownEdges)
        return;
    m_shownEdges = edges;
    if (edges)
        m_window->setCursor(cursorShape(edges));
    else
        m_window->unsetCursor();
}

Qt::Edges edgesAt(QPoint position, QSize size)
{
    const int toRight = size.width() - 1 - position.x();
    const int toBottom = size.height() - 1 - position.y();
    const bool nearSide = std::min(position.x(), toRight) < cornerSize;
    const bool nearTopOrBottom = std::min(position.y(), toBottom) < cornerSize;
    const int depth = nearSide && nearTopOrBottom ? cornerSize : edgeWidth;
    Qt::Edges edges;
    edges.setFlag(Qt::LeftEdge, position.x() < depth);
    edges.setFlag(Qt::RightEdge, toRight < depth);
    edges.setFlag(Qt::TopEdge, position.y() < depth);
    edges.setFlag(Qt::BottomEdge, toBottom < depth);
    return edges;
}

Qt::Edges resizableEdges(const QWidget& window, QPoint mouse)
{
    const QPoint position = window.mapFromGlobal(mouse);
    if (window.isMaximized() || window.isFullScreen() || !window.rect().contains(position) ||
        qobject_cast<const QAbstractButton*>(window.childAt(position)))
        return {};
    return edgesAt(position, window.size());
}

QRect resizedGeometry(const QRect& start, Qt::Edges edges, QPoint offset, QSize smallest,
                      QSize largest)
{
    QRect result = start;
    if (edges & Qt::LeftEdge)
        result.setLeft(std::clamp(start.left() + offset.x(), start.right() + 1 - largest.width(),
                                  start.right() + 1 - smallest.width()));
    if (edges & Qt::RightEdge)
        result.setRight(std::clamp(start.right() + offset.x(), start.left() - 1 + smallest.width(),
                                   start.left() - 1 + largest.width()));
    if (edges & Qt::TopEdge)
        result.setTop(std::clamp(start.top() + offset.y(), start.bottom() + 1 - largest.height(),
                                 start.bottom() + 1 - smallest.height()));
    if (edges & Qt::BottomEdge)
        result.setBottom(std::clamp(start.bottom() + offset.y(),
                                    start.top() - 1 + smallest.height(),
                                    start.top() - 1 + largest.height()));
    return result;
}
