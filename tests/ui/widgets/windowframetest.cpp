#include "ui/widgets/windowdrag.h"
#include "ui/widgets/windowresize.h"

#include <QMouseEvent>
#include <QTest>

/// What a frameless window has to do by itself: moving, maximising, resizing.
class WindowFrameTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void edges();
    void resizing();
    void doubleClick();
};

namespace {

struct Window : QWidget
{
    Window()
    {
        setWindowFlag(Qt::FramelessWindowHint);
        setGeometry(100, 100, 400, 300);
        setMinimumSize(200, 150);
        titleBar.setGeometry(0, 0, 400, 40);
        new WindowDrag(this, &titleBar);
        new WindowResize(this);
        show();
    }

    QWidget titleBar{this};
};

/// Moves the mouse over `widget` with `button` held down; positions are on the screen.
void moveMouse(QWidget& widget, QPoint to, Qt::MouseButton button)
{
    QMouseEvent event(QEvent::MouseMove, widget.mapFromGlobal(QPointF(to)), QPointF(to),
                      Qt::NoButton, button, {});
    QCoreApplication::sendEvent(&widget, &event);
}

} // namespace

void WindowFrameTest::edges()
{
    constexpr QSize size(400, 300);
    QCOMPARE(edgesAt(QPoint(5, 150), size), Qt::Edges(Qt::LeftEdge));
    QCOMPARE(edgesAt(QPoint(6, 150), size), Qt::Edges());
    QCOMPARE(edgesAt(QPoint(11, 11), size), Qt::TopEdge | Qt::LeftEdge);
    QCOMPARE(edgesAt(QPoint(12, 12), size), Qt::Edges());
    QCOMPARE(edgesAt(QPoint(388, 288), size), Qt::BottomEdge | Qt::RightEdge);
}

void WindowFrameTest::resizing()
{
    Window window;
    const QPoint start = window.mapToGlobal(QPoint(1, 1));
    QTest::mousePress(&window.titleBar, Qt::LeftButton, {}, QPoint(1, 1));
    moveMouse(window, start + QPoint(10, 20), Qt::LeftButton);
    QCOMPARE(window.geometry(), QRect(110, 120, 390, 280));
    // The far corner stays where it is when the window cannot become smaller.
    moveMouse(window, start + QPoint(999, 999), Qt::LeftButton);
    QCOMPARE(window.geometry(), QRect(300, 250, 200, 150));
    QTest::mouseRelease(&window.titleBar, Qt::LeftButton);
}

void WindowFrameTest::doubleClick()
{
    Window window;
    QTest::mouseDClick(&window.titleBar, Qt::LeftButton, {}, QPoint(50, 20));
    QVERIFY(window.isMaximized());
    // Edges are for windows that have any.
    QVERIFY(!resizableEdges(window, window.mapToGlobal(QPoint(0, 0))));
    QTest::mouseDClick(&window.titleBar, Qt::LeftButton, {}, QPoint(50, 20));
    QVERIFY(!window.isMaximized());
    QCOMPARE(window.size(), QSize(400, 300));
}

QTEST_MAIN(WindowFrameTest)
#include "windowframetest.moc"
