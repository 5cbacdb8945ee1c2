#include "tests/support/modalanswerer.h"
#include "ui/widgets/replywindow.h"
#include "ui/widgets/resources.h"
#include "ui/widgets/warningwindow.h"

#include <QLabel>
#include <QPushButton>
#include <QTest>

/// The confirmation and the warning dialog.
class DialogsTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void staysAboveWithoutFrame();
    void answer_data();
    void answer();
    void refusesEmptyQuestion();
    void warningFitsItsMessage_data();
    void warningFitsItsMessage();
    void dragging_data();
    void dragging();
    void leavesOneColourToItsDefault();
};

namespace {

void click(const QDialog& dialog, const QString& button)
{
    dialog.findChild<QPushButton*>(button)->click();
}

} // namespace

void DialogsTest::initTestCase()
{
    QApplication::setStyle(QStringLiteral("windows"));
    loadResources();
}

void DialogsTest::staysAboveWithoutFrame()
{
    const auto expected = Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint;
    QCOMPARE(ReplyWindow().windowFlags(), expected);
    QCOMPARE(WarningWindow().windowFlags(), expected);
    QCOMPARE(ReplyWindow().size(), QSize(302, 113));
    QCOMPARE(WarningWindow().size(), QSize(300, 158));
}

void DialogsTest::answer_data()
{
    QTest::addColumn<QString>("button");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("accept") << QStringLiteral("acceptButton") << true;
    QTest::newRow("decline") << QStringLiteral("declineButton") << false;
    QTest::newRow("cross") << QStringLiteral("closeButton") << false;
    QTest::newRow("escape") << QString() << false;
}

void DialogsTest::answer()
{
    QFETCH(const QString, button);
    QFETCH(const bool, accepted);
    ModalAnswerer answerer([&](QDialog& dialog) {
        if (button.isEmpty())
            QTest::keyClick(&dialog, Qt::Key_Escape);
        else
            click(dialog, button);
        QVERIFY(!dialog.isVisible());
    });
    ReplyWindow dialog;
    dialog.setReplyText(QStringLiteral("Удалить?"));
    dialog.exec();
    QCOMPARE(dialog.isAccepted(), accepted);
    QCOMPARE(answerer.texts(), QStringList(QStringLiteral("Удалить?")));
}

void DialogsTest::refusesEmptyQuestion()
{
    ReplyWindow dialog;
    QTest::ignoreMessage(QtDebugMsg, "Attempting to set an empty reply text!");
    dialog.setReplyText({});
    QCOMPARE(dialog.findChild<QLabel*>()->text(), QStringLiteral("TextLabel"));
}

void DialogsTest::warningFitsItsMessage_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("button");
    QTest::newRow("none") << QString() << QStringLiteral("closeButton");
    QTest::newRow("two lines") << QStringLiteral("Произошла ошибка\nпри установке симулятора")
                               << QStringLiteral("secondCloseButton");
    QTest::newRow("many lines") << QStringLiteral("длинное сообщение ").repeated(30)
                                << QStringLiteral("secondCloseButton");
}

void DialogsTest::warningFitsItsMessage()
{
    QFETCH(const QString, text);
    QFETCH(const QString, button);
    WarningWindow dialog;
    ModalAnswerer answerer([&](QDialog& shown) {
        const auto* label = shown.findChild<QLabel*>();
        QCOMPARE(label->text(), text);
        QVERIFY(label->width() <= 400);
        QVERIFY(label->height() >= label->heightForWidth(label->width()));
        QCOMPARE(shown.minimumSize(), shown.size());
        QCOMPARE(shown.maximumSize(), shown.size());
        click(shown, button);
        QVERIFY(!shown.isVisible());
    });
    dialog.setErrorText(text);
    dialog.exec();
    QCOMPARE(answerer.texts().size(), 1);
}

void DialogsTest::dragging_data()
{
    QTest::addColumn<bool>("question");
    QTest::addColumn<Qt::MouseButton>("button");
    QTest::addColumn<QPoint>("moved");
    QTest::newRow("question, left") << true << Qt::LeftButton << QPoint(30, 40);
    QTest::newRow("question, right") << true << Qt::RightButton << QPoint();
    QTest::newRow("warning") << false << Qt::LeftButton << QPoint();
}

void DialogsTest::dragging()
{
    QFETCH(const bool, question);
    QFETCH(const Qt::MouseButton, button);
    ReplyWindow reply;
    WarningWindow warning;
    QDialog& dialog = question ? static_cast<QDialog&>(reply) : warning;
    dialog.move(100, 100);
    dialog.show();
    const QPoint start = dialog.pos();
    QTest::mousePress(&dialog, button, {}, QPoint(5, 40));
    QMouseEvent move(QEvent::MouseMove, QPointF(35, 80), dialog.mapToGlobal(QPointF(35, 80)),
                     Qt::NoButton, button, {});
    QCoreApplication::sendEvent(&dialog, &move);
    QTest::mouseRelease(&dialog, button);
    QTEST(dialog.pos() - start, "moved");
}

void DialogsTest::leavesOneColourToItsDefault()
{
    // Whichever colour that is, the label must come back to black after the mouse was there.
    ReplyWindow dialog;
    dialog.show();
    for (const char* name : {"acceptButton", "declineButton"}) {
        auto* button = dialog.findChild<QPushButton*>(QLatin1String(name));
        QEnterEvent enter(QPointF(5, 5), QPointF(5, 5), QPointF(5, 5));
        QCoreApplication::sendEvent(button, &enter);
        QTRY_COMPARE(button->property("textColor").value<QColor>(), QColor(Qt::white));
        QEvent leave(QEvent::Leave);
        QCoreApplication::sendEvent(button, &leave);
        QTRY_COMPARE(button->property("textColor").value<QColor>(), QColor(Qt::black));
    }
}

QTEST_MAIN(DialogsTest)
#include "dialogstest.moc"
