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
    void warningFitsItsMessage();
};

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
            dialog.findChild<QPushButton*>(button)->click();
        QVERIFY(!dialog.isVisible());
    });
    ReplyWindow dialog;
    dialog.setReplyText(QStringLiteral("Удалить?"));
    dialog.exec();
    QCOMPARE(dialog.isAccepted(), accepted);
    QCOMPARE(answerer.texts(), QStringList(QStringLiteral("Удалить?")));
}

void DialogsTest::warningFitsItsMessage()
{
    WarningWindow dialog;
    dialog.setErrorText(QStringLiteral("длинное сообщение ").repeated(30));
    const ModalAnswerer answerer([](QDialog& shown) {
        const auto* label = shown.findChild<QLabel*>();
        QVERIFY(label->width() <= 400);
        QVERIFY(label->height() >= label->heightForWidth(label->width()));
        shown.findChild<QPushButton*>(QStringLiteral("secondCloseButton"))->click();
        QVERIFY(!shown.isVisible());
    });
    dialog.exec();
    QCOMPARE(answerer.texts().size(), 1);
}

QTEST_MAIN(DialogsTest)
#include "dialogstest.moc"
