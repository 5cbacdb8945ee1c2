#include "app/logging.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <cstdlib>
#include <map>
#include <ostream>
#include <string>
#include <thread>

/// Each row runs its scenario in a process of its own: a copy of this program in a new folder with
/// a Cyrillic name, which is that process's application directory.
class TestLogging : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lines_data();
    void lines();
};

namespace {

constexpr int linesPerThread = 500;

struct LogsAtItsEnd
{
    ~LogsAtItsEnd() { qDebug() << "after all"; }
};

/// Logs before the application object exists, every type of message, what the library writes, and
/// while statics are destroyed.
int everything(int argc, char** argv)
{
    installLogging();
    // Made before the first message, so destroyed after whatever the log might destroy.
    static const LogsAtItsEnd last;
    qDebug() << "early";
    const QCoreApplication application(argc, argv);
    qInfo("two");
    qWarning("three");
    qCritical() << QStringLiteral("четыре");
    windowbuf buffer;
    std::ostream stream(&buffer);
    stream << "abc" << '\n' << std::flush;
    if (buffer.sputn("to the end", 2) == 2)
        stream << "counted";
    return 0;
}

int suddenEnd(int argc, char** argv)
{
    installLogging();
    const QCoreApplication application(argc, argv);
    qDebug() << "last words";
    std::_Exit(0);
}

int twoThreads(int argc, char** argv)
{
    installLogging();
    const QCoreApplication application(argc, argv);
    const auto log = [](char name) {
        for (int i = 0; i < linesPerThread; ++i)
            qDebug().noquote() << QString(200, QLatin1Char(name));
    };
    std::thread first(log, 'a');
    log('b');
    first.join();
    return 0;
}

} // namespace

void TestLogging::lines_data()
{
    QTest::addColumn<QByteArray>("before"); // null: no file; "folder": one stands in the way
    QTest::addColumn<QString>("after"); // a pattern, in which "> " stands for the time of a message
    QTest::newRow("everything") << QByteArray()
                                << "> debug - early\n> info - two\n> warning - three\n"
                                   "> critical - \"четыре\"\n> debug - abc\n> debug - \n\n"
                                   "> debug - to the end\n> debug - counted\n> debug - after all\n";
    QTest::newRow("suddenEnd") << QByteArray("old\n") << "old\n> debug - last words\n";
    // No line is lost, torn or mixed with another.
    QTest::newRow("twoThreads") << QByteArray()
                                << QStringLiteral(
                                       "(?=([^\n]*\n){%1}\\z)(> debug - ([ab])\\3{199}\n)*")
                                       .arg(2 * linesPerThread);
    QTest::newRow("everything") << QByteArray("folder") << "";
}

void TestLogging::lines()
{
    QFETCH(QByteArray, before);
    QFETCH(QString, after);
    const QTemporaryDir folder(QDir::temp().filePath(QStringLiteral("папка XXXXXX")));
    const QString original = QCoreApplication::applicationFilePath();
    const QString program = folder.filePath(QFileInfo(original).fileName());
    QVERIFY(QFile::copy(original, program));
    QFile file(folder.filePath(QStringLiteral("current.log")));
    if (before == "folder")
        QVERIFY(QDir().mkdir(file.fileName()));
    else if (!before.isNull())
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(before) == before.size());
    file.close();
    QCOMPARE(QProcess::execute(program, {QString::fromLatin1(QTest::currentDataTag())}), 0);

    const QString logged = file.open(QIODevice::ReadOnly | QIODevice::Text)
                               ? QString::fromLocal8Bit(file.readAll())
                               : QString();
    after.replace(QStringLiteral("> "), QStringLiteral("\\[[^]]*\\] - "));
    // As the local encoding has it.
    const QString cyrillic = QStringLiteral("четыре");
    after.replace(cyrillic,
                  QRegularExpression::escape(QString::fromLocal8Bit(cyrillic.toLocal8Bit())));
    QVERIFY2(
        QRegularExpression(QRegularExpression::anchoredPattern(after)).match(logged).hasMatch(),
        qPrintable(logged));
}

int main(int argc, char** argv)
{
    const std::map<std::string, int (*)(int, char**)> scenarios{
        {"everything", everything}, {"suddenEnd", suddenEnd}, {"twoThreads", twoThreads}};
    if (argc == 2 && scenarios.contains(argv[1]))
        return scenarios.at(argv[1])(argc, argv);
    QCoreApplication application(argc, argv);
    TestLogging test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_logging.moc"
