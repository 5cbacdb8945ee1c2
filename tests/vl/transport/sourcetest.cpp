#include "tests/vl/transport/transportfixture.h"
#include "vl/src/platform/file.h"
#include "vl/src/platform/systemproxy.h"

#include <QFile>
#include <QSslKey>
#include <QSslServer>
#include <QTest>

#include <future>
#include <sstream>

using namespace std::chrono_literals;
using testsupport::Misbehaviour;
using vl::ByteRange;
using vl::Expected;

namespace {

constexpr std::size_t fileSize = 1'000'000;
constexpr ByteRange part{100'000, 500'000};
constexpr ByteRange whole{0, fileSize};

/// What the server does, the code, the number of requests and words of the fault or else the log
/// that come of it, and the range that is asked for.
using Case = std::tuple<Misbehaviour, int, int, const char*, ByteRange>;

Expected<std::string> fetchRange(vl::Source& source, ByteRange range, vl::Operation& operation)
{
    std::string text;
    const auto sink = [&text](std::span<const std::byte> bytes) -> Expected<void> {
        text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return {};
    };
    return source.fetchRange("file", fileSize, range, operation, sink, {}).map([&text] {
        return text;
    });
}

int codeOf(const Expected<std::string>& result)
{
    return result ? vlupd::OK : result.error().code;
}

} // namespace

class SourceTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init() { m_fixture.server().reset(); }

    void rangesSurviveServers_data();
    void rangesSurviveServers();
    void cancellingEndsATransfer();
    void proxyAndLimitAreObeyed();
    void settingsNameTheProxy_data();
    void settingsNameTheProxy();
    void certificatesAreChecked_data();
    void certificatesAreChecked();

private:
    TransportFixture m_fixture;
    const std::string m_bytes = TransportFixture::noise(fileSize);
};

void SourceTest::initTestCase()
{
    m_fixture.write("file", m_bytes);
    m_fixture.write("copy", m_bytes);
}

void SourceTest::rangesSurviveServers_data()
{
    QTest::addColumn<Case>("row");
    const auto row = [](const char* name, const Misbehaviour& fault, int code, int requests,
                        const char* words = "", ByteRange range = part) {
        QTest::newRow(name) << Case{fault, code, requests, words, range};
    };
    constexpr int failed = vlupd::RSYNC_ERROR;
    constexpr int otherLength = vlupd::CONTENT_LEN_ERROR;
    const auto once = [&](const char* name, Misbehaviour fault, const char* logged) {
        fault.times = 1;
        row(name, fault, vlupd::OK, 2, logged);
    };
    row("good", {}, vlupd::OK, 1);
    row("chunked", {.chunked = true}, vlupd::OK, 1);
    row("slow but alive", {.trickle = 20}, vlupd::OK, 1, "", {100'000, 500});
    row("ranges ignored", {.ignoreRange = true}, vlupd::OK, 1);
    row("body longer than told", {.bodyError = 10}, vlupd::OK, 1);
    row("cut often but not fruitlessly", {.cutAfter = 100'000}, vlupd::OK, 10, "", whole);
    row("cut for ever after a few bytes", {.cutAfter = 10}, failed, 3, "broken");
    once("body shorter than told", {.bodyError = -10}, "at byte 599990");
    once("stall", {.stallAfter = 0}, "stalled for 2 s");
    once("another ETag under a resume", {.entityTag = "\"other\"", .cutAfter = 100'000},
         "the file changed on the server");
    once("keep-alive closed between requests", {.status = 500, .closes = true}, "status 500");
    once("hung up without an answer", {.rawAnswer = ""}, "broken");
    row("never an answer", {.rawAnswer = ""}, failed, 3, "broken");
    row("not HTTP", {.rawAnswer = "\x15\x03\x01\r\n\r\n"}, failed, 1, "transfer failed");
    row("rubbish among the headers", {.headers = "no header\r\n"}, failed, 1, "transfer failed");
    row("endless header", {.headers = "X: " + std::string(fileSize, 'x')}, failed, 1, "");
    row("gzip unasked", {.headers = "Content-Encoding: gzip\r\n"}, failed, 1, "encoded its answer");
    row("206 of other bytes", {.contentRange = "bytes 100001-600000/1000000"}, failed, 1,
        "other bytes");
    row("206 without Content-Range", {.contentRange = ""}, failed, 1, "other bytes");
    row("206 with an unreadable one", {.contentRange = "bytes 9-8/x"}, failed, 1, "other bytes");
    row("larger file told for a part", {.totalError = 1}, otherLength, 1);
    row("smaller file told for the whole", {.totalError = -1}, otherLength, 1, "", whole);
    row("wrong Content-Length", {.lengthError = -5}, otherLength, 1);
    row("endless body", {.endless = true}, otherLength, 1, "more than", whole);
    for (const int status : {408, 429, 500, 502, 503, 504})
        once(qPrintable(QStringLiteral("%1, then good").arg(status)), {.status = status},
             "(status ");
    row("503 for ever", {.status = 503}, failed, 3, "status 503");
    for (const int status : {302, 400, 401, 403, 404, 407, 410})
        row(qPrintable(QStringLiteral("%1 at once").arg(status)), {.status = status}, failed, 1,
            "(status ");
    row("416", {.status = 416}, otherLength, 1, "ends before");
    for (const char* time : {"7", "Fri, 31 Dec 2100 23:59:59 GMT", "9223372036854775807"})
        once(qPrintable(QStringLiteral("Retry-After: ") + QLatin1String(time)),
             {.status = 503, .headers = std::string("Retry-After: ") + time + "\r\n"}, "503");
    row("redirect to a good file", {.redirectTo = "/copy"}, vlupd::OK, 1);
    row("as many redirects as allowed", {.times = 5, .redirectTo = "/file"}, vlupd::OK, 6);
    row("redirect in a circle", {.redirectTo = "/file"}, failed, 6, "more than 5 redirects");
    row("redirect to a local file", {.redirectTo = "file:///etc/passwd"}, failed, 1, "redirect");
    row("redirect to another protocol", {.redirectTo = "ftp://127.0.0.1/file"}, failed, 1,
        "from http to ftp is refused");
    testsupport::HttpServer gone(m_fixture.folder());
    gone.stop();
    row("redirect to where nobody listens", {.redirectTo = gone.address() + "/file"}, failed, 3,
        "refuses connections");
    row("log-in page", {.body = "<html>log in</html>", .contentType = "text/html; charset=utf-8"},
        vlupd::UPDATER_DATA_ERROR, 1, "the server answered a page, not a repository");
}

void SourceTest::rangesSurviveServers()
{
    QFETCH(Case, row);
    const auto& [fault, code, requests, words, range] = row;
    m_fixture.server().misbehave("/file", fault);
    const std::string address = m_fixture.server().address();
    vl::SourceOptions options = TransportFixture::impatient();
    // What a server asks for is obeyed up to the longest pause.
    const bool asksToWait = fault.headers.starts_with("Retry-After");
    options.longestPause = asksToWait ? 300ms : options.longestPause;
    const auto source = m_fixture.open("http://user:secret@" + address.substr(7), options);
    std::stringbuf log;
    LoggedOperation operation;
    operation.log.setBuffer(&log);
    const auto start = std::chrono::steady_clock::now();
    const Expected<std::string> got = fetchRange(*source, range, *operation);
    QVERIFY(!asksToWait || std::chrono::steady_clock::now() - start >= 300ms);
    QCOMPARE(codeOf(got), code);
    QCOMPARE(m_fixture.server().requests("/file"), requests);
    if (got) {
        QVERIFY(*got == m_bytes.substr(range.offset, range.size));
        operation.log.deliver();
        QVERIFY2(log.str().find(words) != std::string::npos, log.str().c_str());
    } else {
        const std::string& message = got.error().message;
        // Told is the address, without the user's secrets.
        QVERIFY2(message.starts_with(address) && message.find(words) != message.npos,
                 message.c_str());
    }
    // An endless or refused answer is not read to its end.
    QVERIFY(m_fixture.server().bytesSent("/file") < 20 * fileSize);
}

void SourceTest::cancellingEndsATransfer()
{
    m_fixture.server().misbehave("/file", {.stallAfter = 1000});
    const vl::SourceOptions patient{.firstPause = 60s, .longestPause = 60s};
    LoggedOperation operation;
    auto fetch = std::async(std::launch::async, [&] {
        return codeOf(fetchRange(*m_fixture.open({}, patient), part, *operation));
    });
    QTRY_COMPARE(m_fixture.server().requests("/file"), 1);
    (*operation).cancel();
    QVERIFY(fetch.wait_for(10s) == std::future_status::ready);
    QCOMPARE(fetch.get(), int(vlupd::UNKNOWN_ERROR));
}

void SourceTest::proxyAndLimitAreObeyed()
{
    vl::Config config;
    config.repository = "http://repository.invalid";
    config.proxy = m_fixture.server().address();
    m_fixture.server().misbehave("http://repository.invalid/document", {.body = "by the proxy"});
    const auto distant = vl::openSource(config, m_fixture.root()).value();
    QCOMPARE(distant->fetchDocument({.path = "document", .maxSize = 100}).value(),
             std::string("by the proxy"));

    config = {};
    config.maxBytesPerSecond = fileSize;
    for (const std::string& repository :
         {m_fixture.server().address(), vl::toUtf8(m_fixture.folder())}) {
        config.repository = repository;
        LoggedOperation operation;
        const auto start = std::chrono::steady_clock::now();
        QVERIFY(fetchRange(*vl::openSource(config, {}).value(), part, *operation));
        QVERIFY(std::chrono::steady_clock::now() - start > 400ms); // half a second's bytes
    }
}

void SourceTest::settingsNameTheProxy_data()
{
    QTest::addColumn<std::string>("servers");
    QTest::addColumn<std::string>("bypass");
    QTest::addColumn<std::string>("host");
    QTest::addColumn<std::string>("proxy");
    const auto row = [](const char* servers, const char* bypass, const char* host,
                        const char* proxy) {
        QTest::addRow("'%s' '%s' %s", servers, bypass, host)
            << std::string(servers) << std::string(bypass) << std::string(host)
            << std::string(proxy);
    };
    for (const char* servers : {"", " ; ", "=;=:", ":8080", "https=", "http=p:1 ftp=p:2",
                                "socks=p:1080", "socks5://p:1080"})
        row(servers, "", "a.org", "");
    for (const char* servers : {"p:1", "p:1;q:2", "http=q:2;HTTPS=p:1", "q:2 https=P:1;https=r:3",
                                "http://p:1/", "socks=q:2\r\nhttps=https://p:1"})
        row(servers, "", "a.org", "p:1");
    row("p", "", "a.org", "p:80");
    row("[fe80::1]", "", "a.org", "[fe80::1]:80");
    row("прокси:1", "*.пример.рф;*Ж", "пример.рф", "прокси:1");
    for (const char* host : {"localhost", "LOCALHOST", "a.localhost", "127.0.0.1", "[::1]"})
        row("p:1", "", host, "");
    for (const char* host : {"a.example.com", "A.B.Example.COM", "192.168.1.1", "plain", "one.org",
                             "two.org", "[fe80::7]", "x.a.y.b.z"})
        row("p:1", "*.EXAMPLE.com; 192.168.* <local>;one.org:80\thttps://two.org;[fe80:*;x*y*z",
            host, "");
    for (const char* host : {"example.com", "a.example.com.net", "8.192.168.1", "[::2]", "one.or",
                             "127.evil.org", "x.yzw", "z.yx", "y.z"})
        row("p:1", "*.example.com;192.168.*;<local>;one.org;;=;<>;x*y*z;*y.z*z", host, "p:1");
}

void SourceTest::settingsNameTheProxy()
{
    QFETCH(std::string, servers);
    QFETCH(std::string, bypass);
    QFETCH(std::string, host);
    QTEST(vl::proxyFor({servers, bypass}, "https", host), "proxy");
}

void SourceTest::certificatesAreChecked_data()
{
    QTest::addColumn<QString>("certificate");
    QTest::addColumn<QByteArray>("answer");
    const QByteArray good = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    const QByteArray away = "HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/document\r\n"
                            "Content-Length: 0\r\n\r\n";
    // Rows are named by words of the fault.
    QTest::newRow("") << QStringLiteral("good.pem") << good;
    QTest::newRow("not for this server") << QStringLiteral("stranger.pem") << good;
    QTest::newRow("clock") << QStringLiteral("expired.pem") << good;
    QTest::newRow("from https to http is refused") << QStringLiteral("good.pem") << away;
}

// The certificates were made for this test.
void SourceTest::certificatesAreChecked()
{
    QFETCH(QString, certificate);
    QFETCH(QByteArray, answer);
    if (!QSslSocket::supportsSsl())
        QSKIP("Qt has no TLS here");
#ifdef Q_OS_WIN
    QSKIP("under Wine, Qt's TLS cannot play the server");
#endif
    QFile file(QStringLiteral(TEST_CERTIFICATES "/") + certificate);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray pem = file.readAll();
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
    vl::SourceOptions options = TransportFixture::impatient();
    options.certificateAuthorities = TEST_CERTIFICATES "/authority.pem";
    const std::string address = "https://127.0.0.1:" + std::to_string(server.serverPort());
    auto fetch = std::async(std::launch::async, [&] {
        return m_fixture.open(address, options)
            ->fetchDocument({.path = "document", .maxSize = 100, .retries = 0});
    });
    QTRY_VERIFY_WITH_TIMEOUT(fetch.wait_for(0s) == std::future_status::ready, 30'000);
    const auto got = fetch.get();
    const std::string message = got ? std::string() : got.error().message;
    const std::string words = QTest::currentDataTag();
    QVERIFY2(words.empty() ? message.empty() : message.find(words) != message.npos,
             message.c_str());
}

QTEST_GUILESS_MAIN(SourceTest)
#include "sourcetest.moc"
