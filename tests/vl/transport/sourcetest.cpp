#include "tests/vl/transport/transportfixture.h"
#include "vl/src/platform/file.h"
#include "vl/src/transport/address.h"
#include "vl/src/transport/httpclient.h"

#include <QTest>

#include <fstream>
#include <thread>

using namespace std::chrono_literals;
using testsupport::Misbehaviour;
using vl::ByteRange;
using vl::Expected;

Q_DECLARE_METATYPE(Misbehaviour)

namespace {

constexpr std::size_t fileSize = 1'000'000;
constexpr ByteRange part{100'000, 500'000};
constexpr ByteRange whole{0, fileSize};

/// Fetches a range into a text.
Expected<std::string> fetchRange(vl::Source& source, ByteRange range, vl::Operation& operation,
                                 const std::string& path = "file")
{
    std::string text;
    const auto sink = [&text](std::span<const std::byte> bytes) -> Expected<void> {
        text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return {};
    };
    return source.fetchRange(path, fileSize, range, operation, sink).map([&text] { return text; });
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
    void documentsSurviveServers_data();
    void documentsSurviveServers();
    void refusedConnectionIsNamed();
    void retryAfterIsRespected();
    void cancellingEndsATransfer_data();
    void cancellingEndsATransfer();
    void deadlineEndsADocument();
    void failingSinkEndsTheTransfer();
    void requestsAreModest();
    void credentialsStaySecret();
    void foldersAreRead_data();
    void foldersAreRead();
    void folderThatVanishesIsAFailedTransfer();
    void speedLimitHolds_data();
    void speedLimitHolds();
    void addressesAreChecked_data();
    void addressesAreChecked();
    void contentRangesAreParsed_data();
    void contentRangesAreParsed();

private:
    TransportFixture m_fixture;
    const std::string m_bytes = TransportFixture::noise(fileSize);
};

void SourceTest::initTestCase()
{
    m_fixture.write("file", m_bytes);
    m_fixture.write("document", m_bytes.substr(0, 3000));
}

void SourceTest::rangesSurviveServers_data()
{
    QTest::addColumn<Misbehaviour>("fault");
    QTest::addColumn<bool>("isWhole");
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("requests");
    QTest::addColumn<QString>("words");

    const auto row = [](const char* name, Misbehaviour fault, int code, int requests,
                        const char* words = "", bool isWhole = false) {
        QTest::newRow(name) << fault << isWhole << code << requests << QString::fromUtf8(words);
    };
    constexpr bool all = true;
    row("good part", {}, vlupd::OK, 1);
    row("good whole file", {}, vlupd::OK, 1, "", all);
    row("cut once", {.times = 1, .cutAfter = 200'000}, vlupd::OK, 2);
    row("cut before the first byte", {.times = 1, .cutAfter = 0}, vlupd::OK, 2);
    row("cut often but not fruitlessly", {.cutAfter = 100'000}, vlupd::OK, 10, "", all);
    row("cut for ever after a few bytes", {.cutAfter = 10}, vlupd::RSYNC_ERROR, 3, "broken");
    row("ranges ignored", {.ignoreRange = true}, vlupd::OK, 1);
    row("ranges ignored and cut", {.times = 1, .ignoreRange = true, .cutAfter = 300'000}, vlupd::OK,
        2);
    row("ranges ignored on the way on", {.skip = 1, .ignoreRange = true, .cutAfter = 700'000},
        vlupd::OK, 1);
    row("wrong Content-Range", {.wrongContentRange = true}, vlupd::RSYNC_ERROR, 1, "other bytes");
    row("larger file told for a part", {.totalError = 1}, vlupd::CONTENT_LEN_ERROR, 1);
    row("smaller file told for the whole", {.totalError = -1}, vlupd::CONTENT_LEN_ERROR, 1, "",
        all);
    row("Content-Length too large", {.lengthError = 5}, vlupd::CONTENT_LEN_ERROR, 1);
    row("Content-Length too small", {.lengthError = -5}, vlupd::CONTENT_LEN_ERROR, 1);
    row("length untold", {.untoldLength = true}, vlupd::OK, 1);
    row("body short once", {.times = 1, .untoldLength = true, .bodyError = -10}, vlupd::OK, 2);
    row("body short though told", {.times = 1, .bodyError = -10}, vlupd::OK, 2);
    row("body too long", {.untoldLength = true, .bodyError = 10}, vlupd::CONTENT_LEN_ERROR, 1,
        "more than");
    row("endless part", {.endless = true}, vlupd::CONTENT_LEN_ERROR, 1);
    row("endless whole file", {.endless = true}, vlupd::CONTENT_LEN_ERROR, 1, "", all);
    row("500 twice, then good", {.times = 2, .status = 500}, vlupd::OK, 3);
    row("503 for ever", {.status = 503}, vlupd::RSYNC_ERROR, 3, "status 503");
    row("408 once", {.times = 1, .status = 408}, vlupd::OK, 2);
    row("429 with Retry-After", {.times = 1, .status = 429, .retryAfter = 3600}, vlupd::OK, 2);
    for (const int status : {400, 403, 404, 410})
        row(qPrintable(QStringLiteral("status %1").arg(status)), {.status = status},
            vlupd::RSYNC_ERROR, 1, qPrintable(QStringLiteral("status %1").arg(status)));
    row("proxy wants a log-in", {.status = 407}, vlupd::RSYNC_ERROR, 1, "proxy");
    row("416", {.status = 416}, vlupd::CONTENT_LEN_ERROR, 1, "ends before");
    row("204 without a body", {.status = 204}, vlupd::RSYNC_ERROR, 1, "status 204");
    row("stall once", {.times = 1, .stallAfter = 1000}, vlupd::OK, 2);
    row("redirect to a good file", {.redirectTo = "/copy"}, vlupd::OK, 1);
    row("redirect in a circle", {.redirectTo = "/file"}, vlupd::RSYNC_ERROR, 6, "redirects");
    row("redirect to a local file", {.redirectTo = "file:///etc/passwd"}, vlupd::RSYNC_ERROR, 1,
        "redirect");
    row("redirect to another protocol", {.redirectTo = "ftp://127.0.0.1/file"}, vlupd::RSYNC_ERROR,
        1, "redirect");
    row("log-in page", {.body = "<html>log in</html>", .contentType = "text/html; charset=utf-8"},
        vlupd::UPDATER_DATA_ERROR, 1, "the server answered a page, not a repository");
    row("encoded answer", {.contentEncoding = "gzip"}, vlupd::RSYNC_ERROR, 1, "gzip");
    row("another copy after a break", {.times = 1, .etag = "\"first\"", .cutAfter = 200'000},
        vlupd::OK, 2);
    row("slow to answer", {.delay = 20ms}, vlupd::OK, 1);
}

void SourceTest::rangesSurviveServers()
{
    QFETCH(Misbehaviour, fault);
    QFETCH(bool, isWhole);
    QFETCH(int, code);
    QFETCH(int, requests);
    QFETCH(QString, words);
    m_fixture.write("copy", m_bytes);
    m_fixture.server().misbehave("/file", fault);
    const ByteRange range = isWhole ? whole : part;

    LoggedOperation operation;
    const Expected<std::string> got = fetchRange(*m_fixture.open(), range, *operation);

    QCOMPARE(codeOf(got), code);
    QCOMPARE(m_fixture.server().requests("/file"), requests);
    if (got) {
        QVERIFY(*got == m_bytes.substr(range.offset, range.size));
    } else {
        const QString message = QString::fromStdString(got.error().message);
        QVERIFY2(message.contains(words), qPrintable(message));
        QVERIFY2(message.startsWith(QString::fromStdString(m_fixture.server().address())),
                 qPrintable(message));
    }
    // An endless or refused answer is not read to its end.
    QVERIFY(m_fixture.server().bytesSent("/file") < 20 * fileSize);
}

void SourceTest::documentsSurviveServers_data()
{
    QTest::addColumn<Misbehaviour>("fault");
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("requests");

    QTest::newRow("good") << Misbehaviour{} << int(vlupd::OK) << 1;
    QTest::newRow("cut once") << Misbehaviour{.times = 1, .cutAfter = 100} << int(vlupd::OK) << 2;
    QTest::newRow("cut for ever") << Misbehaviour{.cutAfter = 100} << int(vlupd::RSYNC_ERROR) << 3;
    QTest::newRow("500 then good")
        << Misbehaviour{.times = 1, .status = 500} << int(vlupd::OK) << 2;
    QTest::newRow("404") << Misbehaviour{.status = 404} << int(vlupd::RSYNC_ERROR) << 1;
    QTest::newRow("stall once") << Misbehaviour{.times = 1, .stallAfter = 100} << int(vlupd::OK)
                                << 2;
    QTest::newRow("told too long")
        << Misbehaviour{.body = std::string(5001, 'x')} << int(vlupd::CONTENT_LEN_ERROR) << 1;
    QTest::newRow("largest that is allowed")
        << Misbehaviour{.untoldLength = true, .bodyError = 2000} << int(vlupd::OK) << 1;
    QTest::newRow("one byte too long") << Misbehaviour{.untoldLength = true, .bodyError = 2001}
                                       << int(vlupd::CONTENT_LEN_ERROR) << 1;
    QTest::newRow("endless") << Misbehaviour{.endless = true} << int(vlupd::CONTENT_LEN_ERROR) << 1;
    QTest::newRow("page by type") << Misbehaviour{.body = "Welcome", .contentType = "text/html"}
                                  << int(vlupd::UPDATER_DATA_ERROR) << 1;
    QTest::newRow("page by content")
        << Misbehaviour{.body = "\n<!DOCTYPE html>", .contentType = "application/json"}
        << int(vlupd::UPDATER_DATA_ERROR) << 1;
    QTest::newRow("encoded") << Misbehaviour{.contentEncoding = "br"} << int(vlupd::RSYNC_ERROR)
                             << 1;
    QTest::newRow("empty") << Misbehaviour{.body = ""} << int(vlupd::OK) << 1;
}

void SourceTest::documentsSurviveServers()
{
    QFETCH(Misbehaviour, fault);
    QFETCH(int, code);
    QFETCH(int, requests);
    m_fixture.server().misbehave("/document", fault);

    const auto got =
        m_fixture.open()->fetchDocument({.path = "document", .maxSize = 5000, .retries = 2});

    QCOMPARE(codeOf(got), code);
    QCOMPARE(m_fixture.server().requests("/document"), requests);
    if (got && !fault.body)
        QVERIFY(got->substr(0, 3000) == m_bytes.substr(0, 3000));
}

void SourceTest::refusedConnectionIsNamed()
{
    testsupport::HttpServer gone(m_fixture.folder());
    const auto source = m_fixture.open(gone.address());
    gone.stop();
    const auto got = source->fetchDocument({.path = "document", .maxSize = 5000, .retries = 1});
    QCOMPARE(codeOf(got), int(vlupd::RSYNC_ERROR));
    QVERIFY(got.error().message.find("the server refuses connections") != std::string::npos);
}

void SourceTest::retryAfterIsRespected()
{
    vl::SourceOptions options = TransportFixture::impatient();
    options.longestPause = 300ms;
    m_fixture.server().misbehave("/document", {.times = 1, .status = 503, .retryAfter = 1});
    const auto start = std::chrono::steady_clock::now();
    QVERIFY(m_fixture.open({}, options)->fetchDocument({.path = "document", .maxSize = 5000}));
    QVERIFY(std::chrono::steady_clock::now() - start >= 300ms);
}

void SourceTest::cancellingEndsATransfer_data()
{
    QTest::addColumn<Misbehaviour>("fault");
    QTest::newRow("that stalls") << Misbehaviour{.stallAfter = 1000};
    QTest::newRow("that waits for the answer") << Misbehaviour{.delay = 60s};
    QTest::newRow("that pauses before a new attempt") << Misbehaviour{.status = 503};
}

void SourceTest::cancellingEndsATransfer()
{
    QFETCH(Misbehaviour, fault);
    m_fixture.server().misbehave("/file", fault);
    const vl::SourceOptions patient{.firstPause = 60s, .longestPause = 60s};
    LoggedOperation operation;
    std::thread user([&] {
        m_fixture.server().waitForRequests("/file", 1);
        operation->cancel();
    });
    const auto start = std::chrono::steady_clock::now();
    const auto got = fetchRange(*m_fixture.open({}, patient), part, *operation);
    user.join();
    QCOMPARE(codeOf(got), int(vlupd::UNKNOWN_ERROR));
    QVERIFY(std::chrono::steady_clock::now() - start < 10s);
}

void SourceTest::deadlineEndsADocument()
{
    m_fixture.server().misbehave("/document", {.stallAfter = 10});
    const auto source = m_fixture.open({}, {});
    const auto got = source->fetchDocument({.path = "document",
                                            .maxSize = 5000,
                                            .deadline = std::chrono::steady_clock::now() + 100ms});
    QCOMPARE(codeOf(got), int(vlupd::RSYNC_ERROR));
    QVERIFY(got.error().message.find("time") != std::string::npos);
}

void SourceTest::failingSinkEndsTheTransfer()
{
    LoggedOperation operation;
    const auto full = [](std::span<const std::byte>) -> Expected<void> {
        return vl::failure(vlupd::SYSTEM_CALL_ERROR, "disk full");
    };
    const auto got = m_fixture.open()->fetchRange("file", fileSize, whole, *operation, full);
    QVERIFY(!got);
    QCOMPARE(int(got.error().code), int(vlupd::SYSTEM_CALL_ERROR));
    QCOMPARE(m_fixture.server().requests("/file"), 1);
}

void SourceTest::requestsAreModest()
{
    testsupport::HttpServer server(m_fixture.folder());
    const auto source = m_fixture.open(server.address() + "/");
    LoggedOperation operation;
    for (int i = 0; i < 3; ++i)
        QVERIFY(fetchRange(*source, part, *operation));
    QVERIFY(source->fetchDocument({.path = "document", .maxSize = 5000, .uncached = true}));
    QCOMPARE(server.connections(), 1);
    const auto headers = server.lastHeaders("/document");
    QCOMPARE(headers.at("user-agent"), std::string("varnel-vl"));
    QCOMPARE(headers.at("accept-encoding"), std::string("identity"));
    QCOMPARE(headers.at("cache-control"), std::string("no-cache"));
}

void SourceTest::credentialsStaySecret()
{
    std::string address = m_fixture.server().address();
    address.insert(std::string("http://").size(), "user:secret@");
    m_fixture.server().misbehave("/file", {.cutAfter = 10});
    const auto source = m_fixture.open(address);
    LoggedOperation operation;
    const auto got = fetchRange(*source, part, *operation);
    QCOMPARE(codeOf(got), int(vlupd::RSYNC_ERROR));
    QVERIFY(m_fixture.server().lastHeaders("/file").count("authorization") == 1);
    const std::string told = got.error().message + operation.lines() + source->describe();
    QVERIFY(told.find("new attempt") != std::string::npos);
    QVERIFY2(told.find("user") == std::string::npos, told.c_str());
    QVERIFY2(told.find("secret") == std::string::npos, told.c_str());
}

void SourceTest::foldersAreRead_data()
{
    QTest::addColumn<QString>("repository");
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("code");
    const QString folder = QString::fromStdString(vl::toUtf8(m_fixture.folder()));
    const std::string name = "Выпуски 1/file";
    m_fixture.write(name, m_bytes);
    m_fixture.write("longer", m_bytes + '.');
    const QString file = QStringLiteral("file");
    const QString encoded = QStringLiteral("/%D0%92%D1%8B%D0%BF%D1%83%D1%81%D0%BA%D0%B8%201");
    QTest::newRow("absolute") << folder << file << int(vlupd::OK);
    QTest::newRow("relative to the root")
        << QStringLiteral("../repository") << file << int(vlupd::OK);
    QTest::newRow("file address") << QString(QStringLiteral("file://") + folder) << file
                                  << int(vlupd::OK);
    QTest::newRow("encoded file address")
        << QString(QStringLiteral("file://") + folder + encoded) << file << int(vlupd::OK);
    QTest::newRow("missing file") << folder << QStringLiteral("none") << int(vlupd::RSYNC_ERROR);
    QTest::newRow("missing folder") << QStringLiteral("nowhere") << file << int(vlupd::RSYNC_ERROR);
    QTest::newRow("wrong length") << folder << QStringLiteral("longer")
                                  << int(vlupd::CONTENT_LEN_ERROR);
}

void SourceTest::foldersAreRead()
{
    QFETCH(QString, repository);
    QFETCH(QString, path);
    QFETCH(int, code);
    LoggedOperation operation;
    const auto source = m_fixture.open(repository.toStdString());
    const auto got = fetchRange(*source, part, *operation, path.toStdString());
    QCOMPARE(codeOf(got), code);
    if (got)
        QVERIFY(*got == m_bytes.substr(part.offset, part.size));
    const auto document = source->fetchDocument({.path = path.toStdString(), .maxSize = fileSize});
    QCOMPARE(codeOf(document), code);
}

void SourceTest::folderThatVanishesIsAFailedTransfer()
{
    m_fixture.write("vanishing", m_bytes);
    LoggedOperation operation;
    const auto path = m_fixture.folder() / "vanishing";
    const auto sink = [&path](std::span<const std::byte>) -> Expected<void> {
        std::filesystem::resize_file(path, 200'000);
        return {};
    };
    const auto source = m_fixture.open(vl::toUtf8(m_fixture.folder()));
    const auto got = source->fetchRange("vanishing", fileSize, whole, *operation, sink);
    QVERIFY(!got);
    QCOMPARE(int(got.error().code), int(vlupd::RSYNC_ERROR));
}

void SourceTest::speedLimitHolds_data()
{
    QTest::addColumn<QString>("repository");
    QTest::newRow("server") << QString();
    QTest::newRow("folder") << QString::fromStdString(vl::toUtf8(m_fixture.folder()));
}

void SourceTest::speedLimitHolds()
{
    QFETCH(QString, repository);
    LoggedOperation operation;
    const auto source = m_fixture.open(repository.toStdString(), {}, 2 * fileSize);
    const auto start = std::chrono::steady_clock::now();
    QVERIFY(fetchRange(*source, whole, *operation));
    // Half a second at that speed; the transport may let the first bytes through at once.
    QVERIFY(std::chrono::steady_clock::now() - start > 250ms);
}

void SourceTest::addressesAreChecked_data()
{
    QTest::addColumn<QString>("address");
    QTest::newRow("other scheme") << QStringLiteral("ftp://host/releases");
    QTest::newRow("no host") << QStringLiteral("https://");
    QTest::newRow("bad port") << QStringLiteral("http://host:99999/");
    QTest::newRow("query") << QStringLiteral("https://host/releases?key=1");
    QTest::newRow("host in a file address") << QStringLiteral("file://host/releases");
}

void SourceTest::addressesAreChecked()
{
    QFETCH(QString, address);
    vl::Config config;
    config.repository = address.toStdString();
    const auto source = vl::openSource(config, m_fixture.root());
    QVERIFY(!source);
    QCOMPARE(int(source.error().code), int(vlupd::UPDATER_DATA_ERROR));
}

void SourceTest::contentRangesAreParsed_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("isValid");
    const auto row = [](const char* text, bool isValid) {
        QTest::newRow(text) << QString::fromLatin1(text) << isValid;
    };
    row("bytes 0-9/10", true);
    row("bytes 0-0/1", true);
    row("bytes 5-9/*", true);
    row("bytes 9-5/10", false);
    row("bytes 0-9/9", false);
    row("bytes 0-9", false);
    row("bytes 0-9/", false);
    row("bytes 0-9/10x", false);
    row("bytes -1-9/10", false);
    row("bytes */10", false);
    row("bytes 0-18446744073709551616/*", false);
    row("lines 0-9/10", false);
    row("", false);
}

void SourceTest::contentRangesAreParsed()
{
    QFETCH(QString, text);
    QFETCH(bool, isValid);
    QCOMPARE(vl::parseContentRange(text.toStdString()).has_value(), isValid);
}

QTEST_GUILESS_MAIN(SourceTest)
#include "sourcetest.moc"
