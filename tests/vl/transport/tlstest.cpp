#include "tests/vl/transport/transportfixture.h"

#include <QFile>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>
#include <QTest>

#include <future>

namespace {

QByteArray contents(const QString& name)
{
    QFile file(QStringLiteral(TEST_CERTIFICATES "/") + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

/// What only happens behind https. The certificates (certificates/*.pem) were made for this test.
class TlsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void certificatesAreChecked_data();
    void certificatesAreChecked();
};

void TlsTest::certificatesAreChecked_data()
{
    QTest::addColumn<QString>("certificate");
    QTest::addColumn<bool>("isAuthorityKnown");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<QString>("words");
    const QByteArray good = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    const QByteArray away = "HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/document\r\n"
                            "Content-Length: 0\r\n\r\n";
    const auto row = [](const char* name, const char* certificate, bool isKnown,
                        const QByteArray& answer, const char* words) {
        QTest::newRow(name) << QString::fromLatin1(certificate) << isKnown << answer
                            << QString::fromLatin1(words);
    };
    row("good", "good.pem", true, good, "");
    row("unknown authority", "good.pem", false, good, "not vouched for");
    row("of another server", "stranger.pem", true, good, "not for this server");
    row("expired", "expired.pem", true, good, "clock");
    row("redirect to http", "good.pem", true, away, "from https to http is refused");
}

void TlsTest::certificatesAreChecked()
{
    QFETCH(QString, certificate);
    QFETCH(bool, isAuthorityKnown);
    QFETCH(QByteArray, answer);
    QFETCH(QString, words);
    if (!QSslSocket::supportsSsl())
        QSKIP("Qt has no TLS here");

    const QByteArray pem = contents(certificate);
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setLocalCertificate(QSslCertificate(pem));
    configuration.setPrivateKey(QSslKey(pem, QSsl::Ec));
    QSslServer server;
    server.setSslConfiguration(configuration);
    QVERIFY(server.listen(QHostAddress::LocalHost));
    connect(&server, &QSslServer::pendingConnectionAvailable, this, [&server, answer] {
        QTcpSocket* const socket = server.nextPendingConnection();
        connect(socket, &QTcpSocket::readyRead, socket, [socket, answer] {
            if (socket->readAll().endsWith("\r\n\r\n"))
                socket->write(answer);
        });
    });

    const TransportFixture fixture;
    vl::SourceOptions options = TransportFixture::impatient();
    if (isAuthorityKnown)
        options.certificateAuthorities = TEST_CERTIFICATES "/authority.pem";
    const std::string address = "https://127.0.0.1:" + std::to_string(server.serverPort());
    auto fetch = std::async(std::launch::async, [&] {
        return fixture.open(address, options)
            ->fetchDocument({.path = "document", .maxSize = 100, .retries = 0});
    });
    QTRY_VERIFY_WITH_TIMEOUT(fetch.wait_for(std::chrono::seconds(0)) == std::future_status::ready,
                             30'000);
    const auto got = fetch.get();
    QCOMPARE(got.has_value(), words.isEmpty());
    if (!got) {
        const QString message = QString::fromStdString(got.error().message);
        QVERIFY2(message.contains(words), qPrintable(message));
    }
}

QTEST_GUILESS_MAIN(TlsTest)
#include "tlstest.moc"
