#include "app/logging.h"
#include "tests/support/childprogram.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <cstdlib>
#include <ostream>
#include <thread>

class TestLogging : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lines_data();
    void lines();
};

namespace {

const QString logName = QStringLiteral("current.log");
constexpr int linesPerThread = 500;

struct LogsAtItsEnd
{
    ~LogsAtItsEnd() { qDebug() << "after all"; }
};

/// Logs before the application object exists, every type of message, what the library writes, and
/// while statics are destroyed.
int everything(int& argc, char** argv)
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

int suddenEnd(int& argc, char** argv)
{
    installLogging();
    const QCoreApplication application(argc, argv);
    qDebug() << "last words";
    std::_Exit(0);
}

int twoThreads(int& argc, char** argv)
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
    const ChildProgram child;
    QFile file(child.folder().filePath(logName));
    if (before == "folder")
        QVERIFY(child.folder().mkdir(logName));
    else if (!before.isNull())
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(before) == before.size());
    file.close();
    QCOMPARE(child.run(QString::fromLatin1(QTest::currentDataTag())), QByteArray());

    const QString logged =
        file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
    after.replace(QStringLiteral("> "), QStringLiteral("\\[[^]]*\\] - "));
    QVERIFY2(
        QRegularExpression(QRegularExpression::anchoredPattern(after)).match(logged).hasMatch(),
        qPrintable(logged));
}

static int runTest(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    TestLogging test;
    return QTest::qExec(&test, argc, argv);
}

int main(int argc, char** argv)
{
    return runScenarioOr(
        runTest, {{"everything", everything}, {"suddenEnd", suddenEnd}, {"twoThreads", twoThreads}},
        argc, argv);
}

#include "tst_logging.moc"
