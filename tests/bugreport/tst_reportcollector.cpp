#include "tools/report-collector/collectorserver.h"
#include "tools/report-collector/reportparser.h"
#include "tools/report-collector/safefilename.h"

#include <QDataStream>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

using Attachments = QList<std::pair<QByteArray, QByteArray>>;
using Status = ReportParser::Status;

QByteArray message(const Attachments& attachments)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << qint64{0} << static_cast<qint8>(attachments.size()) << QByteArray("subject")
           << QByteArray("body") << QByteArray("os") << QByteArray("cpu") << QByteArray();
    for (const auto& [name, contents] : attachments)
        stream << name << contents;
    stream.device()->seek(0);
    stream << qint64{bytes.size()};
    return bytes;
}

/// `bytes` with those at `position` replaced by `replacement`.
QByteArray changed(QByteArray bytes, qsizetype position, const QByteArray& replacement)
{
    return bytes.replace(position, replacement.size(), replacement);
}

/// Writes down what the parser hands on; checks that it keeps to what it announced.
class RecordingSink final : public ReportSink
{
public:
    QByteArray record;

    bool beginReport(const ReportTexts& texts) override
    {
        record += texts.subject + '/' + texts.body + '/' + texts.os + '/' + texts.cpuArchitecture +
                  '/' + texts.machineId;
        return true;
    }
    bool beginAttachment(const QByteArray& name, qint64 size) override
    {
        record += '|' + name + '=';
        m_left = size;
        return true;
    }
    bool attachmentBytes(QByteArrayView bytes) override
    {
        record += bytes.toByteArray();
        m_left -= bytes.size();
        return m_left >= 0;
    }
    bool endAttachment() override { return m_left == 0; }
    bool endReport() override
    {
        record += '.';
        return true;
    }

private:
    qint64 m_left = 0;
};

} // namespace

Q_DECLARE_METATYPE(Status)

class ReportCollectorTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parse_data();
    void parse();
    void unfinishedMessageIsNoReport();
    void anyByteMayBeWrong();
    void safeNames_data();
    void safeNames();

    void init();
    void cleanup();
    void storesUnderSafeNames();
    void slowAndSimultaneousSenders();
    void refused_data();
    void refused();
    void silentSenderIsDropped();
    void leftoversOfAnEndedProcess();

private:
    void startCollector(std::chrono::milliseconds idleTimeout = std::chrono::minutes(1));
    std::unique_ptr<QTcpSocket> connection() const;
    QStringList entries() const;

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<CollectorServer> m_collector;
};

void ReportCollectorTest::parse_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<Status>("status");
    QTest::addColumn<QByteArray>("record");

    const QByteArray plain = message({});
    const QByteArray one = message({{"name", "contents"}});
    const QByteArray textsOnly = "subject/body/os/cpu/";
    const qsizetype subject = 9;             // position of its length
    const qsizetype name = plain.size();     // position of its length
    const qsizetype contents = name + 4 + 4; // position of its length

    QTest::newRow("no attachments") << plain << Status::Complete << textsOnly + '.';
    QTest::newRow("attachments, one empty") << message({{"a", "1"}, {"b", ""}, {"", "2"}})
                                            << Status::Complete << textsOnly + "|a=1|b=|=2.";
    QTest::newRow("no bytes") << QByteArray() << Status::Incomplete << QByteArray();

    const struct
    {
        const char* name;
        QByteArray bytes;
    } refused[] = {
        {"total size too small for the fields",
         changed(plain, 0, QByteArray("\0\0\0\0\0\0\0\x1c", 8))},
        {"total size negative", changed(plain, 0, QByteArray(8, '\xff'))},
        {"total size above 512 MiB", changed(plain, 0, QByteArray("\0\0\0\0\x20\0\0\x01", 8))},
        {"total size too large for the fields", changed(plain, 7, QByteArray(1, '\x7f'))},
        {"negative attachment count", changed(plain, 8, "\xff")},
        {"six attachments", changed(plain, 8, "\x06")},
        {"text beyond the message", changed(plain, subject, QByteArray("\0\0\0\x7f", 4))},
        {"text of 4 GiB", changed(plain, subject, "\xff\xff\xff\xfe")},
        {"contents beyond the message", changed(one, contents, QByteArray("\0\0\0\x09", 4))},
        {"text above its limit", message({{QByteArray(65537, 'n'), ""}})},
        {"bytes after the end", plain + 'x'},
    };
    for (const auto& row : refused)
        QTest::newRow(row.name) << row.bytes << Status::Failed << QByteArray();
}

void ReportCollectorTest::parse()
{
    QFETCH(QByteArray, bytes);
    QFETCH(Status, status);
    QFETCH(QByteArray, record);

    for (const qsizetype step : {bytes.size() + 1, qsizetype{1}, qsizetype{7}}) {
        RecordingSink sink;
        ReportParser parser(sink);
        for (qsizetype i = 0; i < bytes.size(); i += step)
            parser.feed(QByteArrayView(bytes).sliced(i, qMin(step, bytes.size() - i)));
        QCOMPARE(parser.status(), status);
        QCOMPARE(parser.error().isEmpty(), status != Status::Failed);
        if (status != Status::Failed)
            QCOMPARE(sink.record, record);
    }
}

void ReportCollectorTest::unfinishedMessageIsNoReport()
{
    const QByteArray bytes = message({{"name", "contents"}});
    for (qsizetype size = 0; size < bytes.size(); ++size) {
        RecordingSink sink;
        ReportParser parser(sink);
        QCOMPARE(parser.feed(QByteArrayView(bytes).first(size)), Status::Incomplete);
        QVERIFY(!sink.record.endsWith('.'));
    }
}

void ReportCollectorTest::anyByteMayBeWrong()
{
    const QByteArray bytes = message({{"name", "contents"}, {"other", ""}});
    for (qsizetype i = 0; i < bytes.size(); ++i) {
        for (const char value : {'\0', '\x01', '\x7f', '\x80', '\xff'}) {
            RecordingSink sink;
            ReportParser parser(sink);
            parser.feed(changed(bytes, i, QByteArray(1, value)));
            QVERIFY(parser.bytesRead() <= bytes.size());
            QVERIFY(sink.record.size() < bytes.size());
        }
    }
}

void ReportCollectorTest::safeNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("safe");

    const auto row = [](const char* title, const QString& name, const QString& safe) {
        QTest::newRow(title) << name << safe;
    };
    row("plain", QStringLiteral("снимок 1.png"), QStringLiteral("снимок 1.png"));
    row("path", QStringLiteral("../../etc/passwd"), QStringLiteral("passwd"));
    row("Windows path", QStringLiteral("C:\\logs\\a.log"), QStringLiteral("a.log"));
    row("drive", QStringLiteral("C:a.log"), QStringLiteral("C_a.log"));
    row("empty", QString(), QStringLiteral("attachment"));
    row("parent", QStringLiteral(".."), QStringLiteral("attachment"));
    row("folder", QStringLiteral("a/"), QStringLiteral("attachment"));
    row("hidden", QStringLiteral(".profile"), QStringLiteral("_.profile"));
    row("bad ending", QStringLiteral("a. ."), QStringLiteral("a"));
    row("device", QStringLiteral("nul.txt"), QStringLiteral("_nul.txt"));
    row("control and direction characters", QStringLiteral("a\nb\u202egnp.exe"),
        QStringLiteral("a_b_gnp.exe"));
    row("too long", QString(300, QChar(0x44f)) + QStringLiteral(".png"),
        QString(98, QChar(0x44f)) + QStringLiteral(".png"));
}

void ReportCollectorTest::safeNames()
{
    QFETCH(QString, name);
    QTEST(safeFileName(name), "safe");
}

void ReportCollectorTest::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QVERIFY(m_folder->isValid());
}

void ReportCollectorTest::cleanup()
{
    m_collector.reset();
}

void ReportCollectorTest::startCollector(std::chrono::milliseconds idleTimeout)
{
    m_collector = std::make_unique<CollectorServer>(QDir(m_folder->path()), idleTimeout);
    QVERIFY(m_collector->listen(0));
}

std::unique_ptr<QTcpSocket> ReportCollectorTest::connection() const
{
    auto socket = std::make_unique<QTcpSocket>();
    socket->connectToHost(QHostAddress(QHostAddress::LocalHost), m_collector->port());
    return socket;
}

QStringList ReportCollectorTest::entries() const
{
    return QDir(m_folder->path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
}

void ReportCollectorTest::storesUnderSafeNames()
{
    startCollector();
    QSignalSpy stored(m_collector.get(), &CollectorServer::reportStored);
    const auto socket = connection();
    socket->write(message({{"/x/Log.txt", "first"}, {"log.TXT", "second"}, {"report.json", "{}"}}));
    QVERIFY(stored.wait());

    const QDir report(stored.first().first().toString());
    QCOMPARE(report.entryList(QDir::Files | QDir::Hidden, QDir::Name),
             (QStringList{QStringLiteral("Log.txt"), QStringLiteral("log (2).TXT"),
                          QStringLiteral("report (2).json"), QStringLiteral("report.json")}));
    QFile second(report.filePath(QStringLiteral("log (2).TXT")));
    QVERIFY(second.open(QIODevice::ReadOnly));
    QCOMPARE(second.readAll(), QByteArray("second"));
    QFile json(report.filePath(QStringLiteral("report.json")));
    QVERIFY(json.open(QIODevice::ReadOnly));
    const QJsonObject texts = QJsonDocument::fromJson(json.readAll()).object();
    QCOMPARE(texts.value(QLatin1String("body")).toString(), QStringLiteral("body"));
}

void ReportCollectorTest::slowAndSimultaneousSenders()
{
    startCollector();
    QSignalSpy stored(m_collector.get(), &CollectorServer::reportStored);
    const QByteArray bytes = message({{"a", QByteArray(100, 'a')}});
    const auto slow = connection();
    const auto quick = connection();
    const qsizetype half = bytes.size() / 2;
    slow->write(bytes.first(half));
    quick->write(bytes);
    QVERIFY(stored.wait());
    QCOMPARE(stored.size(), 1);
    for (qsizetype i = half; i < bytes.size(); ++i) {
        slow->write(bytes.mid(i, 1));
        QVERIFY(slow->waitForBytesWritten());
    }
    QTRY_COMPARE(stored.size(), 2);
    QVERIFY(stored.at(0).first() != stored.at(1).first());
    QCOMPARE(entries().size(), 2);
}

void ReportCollectorTest::refused_data()
{
    QTest::addColumn<QByteArray>("bytes");

    const QByteArray bytes = message({{"name", "contents"}});
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("half a message") << bytes.chopped(3);
    QTest::newRow("another protocol") << QByteArray("GET / HTTP/1.1\r\n\r\n");
    QTest::newRow("length beyond the message after an attachment has begun")
        << changed(message({{"a", "1"}, {"b", "2"}}), message({{"a", "1"}}).size(), "\x7f");
}

void ReportCollectorTest::refused()
{
    QFETCH(QByteArray, bytes);
    startCollector();
    QSignalSpy refusals(m_collector.get(), &CollectorServer::reportRefused);
    {
        const auto socket = connection();
        QVERIFY(socket->waitForConnected());
        socket->write(bytes);
        socket->flush();
        socket->disconnectFromHost();
        QTRY_COMPARE(socket->state(), QAbstractSocket::UnconnectedState);
    }
    QTRY_COMPARE(refusals.size(), 1);
    QTRY_COMPARE(entries(), QStringList());
}

void ReportCollectorTest::silentSenderIsDropped()
{
    startCollector(std::chrono::milliseconds(1));
    QSignalSpy refusals(m_collector.get(), &CollectorServer::reportRefused);
    const auto socket = connection();
    QVERIFY(socket->waitForConnected());
    QTRY_COMPARE(refusals.size(), 1);
    QTRY_COMPARE(socket->state(), QAbstractSocket::UnconnectedState);
}

void ReportCollectorTest::leftoversOfAnEndedProcess()
{
    QVERIFY(QDir(m_folder->path()).mkpath(QStringLiteral(".partial-abc/deep")));
    QVERIFY(QDir(m_folder->path()).mkdir(QStringLiteral("report-1")));
    startCollector();
    QCOMPARE(entries(), QStringList{QStringLiteral("report-1")});
}

QTEST_GUILESS_MAIN(ReportCollectorTest)
#include "tst_reportcollector.moc"
