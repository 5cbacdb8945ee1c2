#include "ui/widgets/columnlabel.h"
#include "ui/widgets/elidingcombobox.h"
#include "ui/widgets/windowdrag.h"
#include "ui/widgets/windowresize.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QMouseEvent>
#include <QSet>
#include <QStringListModel>
#include <QTest>

/// What a frameless window has to do by itself: moving, maximising, resizing.
class WindowFrameTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void edges_data();
    void edges();
    void resizing_data();
    void resizing();
    void dragging_data();
    void dragging();
    void draggingMaximized();
    void doubleClick();
    void numbersKeepTheirPlace();
    void longListIsNotMeasured();
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

void WindowFrameTest::edges_data()
{
    QTest::addColumn<QPoint>("position");
    QTest::addColumn<Qt::Edges>("expected");
    const auto row = [](const char* name, int x, int y, Qt::Edges expected) {
        QTest::newRow(name) << QPoint(x, y) << expected;
    };
    row("middle", 200, 150, {});
    row("left", 5, 150, Qt::LeftEdge);
    row("beside left", 6, 150, {});
    row("right", 394, 150, Qt::RightEdge);
    row("beside right", 393, 150, {});
    row("top", 200, 0, Qt::TopEdge);
    row("bottom", 200, 299, Qt::BottomEdge);
    row("top left", 11, 11, Qt::TopEdge | Qt::LeftEdge);
    row("beside top left", 12, 12, {});
    row("bottom right", 388, 288, Qt::BottomEdge | Qt::RightEdge);
    row("top right", 399, 0, Qt::TopEdge | Qt::RightEdge);
}

void WindowFrameTest::edges()
{
    QFETCH(const QPoint, position);
    QTEST(edgesAt(position, QSize(400, 300)), "expected");
}

void WindowFrameTest::resizing_data()
{
    QTest::addColumn<QPoint>("from");
    QTest::addColumn<QPoint>("by");
    QTest::addColumn<QRect>("expected");
    const auto row = [](const char* name, QPoint from, QPoint by, QRect expected) {
        QTest::newRow(name) << from << by << expected;
    };
    row("right", {399, 150}, {50, 9}, {100, 100, 450, 300});
    row("left", {0, 150}, {-50, 9}, {50, 100, 450, 300});
    row("bottom right", {399, 299}, {10, 20}, {100, 100, 410, 320});
    row("top left", {1, 1}, {10, 20}, {110, 120, 390, 280});
    row("right, too far", {399, 150}, {-999, 0}, {100, 100, 200, 300});
    row("top left, too far", {1, 1}, {999, 999}, {300, 250, 200, 150});
}

void WindowFrameTest::resizing()
{
    QFETCH(const QPoint, from);
    QFETCH(const QPoint, by);
    Window window;
    QWidget& pressed = from.y() < 40 ? window.titleBar : static_cast<QWidget&>(window);
    const QPoint start = window.mapToGlobal(from);
    QTest::mousePress(&pressed, Qt::LeftButton, {}, from);
    moveMouse(window, start + by, Qt::LeftButton);
    QTEST(window.geometry(), "expected");
    QTest::mouseRelease(&pressed, Qt::LeftButton);
    moveMouse(window, start, Qt::NoButton);
    QTEST(window.geometry(), "expected");
}

void WindowFrameTest::dragging_data()
{
    QTest::addColumn<Qt::MouseButton>("button");
    QTest::addColumn<int>("distance");
    QTest::addColumn<int>("moved");
    const int needed = QApplication::startDragDistance();
    QTest::newRow("left") << Qt::LeftButton << needed + 30 << needed + 30;
    QTest::newRow("trembling hand") << Qt::LeftButton << needed - 1 << 0;
    QTest::newRow("right") << Qt::RightButton << needed + 30 << 0;
}

void WindowFrameTest::dragging()
{
    QFETCH(const Qt::MouseButton, button);
    QFETCH(const int, distance);
    QFETCH(const int, moved);
    Window window;
    const QPoint start = window.mapToGlobal(QPoint(50, 20));
    QTest::mousePress(&window.titleBar, button, {}, QPoint(50, 20));
    moveMouse(window.titleBar, start + QPoint(distance, 0), button);
    QCOMPARE(window.pos(), QPoint(100 + moved, 100));
    QTest::mouseRelease(&window.titleBar, button);
    moveMouse(window.titleBar, start + QPoint(200, 0), Qt::NoButton);
    QCOMPARE(window.pos(), QPoint(100 + moved, 100));
}

void WindowFrameTest::draggingMaximized()
{
    Window window;
    window.showMaximized();
    const int width = window.width();
    window.titleBar.resize(width, 40);
    const QPoint start = window.mapToGlobal(QPoint(width * 3 / 4, 20));
    QTest::mousePress(&window.titleBar, Qt::LeftButton, {}, QPoint(width * 3 / 4, 20));
    moveMouse(window.titleBar, start + QPoint(0, 50), Qt::LeftButton);
    QVERIFY(!window.isMaximized());
    // The mouse stays at three quarters of the title bar.
    QCOMPARE(window.geometry(), QRect(start + QPoint(-300, 30), QSize(400, 300)));
    QTest::mouseRelease(&window.titleBar, Qt::LeftButton);
}

void WindowFrameTest::doubleClick()
{
    Window window;
    QTest::mouseDClick(&window.titleBar, Qt::RightButton, {}, QPoint(50, 20));
    QVERIFY(!window.isMaximized());
    QTest::mouseDClick(&window.titleBar, Qt::LeftButton, {}, QPoint(50, 20));
    QVERIFY(window.isMaximized());
    // Edges are for windows that have any.
    QVERIFY(!resizableEdges(window, window.mapToGlobal(QPoint(0, 0))));
    QTest::mouseDClick(&window.titleBar, Qt::LeftButton, {}, QPoint(50, 20));
    QVERIFY(!window.isMaximized());
    QCOMPARE(window.size(), QSize(400, 300));
}

void WindowFrameTest::numbersKeepTheirPlace()
{
    ColumnLabel label;
    label.setText(QStringLiteral("1024.00\t/\t1024.00\tМБ"));
    const int width = label.sizeHint().width();
    label.setText(QStringLiteral("9.99\t/\t1024.00\tМБ"));
    QCOMPARE(label.sizeHint().width(), width);
    label.setText(QStringLiteral("Осталось примерно\t10\tсек"));
    const int twoDigits = label.sizeHint().width();
    label.setText(QStringLiteral("Осталось примерно\t9\tсек"));
    QCOMPARE(label.sizeHint().width(), twoDigits);
    // No wider than the words themselves: a tab is a space.
    QVERIFY(twoDigits <=
            label.fontMetrics().horizontalAdvance(QStringLiteral("Осталось примерно 10 сек")) + 4);
}

void WindowFrameTest::longListIsNotMeasured()
{
    struct Counting : QStringListModel
    {
        QVariant data(const QModelIndex& index, int role) const override
        {
            if (role == Qt::SizeHintRole || role == Qt::FontRole)
                rows.insert(index.row());
            return QStringListModel::data(index, role);
        }
        mutable QSet<int> rows;
    };
    Counting model;
    model.setStringList(QStringList(5000, QStringLiteral("v. 1.0.0")));
    ElidingComboBox box;
    box.setModel(&model);
    box.show();
    box.showPopup();
    QCoreApplication::processEvents();
    QVERIFY(box.view()->isVisible());
    QVERIFY2(model.rows.size() < 100, qPrintable(QString::number(model.rows.size())));
    box.hidePopup();
}

QTEST_MAIN(WindowFrameTest)
#include "windowframetest.moc"
