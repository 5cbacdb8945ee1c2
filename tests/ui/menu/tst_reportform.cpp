#include "tests/support/modalanswerer.h"
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
    void initTestCase() { QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs); }
    void init();

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

    const QTemporaryDir m_folder;
    std::unique_ptr<MenuDialog> m_dialog;
};

namespace {

constexpr qint64 limit = 83886080;

QString text(int length)
{
    return QString(length, QChar(0x44f));
}

} // namespace

void ReportFormTest::init()
{
    m_dialog = std::make_unique<MenuDialog>();
    m_dialog->show();
    QVERIFY(m_dialog->switchToPage(1));
}

QString ReportFormTest::file(const QString& name, qint64 size) const
{
    QFile created(m_folder.filePath(name));
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

void ReportFormTest::limits()
{
    const QString subjectLength = QStringLiteral(
        "Длина заголовка не может быть меньше 10 символов и не может превышать 100 символов!");
    const QString bodyLength = QStringLiteral("Описание не может быть меньше, чем 50 символов, а "
                                              "также не должно превышать 1000 символов!");
    const auto refusal = [](int subject, int body) {
        return reportRefusal(text(subject), text(body)).value_or(QString());
    };
    QCOMPARE(refusal(0, 0), QStringLiteral("Заголовок ошибки не может быть пустым!"));
    QCOMPARE(refusal(9, 0), subjectLength);
    QCOMPARE(refusal(101, 50), subjectLength);
    QCOMPARE(refusal(10, 0),
             QStringLiteral("Описание ошибки не может быть пустым! Постарайтесь описать её "
                            "настолько подробно, насколько возможно."));
    QCOMPARE(refusal(10, 49), bodyLength);
    QCOMPARE(refusal(100, 1001), bodyLength);
    QCOMPARE(refusal(10, 50), QString());
    QCOMPARE(refusal(100, 1000), QString());
    QVERIFY(!reportRefusal(QString(10, u' '), QString(50, u' ')));
}

void ReportFormTest::oversizedFiles_data()
{
    // Named by the files: capital letters are too large, "x" is missing.
    QTest::addColumn<QString>("left");
    QTest::newRow("AbCd") << "bd";
    QTest::newRow("ABc") << "Bc"; // the second in a row escapes
    QTest::newRow("aBC") << "a";  // the last is looked at again
    QTest::newRow("ABCDE") << "";
    QTest::newRow("xA") << "x";
}

void ReportFormTest::oversizedFiles()
{
    const QString files = QString::fromLatin1(QTest::currentDataTag());
    QStringList paths;
    for (const QChar name : files)
        paths << (name == u'x' ? m_folder.filePath(name)
                               : file(name, name.isUpper() ? limit + 1 : limit));
    const int removed = removeOversizedFiles(paths);
    QString left;
    for (const QString& path : std::as_const(paths))
        left += path.back();
    QTEST(left, "left");
    QCOMPARE(removed, files.size() - left.size());
}

void ReportFormTest::attaching()
{
    const auto* status = child<QLabel>("reportStatusLabel");
    const int height = m_dialog->height();
    const auto verifyStatus = [&](const char* text) {
        QCOMPARE(status->isVisible() ? status->text() : QString(), QString::fromUtf8(text));
        // The dialog makes room at once and stays fixed.
        QCOMPARE(m_dialog->height() > height, *text != '\0');
        QCOMPARE(m_dialog->minimumSize(), m_dialog->maximumSize());
    };
    const QString small = file(QStringLiteral("small"), 1);
    QStringList six;
    for (int i = 0; i < 6; ++i)
        six << file(QString::number(i), 1);
    choose(six);
    verifyStatus("Возможно прикрепить не более 5 файлов.");
    choose({});
    verifyStatus(""); // nothing is attached
    choose({small, file(QStringLiteral("other"), limit)});
    verifyStatus("Было прикреплено 2 файла (-ов).");
    choose({file(QStringLiteral("large"), limit + 1), small});
    verifyStatus("Максимальный размер файла 10 МБ. 1 файлов было откреплено.");
    choose({});
    verifyStatus("Максимальный размер файла 10 МБ. 1 файлов было откреплено.");
}

void ReportFormTest::sending()
{
    QSignalSpy warned(m_dialog.get(), &MenuDialog::warningWindowRequested);
    auto* subject = child<QTextEdit>("reportHeaderTextEdit");
    auto* body = child<QTextEdit>("reportBodyTextEdit");
    const auto send = [&] {
        child<QPushButton>("sendReportButton")->click();
        return warned.takeFirst().first().toString();
    };
    QCOMPARE(send(), QStringLiteral("Заголовок ошибки не может быть пустым!"));

    subject->setPlainText(text(10));
    body->setPlainText(text(50));
    const QString attached = file(QStringLiteral("attached"), 1);
    choose({attached});
    QVERIFY(QFile::remove(attached)); // after it was chosen: the report goes without it
    // Nobody listens.
    QCOMPARE(send(), QStringLiteral("Не удалось отправить сообщение об ошибке. Проверьте "
                                    "подключение к интернету или повторите попытку позже."));
    QCOMPARE(subject->toPlainText(), text(10));
    QVERIFY(child<QLabel>("reportStatusLabel")->isVisible());

    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost, 52800));
    QCOMPARE(send(), QStringLiteral("Ваше сообщение было успешно отправлено команде разработчиков. "
                                    "Мы постараемся решить проблему как можно скорее."));
    QCOMPARE(subject->toPlainText(), QString());
    QCOMPARE(body->toPlainText(), QString());
    QVERIFY(child<QLabel>("reportStatusLabel")->isHidden());
    choose({});
    QVERIFY(child<QLabel>("reportStatusLabel")->isHidden()); // the attachments are gone, too
}

QTEST_MAIN(ReportFormTest)
#include "tst_reportform.moc"
