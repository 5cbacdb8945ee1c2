#include "tools/report-collector/collectorserver.h"

#include <QDataStream>
#include <QDir>
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

} // namespace

class ReportCollectorTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup() { m_collector.reset(); }
    void storesUnderSafeNames();
    void refused_data();
    void refused();

private:
    std::unique_ptr<QTcpSocket> connection() const;

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<CollectorServer> m_collector;
};

void ReportCollectorTest::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_collector =
        std::make_unique<CollectorServer>(QDir(m_folder->path()), std::chrono::minutes(1));
    QVERIFY(m_collector->listen(0));
}

std::unique_ptr<QTcpSocket> ReportCollectorTest::connection() const
{
    auto socket = std::make_unique<QTcpSocket>();
    socket->connectToHost(QHostAddress(QHostAddress::LocalHost), m_collector->port());
    return socket;
}

void ReportCollectorTest::storesUnderSafeNames()
{
    QSignalSpy stored(m_collector.get(), &CollectorServer::reportStored);
    const auto slow = connection();
    slow->write(message({{"a", "1"}}).chopped(1));
    const auto socket = connection();
    socket->write(message({{"../../x/Log.txt", "first"},
                           {"C:\\log.TXT", "second"},
                           {"..", ""},
                           {"nul.txt", ""},
                           {"report.json", "{}"}}));
    QVERIFY(stored.wait());

    const QDir report(stored.first().first().toString());
    QCOMPARE(report.entryList(QDir::Files | QDir::Hidden, QDir::Name),
             (QStringList{QStringLiteral("Log.txt"), QStringLiteral("_nul.txt"),
                          QStringLiteral("attachment"), QStringLiteral("log (2).TXT"),
                          QStringLiteral("report (2).json"), QStringLiteral("report.json")}));
    QFile second(report.filePath(QStringLiteral("log (2).TXT")));
    QVERIFY(second.open(QIODevice::ReadOnly));
    QCOMPARE(second.readAll(), QByteArray("second"));
    QFile json(report.filePath(QStringLiteral("report.json")));
    QVERIFY(json.open(QIODevice::ReadOnly));
    const QJsonObject texts = QJsonDocument::fromJson(json.readAll()).object();
    QCOMPARE(texts.value(QLatin1String("body")).toString(), QStringLiteral("body"));

    slow->write("1");
    QTRY_COMPARE(stored.size(), 2);
}

void ReportCollectorTest::refused_data()
{
    QTest::addColumn<QByteArray>("bytes");

    const auto row = [](const char* name, const QByteArray& bytes) {
        QTest::newRow(name) << bytes;
    };
    const QByteArray plain = message({});
    const QByteArray one = message({{"a", "1"}});
    row("nothing", {});
    row("half a message", one.chopped(3));
    row("another protocol", "GET / HTTP/1.1\r\n\r\n");
    row("total size too small for the fields",
        changed(plain, 0, QByteArray("\0\0\0\0\0\0\0\x1c", 8)));
    row("total size negative", changed(plain, 0, QByteArray(8, '\xff')));
    row("total size above 512 MiB", changed(plain, 0, QByteArray("\0\0\0\0\x20\0\0\x01", 8)));
    row("negative attachment count", changed(plain, 8, "\xff"));
    row("six attachments", changed(plain, 8, "\x06"));
    row("text of 4 GiB", changed(plain, 9, "\xff\xff\xff\xfe"));
    row("text above its limit", message({{QByteArray(65537, 'n'), ""}}));
    row("length beyond the message after an attachment has begun",
        changed(message({{"a", "1"}, {"b", "2"}}), one.size(), "\x7f"));
}

void ReportCollectorTest::refused()
{
    QFETCH(QByteArray, bytes);
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
    QTRY_VERIFY(
        QDir(m_folder->path()).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
}

QTEST_GUILESS_MAIN(ReportCollectorTest)
#include "tst_reportcollector.moc"
