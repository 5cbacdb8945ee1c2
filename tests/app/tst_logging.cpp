#include "app/logging.h"
#include "tests/support/childprogram.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <array>
#include <cstdlib>
#include <ostream>
#include <thread>

class TestLogging : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lines_data();
    void lines();
    void twoThreads();
};

namespace {

const QString logName = QStringLiteral("current.log");
constexpr qsizetype linesPerThread = 1000;

/// Behind an application object that logging was installed for.
template <void (*body)()> int scenario(int& argc, char** argv)
{
    installLogging();
    const QCoreApplication application(argc, argv);
    body();
    return 0;
}

void types()
{
    qDebug() << "one";
    qInfo("two");
    qWarning("three");
    qCritical() << QStringLiteral("четыре");
}

void suddenEnd()
{
    qDebug() << "last words";
    std::_Exit(0);
}

void libraryText()
{
    windowbuf buffer;
    std::ostream stream(&buffer);
    stream << "abc" << '\n' << std::flush;
    if (buffer.sputn("to the end", 2) == 2)
        stream << "counted";
}

void threads()
{
    const auto log = [](char name) {
        for (int i = 0; i < linesPerThread; ++i)
            qDebug().noquote().nospace()
                << name << ' ' << i << ' ' << QString(200, QLatin1Char(name));
    };
    std::thread first(log, 'a');
    std::thread second(log, 'b');
    first.join();
    second.join();
}

int beforeApplication(int& argc, char** argv)
{
    installLogging();
    qDebug() << "early";
    const QCoreApplication application(argc, argv);
    qDebug() << "late";
    return 0;
}

struct LogsAtItsEnd
{
    ~LogsAtItsEnd() { qDebug() << text; }
    const char* text;
};

int staticDestruction(int& argc, char** argv)
{
    installLogging();
    // Made before the first message, so destroyed after whatever the log might destroy.
    static const LogsAtItsEnd last{"after all"};
    const QCoreApplication application(argc, argv);
    qDebug() << "first";
    return 0;
}

QString readLog(const QDir& folder)
{
    QFile file(folder.filePath(logName));
    return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
}

} // namespace

void TestLogging::lines_data()
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<QByteArray>("before"); // null: no file; "folder": one stands in the way
    QTest::addColumn<QString>("after");     // "> " stands for the time of a message
    const QByteArray none;
    QTest::newRow("file is made, every type written")
        << "types" << none
        << "> debug - one\n> info - two\n> warning - three\n> critical - \"четыре\"\n";
    QTest::newRow("appended") << "suddenEnd" << QByteArray("old\n")
                              << "old\n> debug - last words\n";
    QTest::newRow("one line per write of the library")
        << "libraryText" << none
        << "> debug - abc\n> debug - \n\n> debug - to the end\n> debug - counted\n";
    QTest::newRow("folder in its place") << "types" << QByteArray("folder") << "";
    QTest::newRow("before the application")
        << "beforeApplication" << none << "> debug - early\n> debug - late\n";
    QTest::newRow("while statics are destroyed")
        << "staticDestruction" << none << "> debug - first\n> debug - after all\n";
}

void TestLogging::lines()
{
    QFETCH(QString, scenario);
    QFETCH(QByteArray, before);
    QFETCH(QString, after);
    const ChildProgram child;
    if (before == "folder") {
        QVERIFY(child.folder().mkdir(logName));
    } else if (!before.isNull()) {
        QFile file(child.folder().filePath(logName));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(before) == before.size());
    }
    QCOMPARE(child.run(scenario), QByteArray());
    const QRegularExpression time(QStringLiteral("^\\[[^\\]]*\\] - "),
                                  QRegularExpression::MultilineOption);
    const QString logged = readLog(child.folder()).replace(time, QStringLiteral("> "));
    QCOMPARE(logged, after);
}

void TestLogging::twoThreads()
{
    const ChildProgram child;
    QCOMPARE(child.run(QStringLiteral("threads")), QByteArray());
    const QStringList logged = readLog(child.folder()).split(u'\n');
    QCOMPARE(logged.size(), 2 * linesPerThread + 1);
    std::array<int, 2> next{};
    for (const QString& line : logged.first(2 * linesPerThread)) {
        const QString text = line.section(QStringLiteral(" - "), 2);
        const QChar name = text.front();
        QVERIFY2(name == u'a' || name == u'b', qPrintable(line));
        QCOMPARE(text, QStringLiteral("%1 %2 %3")
                           .arg(name)
                           .arg(next[name == u'b' ? 1 : 0]++)
                           .arg(QString(200, name)));
    }
}

static int runTest(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    TestLogging test;
    return QTest::qExec(&test, argc, argv);
}

int main(int argc, char** argv)
{
    return runScenarioOr(runTest,
                         {{"types", scenario<types>},
                          {"suddenEnd", scenario<suddenEnd>},
                          {"libraryText", scenario<libraryText>},
                          {"threads", scenario<threads>},
                          {"beforeApplication", beforeApplication},
                          {"staticDestruction", staticDestruction}},
                         argc, argv);
}

#include "tst_logging.moc"
