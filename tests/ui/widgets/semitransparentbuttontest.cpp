#include "ui/widgets/semitransparentbutton.h"

#include <QEnterEvent>
#include <QGraphicsOpacityEffect>
#include <QSignalSpy>
#include <QTest>

#include <memory>

/// Properties as a form sets them, and what the mouse and the keyboard do.
class SemiTransparentButtonTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void colours_data();
    void colours();
    void hover();
    void hoverEndsWithTheButton_data();
    void hoverEndsWithTheButton();
    void keepsOpacityWhenDisabledUnderMouse();
    void opaqueIsDrawnDirectly();
    void keysPress_data();
    void keysPress();
};

namespace {

const QString sheet =
    QStringLiteral("QPushButton {\n\tcolor: rgba(0, 0, 0, 255);\n\tbackground-color:rgba(1,2,3,4);"
                   "\n\tborder: 1px solid #757575;\n}\nQPushButton:disabled { color: #8C8C8C; }");

void enter(QWidget& widget)
{
    QEnterEvent event(QPointF(1, 1), QPointF(1, 1), QPointF(1, 1));
    QCoreApplication::sendEvent(&widget, &event);
}

void leave(QWidget& widget)
{
    QEvent event(QEvent::Leave);
    QCoreApplication::sendEvent(&widget, &event);
}

/// A button with all three animations on.
std::unique_ptr<SemiTransparentButton> animatedButton()
{
    auto button = std::make_unique<SemiTransparentButton>();
    button->setStyleSheet(sheet);
    button->animateTransparency(0.5, 0.9);
    button->setProperty("bAnimateTextColor", true);
    button->setProperty("startTextColor", QColor(10, 0, 0));
    button->setProperty("endTextColor", QColor(20, 0, 0));
    button->setProperty("bAnimateBackgroundColor", true);
    button->setProperty("startBackgroundColor", QColor(0, 30, 0));
    button->setProperty("endBackgroundColor", QColor(0, 40, 0, 100));
    button->show();
    return button;
}

} // namespace

void SemiTransparentButtonTest::colours_data()
{
    QTest::addColumn<QColor>("text");
    QTest::addColumn<QColor>("background");
    QTest::addColumn<bool>("below"); // below a parent with a style sheet of its own
    for (const bool below : {false, true}) {
        QTest::addRow("none, below %d", below) << QColor() << QColor() << below;
        QTest::addRow("text, below %d", below) << QColor(5, 6, 7, 8) << QColor() << below;
        QTest::addRow("background, below %d", below) << QColor() << QColor(9, 8, 7) << below;
        QTest::addRow("both, below %d", below) << QColor(5, 6, 7) << QColor(9, 8, 7, 6) << below;
    }
}

void SemiTransparentButtonTest::colours()
{
    QFETCH(const QColor, text);
    QFETCH(const QColor, background);
    QFETCH(const bool, below);
    const auto rgba = [](QColor colour) {
        return QStringLiteral("rgba(%1, %2, %3, %4);")
            .arg(colour.red())
            .arg(colour.green())
            .arg(colour.blue())
            .arg(colour.alpha());
    };
    QString expected = sheet;
    if (text.isValid())
        expected.replace(QStringLiteral("rgba(0, 0, 0, 255);"), rgba(text));
    if (background.isValid())
        expected.replace(QStringLiteral("background-color:rgba(1,2,3,4);"),
                         QStringLiteral("background-color: ") + rgba(background));

    for (const bool sheetFirst : {true, false}) {
        QWidget parent;
        if (below)
            parent.setStyleSheet(QStringLiteral("* { outline: 0; }"));
        auto* button = new SemiTransparentButton(&parent);
        if (sheetFirst)
            button->setStyleSheet(sheet);
        if (text.isValid())
            button->setProperty("textColor", text);
        if (background.isValid())
            button->setProperty("backgroundColor", background);
        if (!sheetFirst)
            button->setStyleSheet(sheet);
        parent.show();
        QCOMPARE(button->styleSheet(), expected);
    }
}

void SemiTransparentButtonTest::hover()
{
    const auto button = animatedButton();
    // Nothing has set the colours yet: they stand as the style sheet has them.
    QCOMPARE(button->styleSheet(), sheet);
    enter(*button);
    QTRY_COMPARE(button->transparency(), 0.9);
    QTRY_COMPARE(button->textColor(), QColor(20, 0, 0));
    QTRY_COMPARE(button->backgroundColor(), QColor(0, 40, 0, 100));
    QVERIFY(button->styleSheet().contains(u"\tcolor: rgba(20, 0, 0, 255);"));
    QVERIFY(button->styleSheet().contains(u"background-color: rgba(0, 40, 0, 100);"));
    QVERIFY(button->styleSheet().contains(u"color: #8C8C8C;"));
    leave(*button);
    QTRY_COMPARE(button->transparency(), 0.5);
    QTRY_COMPARE(button->textColor(), QColor(10, 0, 0));
    QTRY_COMPARE(button->backgroundColor(), QColor(0, 30, 0));

    button->setEnabled(false);
    enter(*button);
    QTest::qWait(0);
    QCOMPARE(button->transparency(), 0.5);
    QCOMPARE(button->textColor(), QColor(10, 0, 0));
}

void SemiTransparentButtonTest::hoverEndsWithTheButton_data()
{
    QTest::addColumn<bool>("hide");
    QTest::newRow("hidden") << true;
    QTest::newRow("disabled") << false;
}

void SemiTransparentButtonTest::hoverEndsWithTheButton()
{
    QFETCH(const bool, hide);
    const auto button = animatedButton();
    enter(*button);
    if (hide)
        button->hide();
    else
        button->setEnabled(false);
    QCOMPARE(button->textColor(), QColor(10, 0, 0));
    QCOMPARE(button->backgroundColor(), QColor(0, 30, 0));
    if (hide)
        QCOMPARE(button->transparency(), 0.5);
}

void SemiTransparentButtonTest::keepsOpacityWhenDisabledUnderMouse()
{
    const auto button = animatedButton();
    enter(*button);
    button->setEnabled(false);
    leave(*button);
    QTRY_COMPARE(button->transparency(), 0.9);
    button->hide();
    QCOMPARE(button->transparency(), 0.9);
}

void SemiTransparentButtonTest::opaqueIsDrawnDirectly()
{
    SemiTransparentButton button;
    const auto* effect = qobject_cast<QGraphicsOpacityEffect*>(button.graphicsEffect());
    QVERIFY(effect);
    QVERIFY(!effect->isEnabled());
    button.setProperty("transparency", 0.25);
    QVERIFY(effect->isEnabled());
    QCOMPARE(effect->opacity(), 0.25);
    // The focus ring is never half transparent.
    button.show();
    button.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&button));
    button.clearFocus();
    button.setFocus(Qt::TabFocusReason);
    QVERIFY(!effect->isEnabled());
    QCOMPARE(button.transparency(), 0.25);
}

void SemiTransparentButtonTest::keysPress_data()
{
    QTest::addColumn<Qt::Key>("key");
    QTest::newRow("space") << Qt::Key_Space;
    QTest::newRow("return") << Qt::Key_Return;
    QTest::newRow("enter") << Qt::Key_Enter;
}

void SemiTransparentButtonTest::keysPress()
{
    QFETCH(const Qt::Key, key);
    SemiTransparentButton button;
    const QSignalSpy clicked(&button, &QPushButton::clicked);
    button.show();
    QTest::keyClick(&button, key);
    QCOMPARE(clicked.size(), 1);
    button.setEnabled(false);
    QTest::keyClick(&button, key);
    QCOMPARE(clicked.size(), 1);
}

QTEST_MAIN(SemiTransparentButtonTest)
#include "semitransparentbuttontest.moc"
