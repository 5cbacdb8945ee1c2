#include "bugreport/bugreport.h"
#include "tools/report-collector/collectorserver.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

constexpr quint16 port = 52800;

/// The lowest `bytes` bytes of `number`, the highest of them first.
QByteArray bigEndian(qsizetype number, int bytes)
{
    QByteArray result;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        result.append(static_cast<char>(number >> shift));
    return result;
}

QByteArray field(const QByteArray& bytes)
{
    return bigEndian(bytes.size(), 4) + bytes;
}

/// What the sender says about this computer.
QByteArray machineFields()
{
    const QByteArray id = QSysInfo::machineUniqueId();
    return field(QSysInfo::kernelType().toUtf8() + ' ' + QSysInfo::kernelVersion().toUtf8()) +
           field(QSysInfo::currentCpuArchitecture().toUtf8()) +
           (id.isNull() ? QByteArray("\xff\xff\xff\xff") : field(id));
}

/// The message whose part after the total size is `tail`; the size counts its own 8 bytes.
QByteArray withTotalSize(const QByteArray& tail)
{
    return bigEndian(8 + tail.size(), 8) + tail;
}

/// Takes a limited number of bytes per write, and in all.
class NarrowDevice final : public QIODevice
{
public:
    NarrowDevice(qint64 perWrite, qint64 room, qint64 answerWhenFull)
        : m_perWrite(perWrite), m_room(room), m_answerWhenFull(answerWhenFull)
    {
        open(QIODevice::WriteOnly | QIODevice::Unbuffered);
    }

    QByteArray received;

protected:
    qint64 readData(char* /*data*/, qint64 /*size*/) override { return -1; }
    qint64 writeData(const char* data, qint64 size) override
    {
        const qint64 taken = qMin(size, qMin(m_perWrite, m_room - received.size()));
        received.append(data, taken);
        return taken > 0 ? taken : m_answerWhenFull;
    }

private:
    qint64 m_perWrite;
    qint64 m_room;
    qint64 m_answerWhenFull;
};

} // namespace

class BugReportTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void message_data();
    void message();
    void reportLargerThanTheSocketBuffersArrives();
    void reportIsCollected();
    void noListener();
    void listenerThatClosesEarly();
    void writeAll_data();
    void writeAll();

private:
    QString file(const QString& name, const QByteArray& contents) const;
    /// Everything that the only connection to `server` brings.
    static QByteArray receive(QTcpServer& server);

    std::unique_ptr<QTemporaryDir> m_folder;
};

void BugReportTest::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QVERIFY(m_folder->isValid());
}

QString BugReportTest::file(const QString& name, const QByteArray& contents) const
{
    QFile created(m_folder->filePath(name));
    if (!created.open(QIODevice::WriteOnly) || created.write(contents) != contents.size())
        qFatal("No test file could be written");
    return created.fileName();
}

QByteArray BugReportTest::receive(QTcpServer& server)
{
    if (!server.hasPendingConnections() && !server.waitForNewConnection(5000))
        return {};
    const std::unique_ptr<QTcpSocket> connection(server.nextPendingConnection());
    QSignalSpy ended(connection.get(), &QTcpSocket::disconnected);
    if (connection->state() == QTcpSocket::ConnectedState)
        ended.wait(30000);
    return connection->readAll();
}

void BugReportTest::message_data()
{
    QTest::addColumn<QStringList>("files"); // "name=contents"; without "=" the file is not there
    QTest::addColumn<QByteArray>("countByte");
    QTest::addColumn<QByteArray>("attachments");

    QTest::newRow("no attachments") << QStringList() << QByteArray("\0", 1) << QByteArray();
    QTest::newRow("one") << QStringList{QStringLiteral("a.png=\x01\x02")} << QByteArray("\x01")
                         << QByteArray("\0\0\0\x05"
                                       "a.png"
                                       "\0\0\0\x02"
                                       "\x01\x02",
                                       15);
    QTest::newRow("in their order, one empty, one in Cyrillic")
        << QStringList{QStringLiteral("z=1"), QStringLiteral("ёж.txt=")} << QByteArray("\x02")
        << QByteArray("\0\0\0\x01"
                      "z"
                      "\0\0\0\x01"
                      "1"
                      "\0\0\0\x08"
                      "\xd1\x91\xd0\xb6.txt" // "ёж.txt" in UTF-8
                      "\xff\xff\xff\xff",    // an empty file reads as a null array
                      26);
    QTest::newRow("one of two cannot be opened")
        << QStringList{QStringLiteral("missing"), QStringLiteral("b=2")} << QByteArray("\x01")
        << QByteArray("\0\0\0\x01"
                      "b"
                      "\0\0\0\x01"
                      "2",
                      10);
    QTest::newRow("none can be opened, one is a folder")
        << QStringList{QStringLiteral("missing"), QStringLiteral(".")} << QByteArray("\0", 1)
        << QByteArray();
}

void BugReportTest::message()
{
    QFETCH(QStringList, files);
    QFETCH(QByteArray, countByte);
    QFETCH(QByteArray, attachments);

    BugReport report{QStringLiteral("Тема"), QStringLiteral("It fails."), {}};
    for (const QString& entry : std::as_const(files)) {
        const qsizetype separator = entry.indexOf(QLatin1Char('='));
        if (separator < 0) {
            QTest::ignoreMessage(QtDebugMsg, "Can't open attached file!");
            report.attachedFiles << m_folder->filePath(entry);
        } else {
            report.attachedFiles << file(entry.left(separator), entry.mid(separator + 1).toUtf8());
        }
    }
    const QByteArray tail = countByte +
                            QByteArray("\0\0\0\x08"                       // subject: 8 bytes
                                       "\xd0\xa2\xd0\xb5\xd0\xbc\xd0\xb0" // "Тема" in UTF-8
                                       "\0\0\0\x09"                       // body: 9 bytes
                                       "It fails.",
                                       25) +
                            machineFields() + attachments;

    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost, port));
    QVERIFY(sendBugReport(report));
    QCOMPARE(receive(server), withTotalSize(tail));
}

void BugReportTest::reportLargerThanTheSocketBuffersArrives()
{
    // Nothing is read before the sender has returned, so most of it has to leave afterwards.
    const QByteArray contents(24 * 1024 * 1024, 'v');
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost, port));
    QVERIFY(sendBugReport({QStringLiteral("subject"),
                           QStringLiteral("body"),
                           {file(QStringLiteral("large"), contents)}}));
    const QByteArray received = receive(server);
    QVERIFY(received.endsWith(QByteArray(field("large") + field(contents))));
    QCOMPARE(received.left(8), bigEndian(received.size(), 8));
}

void BugReportTest::reportIsCollected()
{
    const QDir reports(m_folder->filePath(QStringLiteral("reports")));
    QVERIFY(reports.mkpath(QStringLiteral(".")));
    CollectorServer collector(reports, std::chrono::minutes(1));
    QVERIFY(collector.listen(port));
    QSignalSpy stored(&collector, &CollectorServer::reportStored);

    // A path without "/" is taken relative to the working directory and is the whole name.
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_folder->path()));
    file(QStringLiteral("снимок.png"), "pixels");
    const bool sent = sendBugReport(
        {QStringLiteral("Тема"), QStringLiteral("Описание"), {QStringLiteral("снимок.png")}});
    QVERIFY(QDir::setCurrent(previous));
    QVERIFY(sent);
    QVERIFY(stored.wait());

    const QDir report(stored.first().first().toString());
    QFile attachment(report.filePath(QStringLiteral("снимок.png")));
    QVERIFY(attachment.open(QIODevice::ReadOnly));
    QCOMPARE(attachment.readAll(), QByteArray("pixels"));
    QFile texts(report.filePath(QStringLiteral("report.json")));
    QVERIFY(texts.open(QIODevice::ReadOnly));
    const QJsonObject json = QJsonDocument::fromJson(texts.readAll()).object();
    QCOMPARE(json.value(QLatin1String("subject")).toString(), QStringLiteral("Тема"));
    QCOMPARE(json.value(QLatin1String("body")).toString(), QStringLiteral("Описание"));
    QCOMPARE(json.value(QLatin1String("cpuArchitecture")).toString(),
             QSysInfo::currentCpuArchitecture());
}

void BugReportTest::noListener()
{
    QTest::ignoreMessage(QtDebugMsg, "Failed to connect to a remote host while sending bugreport!");
    QVERIFY(!sendBugReport({QStringLiteral("subject"), QStringLiteral("body"), {}}));
}

void BugReportTest::listenerThatClosesEarly()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost, port));
    const QString large = file(QStringLiteral("large"), QByteArray(8 * 1024 * 1024, 'v'));
    QVERIFY(sendBugReport({QStringLiteral("subject"), QStringLiteral("body"), {large}}));
    QVERIFY(server.waitForNewConnection(5000));
    const std::unique_ptr<QTcpSocket> connection(server.nextPendingConnection());
    connection->abort();
    // The sender's socket meets the reset in the event loop and takes itself away; the next
    // report is not affected.
    QVERIFY(sendBugReport({QStringLiteral("subject"), QStringLiteral("body"), {}}));
    QVERIFY(receive(server).contains("subject"));
}

void BugReportTest::writeAll_data()
{
    QTest::addColumn<qint64>("perWrite");
    QTest::addColumn<qint64>("room");
    QTest::addColumn<qint64>("answerWhenFull");
    QTest::addColumn<QByteArray>("received");

    QTest::newRow("at once") << 100LL << 100LL << 0LL << QByteArray("0123456789");
    QTest::newRow("short writes") << 3LL << 100LL << 0LL << QByteArray("0123456789");
    QTest::newRow("nothing taken") << 3LL << 0LL << 0LL << QByteArray();
    QTest::newRow("then nothing taken") << 3LL << 6LL << 0LL << QByteArray("012345");
    QTest::newRow("then an error") << 3LL << 6LL << -1LL << QByteArray("012345");
}

void BugReportTest::writeAll()
{
    QFETCH(qint64, perWrite);
    QFETCH(qint64, room);
    QFETCH(qint64, answerWhenFull);
    NarrowDevice device(perWrite, room, answerWhenFull);
    ::writeAll(device, "0123456789");
    QTEST(device.received, "received");
}

QTEST_GUILESS_MAIN(BugReportTest)
#include "tst_bugreport.moc"
