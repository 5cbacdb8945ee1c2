#include "bugreport/bugreport.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QSysInfo>
#include <QTcpServer>
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
    return (bytes.isNull() ? QByteArray(4, '\xff') : bigEndian(bytes.size(), 4)) + bytes;
}

} // namespace

class BugReportTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(QDir::setCurrent(m_folder.path())); }
    void cleanupTestCase() { QDir::setCurrent(QDir::rootPath()); }
    void message_data();
    void message();
    void noListenerAndOneThatClosesEarly();

private:
    QString file(const QString& name, const QByteArray& contents) const;
    /// Everything that the only connection to `server` brings.
    static QByteArray receive(QTcpServer& server);

    const QTemporaryDir m_folder;
};

QString BugReportTest::file(const QString& name, const QByteArray& contents) const
{
    QFile created(m_folder.filePath(name));
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
    QTest::addColumn<QString>("files"); // "name=contents"; without "=" the file is not there
    QTest::addColumn<QByteArray>("attachments");

    const auto row = [](const char* name, const char* files, const QByteArray& attachments) {
        QTest::newRow(name) << QString::fromUtf8(files) << attachments;
    };
    row("no attachments", "", {});
    row("no slash in the path", "bare=12", QByteArray("\0\0\0\4bare\0\0\0\00212", 14));
    // An empty file reads as a null array.
    row("in their order, one empty, one in Cyrillic", "z=1 ёж.txt=",
        field("z") + field("1") + field("\xd1\x91\xd0\xb6.txt") + "\xff\xff\xff\xff");
    row("one of two cannot be opened", "missing b=2", field("b") + field("2"));
    row("none can be opened, one is a folder", "missing .", {});
}

void BugReportTest::message()
{
    QFETCH(QString, files);
    QFETCH(QByteArray, attachments);

    BugReport report{QStringLiteral("Тема"), QStringLiteral("It fails."), {}};
    for (const QString& entry : files.split(u' ', Qt::SkipEmptyParts)) {
        const QString name = entry.section(u'=', 0, 0);
        if (entry == name)
            QTest::ignoreMessage(QtDebugMsg, "Can't open attached file!");
        else
            file(name, entry.section(u'=', 1).toUtf8());
        // A path without "/" is the whole name, relative to the working directory.
        report.attachedFiles << (name == u"bare" ? name : m_folder.filePath(name));
    }
    const QByteArray tail =
        bigEndian(files.count(u'='), 1) +
        QByteArray("\0\0\0\x08"                       // subject: 8 bytes
                   "\xd0\xa2\xd0\xb5\xd0\xbc\xd0\xb0" // "Тема" in UTF-8
                   "\0\0\0\x09"                       // body: 9 bytes
                   "It fails.",
                   25) +
        field((QSysInfo::kernelType() + u' ' + QSysInfo::kernelVersion()).toUtf8()) +
        field(QSysInfo::currentCpuArchitecture().toUtf8()) + field(QSysInfo::machineUniqueId()) +
        attachments;

    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost, port));
    QVERIFY(sendBugReport(report));
    // The size counts its own 8 bytes.
    QCOMPARE(receive(server), QByteArray(bigEndian(8 + tail.size(), 8) + tail));
}

void BugReportTest::noListenerAndOneThatClosesEarly()
{
    const BugReport small{QStringLiteral("subject"), QStringLiteral("body"), {}};
    QTest::ignoreMessage(QtDebugMsg, "Failed to connect to a remote host while sending bugreport!");
    QVERIFY(!sendBugReport(small));

    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost, port));
    BugReport large = small;
    large.attachedFiles << file(QStringLiteral("large"), QByteArray(8 * 1024 * 1024, 'v'));
    QVERIFY(sendBugReport(large));
    QVERIFY(server.waitForNewConnection(5000));
    const std::unique_ptr<QTcpSocket> connection(server.nextPendingConnection());
    connection->abort();
    // The sender's socket meets the reset in the event loop and takes itself away; the next
    // report is not affected.
    QVERIFY(sendBugReport(small));
    QVERIFY(receive(server).contains("subject"));
}

QTEST_GUILESS_MAIN(BugReportTest)
#include "tst_bugreport.moc"
