#include "ui/widgets/nativeframe.h"

#include <QAbstractNativeEventFilter>
#include <QEvent>
#include <QGuiApplication>
#include <QScreen>
#include <QWidget>
#include <qt_windows.h>

#include <shellapi.h>

#include <algorithm>

namespace {

/// A task bar that hides itself comes back when the mouse reaches the screen's last pixels.
constexpr LONG hiddenTaskBarHeight = 2;

bool hidesTaskBar(UINT edge, const RECT& monitor)
{
    APPBARDATA question{};
    question.cbSize = sizeof question;
    question.uEdge = edge;
    question.rc = monitor;
    return SHAppBarMessage(ABM_GETAUTOHIDEBAREX, &question) != 0;
}

// `window`: a rectangle on the screen that the window goes to, which need not be its old one.
RECT maximizedArea(const RECT& window)
{
    MONITORINFO monitor{};
    monitor.cbSize = sizeof monitor;
    GetMonitorInfoW(MonitorFromRect(&window, MONITOR_DEFAULTTONEAREST), &monitor);
    RECT area = monitor.rcWork;
    const RECT& whole = monitor.rcMonitor;
    if (hidesTaskBar(ABE_LEFT, whole))
        area.left = std::max(area.left, whole.left + hiddenTaskBarHeight);
    if (hidesTaskBar(ABE_TOP, whole))
        area.top = std::max(area.top, whole.top + hiddenTaskBarHeight);
    if (hidesTaskBar(ABE_RIGHT, whole))
        area.right = std::min(area.right, whole.right - hiddenTaskBarHeight);
    if (hidesTaskBar(ABE_BOTTOM, whole))
        area.bottom = std::min(area.bottom, whole.bottom - hiddenTaskBarHeight);
    return area;
}

class NativeFrame final : public QObject, public QAbstractNativeEventFilter
{
public:
    explicit NativeFrame(QWidget* window) : QObject(window), m_window(window)
    {
        QCoreApplication::instance()->installNativeEventFilter(this);
        window->installEventFilter(this);
        adoptHandle();
    }

    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::WinIdChange)
            adoptHandle();
        return QObject::eventFilter(watched, event);
    }

    bool nativeEventFilter(const QByteArray& /*type*/, void* message, qintptr* result) override
    {
        const MSG& event = *static_cast<const MSG*>(message);
        if (!m_handle || event.hwnd != m_handle)
            return false;
        // Qt writes the whole style anew when it changes anything of it.
        if (event.message == WM_STYLECHANGING && static_cast<int>(event.wParam) == GWL_STYLE)
            reinterpret_cast<STYLESTRUCT*>(event.lParam)->styleNew |= WS_THICKFRAME;
        if (event.message != WM_NCCALCSIZE)
            return false;
        if (IsZoomed(m_handle)) {
            RECT& client = *reinterpret_cast<RECT*>(event.lParam); // whatever follows it
            const RECT area = maximizedArea(client);
            RECT inside;
            if (IntersectRect(&inside, &client, &area))
                client = inside;
        }
        *result = 0; // the window's own area reaches to its edges
        return true;
    }

private:
    void adoptHandle()
    {
        m_handle = reinterpret_cast<HWND>(m_window->internalWinId());
        if (!m_handle)
            return;
        SetWindowLongPtrW(m_handle, GWL_STYLE, GetWindowLongPtrW(m_handle, GWL_STYLE));
        SetWindowPos(m_handle, nullptr, 0, 0, 0, 0,
                     SWP_FRAMECHANGED | SWP_NOMOVE | SWP_NOSIZE | SWP_NOZORDER | SWP_NOOWNERZORDER |
                         SWP_NOACTIVATE);
    }

    QWidget* m_window;
    HWND m_handle = nullptr;
};

// Qt leaves a window that nearly fills the screen in its corner, and a larger one under the task
// bar.
void placeOnScreen(QWidget& window)
{
    const QRect free = window.screen()->availableGeometry();
    window.resize(window.size().boundedTo(free.size()));
    window.move(std::max(free.left(), free.center().x() - window.width() / 2),
                std::max(free.top(), free.center().y() - window.height() / 2));
}

} // namespace

void installNativeFrame(QWidget& window)
{
    // Qt's other platforms have windows that Windows does not know.
    if (QGuiApplication::platformName() != QLatin1String("windows"))
        return;
    new NativeFrame(&window);
    placeOnScreen(window);
}
