#include "ui/widgets/windowdrag.h"

#include "ui/widgets/windowresize.h"

#include <QApplication>
#include <QMouseEvent>
#include <QWidget>
#include <QWindow>

namespace {

// Then the window system's own move can go on from there.
bool restoresAtOnce()
{
    return QGuiApplication::platformName() == QLatin1String("windows");
}

} // namespace

WindowDrag::WindowDrag(QWidget* window, QWidget* titleBar) : QObject(window), m_window(window)
{
    titleBar->installEventFilter(this);
}

bool WindowDrag::eventFilter(QObject* watched, QEvent* event)
{
    switch (event->type()) {
    case QEvent::MouseButtonPress:
        return press(*static_cast<QMouseEvent*>(event));
    case QEvent::MouseMove:
        return move(*static_cast<QMouseEvent*>(event));
    case QEvent::MouseButtonRelease:
        m_state = State::Idle;
        break;
    case QEvent::MouseButtonDblClick:
        m_state = State::Idle;
        if (static_cast<QMouseEvent*>(event)->button() == Qt::LeftButton) {
            toggleMaximized(*m_window);
            return true;
        }
        break;
    default:
        break;
    }
    return QObject::eventFilter(watched, event);
}

bool WindowDrag::press(const QMouseEvent& event)
{
    m_state = State::Idle;
    const QPoint mouse = event.globalPosition().toPoint();
    if (event.button() != Qt::LeftButton || resizableEdges(*m_window, mouse))
        return false;
    m_state = State::Pressed;
    m_pressPosition = mouse;
    return true;
}

bool WindowDrag::move(const QMouseEvent& event)
{
    // The window system swallows the release that ends its own move.
    if (!event.buttons().testFlag(Qt::LeftButton))
        m_state = State::Idle;
    if (m_state == State::Idle)
        return false;
    const QPoint mouse = event.globalPosition().toPoint();
    if (m_state == State::Pressed &&
        (mouse - m_pressPosition).manhattanLength() >= QApplication::startDragDistance())
        begin();
    if (m_state == State::Moving)
        m_window->setGeometry({mouse - m_grip, m_size});
    return true;
}

void WindowDrag::begin()
{
    m_grip = m_pressPosition - m_window->pos();
    m_size = m_window->size();
    m_state = State::Moving;
    if (m_window->isMaximized()) {
        // The window shrinks under the mouse: keep the mouse at the same share of its width. The
        // window system gives the size back some time later, so the size is said with every move.
        m_size = m_window->normalGeometry().size();
        m_grip.setX(m_grip.x() * m_size.width() / m_window->width());
        m_window->showNormal();
        if (!restoresAtOnce())
            return;
        m_window->setGeometry({m_pressPosition - m_grip, m_size});
    }
    if (systemMoveIsReliable() && m_window->windowHandle()->startSystemMove())
        m_state = State::Idle;
}

void toggleMaximized(QWidget& window)
{
    if (window.isMaximized())
        window.showNormal();
    else
        window.showMaximized();
}

bool systemMoveIsReliable()
{
    return QGuiApplication::platformName() != QLatin1String("xcb") ||
           !qEnvironmentVariableIsSet("WAYLAND_DISPLAY");
}
