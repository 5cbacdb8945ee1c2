#include "tests/support/modalanswerer.h"
#include "tests/support/scriptedvl.h"
#include "ui/menu/menudialog.h"
#include "ui/menu/reportrules.h"

#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QTextEdit>

#include <memory>

/// The bug report page and the rules that it applies.
class ReportFormTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void limits_data();
    void limits();
    void oversizedFiles_data();
    void oversizedFiles();
    void attaching();
    void sending();

private:
    /// A file of that size, which takes no room on the disk.
    QString file(const QString& name, qint64 size) const;
    void choose(const QStringList& files);
    template <class T> T* child(const char* name) const
    {
        return m_dialog->findChild<T*>(QLatin1String(name));
    }

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<MenuDialog> m_dialog;
};

namespace {

constexpr qint64 limit = 83886080;

QString text(int length)
{
    return QString(length, QChar(0x44f));
}

} // namespace

void ReportFormTest::initTestCase()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
}

void ReportFormTest::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_dialog = std::make_unique<MenuDialog>();
    m_dialog->show();
    QVERIFY(m_dialog->switchToPage(1));
}

QString ReportFormTest::file(const QString& name, qint64 size) const
{
    QFile created(m_folder->filePath(name));
    if (!created.open(QIODevice::WriteOnly) || !created.resize(size))
        qFatal("No test file could be made");
    return created.fileName();
}

void ReportFormTest::choose(const QStringList& files)
{
    ModalAnswerer answerer([&](QDialog& dialog) {
        if (files.isEmpty()) {
            dialog.reject();
            return;
        }
        dialog.findChild<QLineEdit*>(QStringLiteral("fileNameEdit"))
            ->setText(QLatin1Char('"') + files.join(QLatin1String("\" \"")) + QLatin1Char('"'));
        dialog.accept();
    });
    child<QPushButton>("attachFileButton")->click();
}

void ReportFormTest::limits_data()
{
    QTest::addColumn<QString>("subject");
    QTest::addColumn<QString>("body");
    QTest::addColumn<QString>("refusal");

    const QString noSubject = QStringLiteral("Заголовок ошибки не может быть пустым!");
    const QString subjectLength = QStringLiteral(
        "Длина заголовка не может быть меньше 10 символов и не может превышать 100 символов!");
    const QString noBody =
        QStringLiteral("Описание ошибки не может быть пустым! Постарайтесь описать её настолько "
                       "подробно, насколько возможно.");
    const QString bodyLength = QStringLiteral("Описание не может быть меньше, чем 50 символов, а "
                                              "также не должно превышать 1000 символов!");
    const auto row = [](const char* name, int subject, int body, const QString& refusal) {
        QTest::newRow(name) << text(subject) << text(body) << refusal;
    };
    row("both empty", 0, 0, noSubject);
    row("subject 9", 9, 0, subjectLength);
    row("subject 101", 101, 50, subjectLength);
    row("body empty", 10, 0, noBody);
    row("body 49", 10, 49, bodyLength);
    row("body 1001", 100, 1001, bodyLength);
    row("shortest", 10, 50, QString());
    row("longest", 100, 1000, QString());
}

void ReportFormTest::limits()
{
    QFETCH(QString, subject);
    QFETCH(QString, body);
    QTEST(reportRefusal(subject, body).value_or(QString()), "refusal");
}

void ReportFormTest::oversizedFiles_data()
{
    QTest::addColumn<QString>("files"); // capital letters are too large, "x" is missing
    QTest::addColumn<QString>("left");
    QTest::addColumn<int>("removed");

    const auto row = [](const char* name, const QString& files, const QString& left, int removed) {
        QTest::newRow(name) << files << left << removed;
    };
    row("apart", QStringLiteral("AbCd"), QStringLiteral("bd"), 2);
    row("the second in a row escapes", QStringLiteral("ABc"), QStringLiteral("Bc"), 1);
    row("the last is looked at again", QStringLiteral("aBC"), QStringLiteral("a"), 2);
    row("five", QStringLiteral("ABCDE"), QString(), 5);
    row("missing stays", QStringLiteral("xA"), QStringLiteral("x"), 1);
}

void ReportFormTest::oversizedFiles()
{
    QFETCH(QString, files);
    QFETCH(int, removed);
    QStringList paths;
    for (const QChar name : std::as_const(files))
        paths << (name == QLatin1Char('x') ? m_folder->filePath(name)
                                           : file(name, name.isUpper() ? limit + 1 : limit));
    QCOMPARE(removeOversizedFiles(paths), removed);
    QString left;
    for (const QString& path : std::as_const(paths))
        left += path.back();
    QTEST(left, "left");
}

void ReportFormTest::attaching()
{
    auto* status = child<QLabel>("reportStatusLabel");
    const QString small = file(QStringLiteral("small"), 1);
    QStringList six;
    for (int i = 0; i < 6; ++i)
        six << file(QString::number(i), 1);
    choose(six);
    QCOMPARE(status->text(), QStringLiteral("Возможно прикрепить не более 5 файлов."));
    QVERIFY(status->isVisible());
    choose({});
    QVERIFY(status->isHidden()); // nothing is attached

    choose({small, file(QStringLiteral("other"), limit)});
    QCOMPARE(status->text(), QStringLiteral("Было прикреплено 2 файла (-ов)."));
    choose({file(QStringLiteral("large"), limit + 1), small});
    QCOMPARE(status->text(),
             QStringLiteral("Максимальный размер файла 10 МБ. 1 файлов было откреплено."));
}

void ReportFormTest::sending()
{
    QSignalSpy warned(m_dialog.get(), &MenuDialog::warningWindowRequested);
    auto* subject = child<QTextEdit>("reportHeaderTextEdit");
    auto* body = child<QTextEdit>("reportBodyTextEdit");
    auto* send = child<QPushButton>("sendReportButton");
    auto* status = child<QLabel>("reportStatusLabel");

    send->click();
    QCOMPARE(warned.takeFirst().first().toString(),
             QStringLiteral("Заголовок ошибки не может быть пустым!"));

    subject->setPlainText(text(10));
    body->setPlainText(text(50));
    const QString attached = file(QStringLiteral("attached"), 1);
    choose({attached});
    send->click(); // nobody listens
    QCOMPARE(warned.takeFirst().first().toString(),
             QStringLiteral("Не удалось отправить сообщение об ошибке. Проверьте подключение к "
                            "интернету или повторите попытку позже."));
    QCOMPARE(subject->toPlainText(), text(10));
    QVERIFY(status->isVisible());

    QVERIFY(QFile::remove(attached)); // after it was chosen: the report goes without it
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost, 52800));
    send->click();
    QCOMPARE(warned.takeFirst().first().toString(),
             QStringLiteral("Ваше сообщение было успешно отправлено команде разработчиков. Мы "
                            "постараемся решить проблему как можно скорее."));
    QCOMPARE(subject->toPlainText(), QString());
    QCOMPARE(body->toPlainText(), QString());
    QVERIFY(status->isHidden());
    choose({});
    QVERIFY(status->isHidden()); // the attachments are gone, too
}

QTEST_MAIN(ReportFormTest)
#include "tst_reportform.moc"
