#include "ui/widgets/semitransparentbutton.h"

#include <QEnterEvent>
#include <QTest>

/// Properties as a form sets them, and what the mouse does.
class SemiTransparentButtonTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void colours();
    void hover();
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

} // namespace

void SemiTransparentButtonTest::colours()
{
    QString expected = sheet;
    expected.replace(QStringLiteral("rgba(0, 0, 0, 255);"), QStringLiteral("rgba(5, 6, 7, 8);"));
    expected.replace(QStringLiteral("background-color:rgba(1,2,3,4);"),
                     QStringLiteral("background-color: rgba(9, 8, 7, 6);"));
    // A form may set the properties in any order: the style sheet comes at step `sheetAt`.
    for (const int sheetAt : {0, 1, 2}) {
        SemiTransparentButton button;
        if (sheetAt == 0)
            button.setStyleSheet(sheet);
        button.setProperty("textColor", QColor(5, 6, 7, 8));
        if (sheetAt == 1)
            button.setStyleSheet(sheet);
        button.setProperty("backgroundColor", QColor(9, 8, 7, 6));
        if (sheetAt == 2)
            button.setStyleSheet(sheet);
        button.show();
        QCOMPARE(button.styleSheet(), expected);
    }
}

void SemiTransparentButtonTest::hover()
{
    SemiTransparentButton button;
    button.setStyleSheet(sheet);
    button.animateTransparency(0.5, 0.9);
    button.setProperty("bAnimateTextColor", true);
    button.setProperty("startTextColor", QColor(10, 0, 0));
    button.setProperty("endTextColor", QColor(20, 0, 0));
    button.show();
    // Nothing has set the colour yet: it stands as the style sheet has it.
    QCOMPARE(button.styleSheet(), sheet);
    enter(button);
    QTRY_COMPARE(button.transparency(), 0.9);
    QTRY_COMPARE(button.textColor(), QColor(20, 0, 0));
    QVERIFY(button.styleSheet().contains(u"color: #8C8C8C;"));
    QEvent leave(QEvent::Leave);
    QCoreApplication::sendEvent(&button, &leave);
    QTRY_COMPARE(button.transparency(), 0.5);
    QTRY_COMPARE(button.textColor(), QColor(10, 0, 0));

    button.setEnabled(false);
    enter(button);
    QTest::qWait(0);
    QCOMPARE(button.transparency(), 0.5);
    QCOMPARE(button.textColor(), QColor(10, 0, 0));
}

QTEST_MAIN(SemiTransparentButtonTest)
#include "semitransparentbuttontest.moc"
