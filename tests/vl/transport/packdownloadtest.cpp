#include "vl/src/transport/packdownload.h"

#include "tests/vl/transport/transportfixture.h"
#include "vl/src/platform/file.h"

#include <QTest>

#include <cerrno>

using testsupport::Misbehaviour;
using vl::Expected;

Q_DECLARE_METATYPE(Misbehaviour)

namespace {

constexpr std::size_t frameSize = 200'000;
constexpr std::size_t frameCount = 5;
constexpr std::size_t packSize = frameSize * frameCount;

} // namespace

class PackDownloadTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup() { vl::setFileFault({}); }

    void packsSurviveServers_data();
    void packsSurviveServers();
    void partFilesAreVerified_data();
    void partFilesAreVerified();
    void fullDiskKeepsWhatIsThere();
    void failingFrameEndsTheDownload();
    void cancelledDownloadGoesOn();
    void everyByteIsCountedOnce();

private:
    Expected<void> download(vl::Operation& operation, const vl::FrameReady& ready = {},
                            const std::string& repository = {});
    std::string partText() const { return vl::readWholeFile(m_part, packSize + 1000).value(); }

    TransportFixture m_fixture;
    const std::string m_bytes = TransportFixture::noise(packSize);
    vl::Pack m_pack;
    std::string m_path;
    std::filesystem::path m_part;
    std::vector<std::size_t> m_ready;
};

void PackDownloadTest::initTestCase()
{
    m_pack.size = packSize;
    m_pack.hash = vl::hashOf(m_bytes);
    for (std::size_t i = 0; i < frameCount; ++i) {
        vl::Frame frame;
        frame.offset = i * frameSize;
        frame.size = frameSize;
        frame.hash = vl::hashOf(std::string_view(m_bytes).substr(i * frameSize, frameSize));
        m_pack.frames.push_back(frame);
    }
    m_path = vl::packPath(m_pack.hash);
    m_fixture.write(m_path, m_bytes);
    m_part = m_fixture.root() / "downloads" / "pack.part";
}

void PackDownloadTest::init()
{
    m_fixture.server().reset();
    m_ready.clear();
    QVERIFY(vl::removeFile(m_part));
    QVERIFY(vl::makeDirectories(m_part.parent_path()));
}

Expected<void> PackDownloadTest::download(vl::Operation& operation, const vl::FrameReady& ready,
                                          const std::string& repository)
{
    m_ready.clear();
    return vl::downloadPack(*m_fixture.open(repository), m_pack, m_part, operation,
                            [&](std::size_t frame) -> Expected<void> {
                                m_ready.push_back(frame);
                                return ready ? ready(frame) : Expected<void>();
                            });
}

void PackDownloadTest::packsSurviveServers_data()
{
    QTest::addColumn<Misbehaviour>("fault");
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("requests");
    QTest::addColumn<quint64>("kept");

    const auto row = [](const char* name, Misbehaviour fault, int code, int requests,
                        std::size_t keptFrames) {
        QTest::newRow(name) << fault << code << requests << quint64(keptFrames * frameSize);
    };
    row("good", {}, vlupd::OK, 1, 5);
    row("ranges ignored and cut", {.times = 1, .ignoreRange = true, .cutAfter = 700'000}, vlupd::OK,
        2, 5);
    row("one wrong byte once", {.times = 1, .flipByteAt = 500'000}, vlupd::OK, 2, 5);
    row("first byte wrong once", {.times = 1, .flipByteAt = 0}, vlupd::OK, 2, 5);
    row("last byte wrong once", {.times = 1, .flipByteAt = packSize - 1}, vlupd::OK, 2, 5);
    row("one wrong byte for ever", {.flipByteAt = 500'000}, vlupd::BROKEN_OR_MISSING, 2, 2);
    row("too short a file told", {.totalError = -1}, vlupd::CONTENT_LEN_ERROR, 1, 0);
    row("endless", {.endless = true}, vlupd::CONTENT_LEN_ERROR, 1, 5);
    row("no such pack", {.status = 404}, vlupd::RSYNC_ERROR, 1, 0);
    row("cut for ever", {.cutAfter = 450'000}, vlupd::OK, 3, 5);
    row("page", {.body = "<html>", .contentType = "text/html"}, vlupd::UPDATER_DATA_ERROR, 1, 0);
}

void PackDownloadTest::packsSurviveServers()
{
    QFETCH(Misbehaviour, fault);
    QFETCH(int, code);
    QFETCH(int, requests);
    QFETCH(quint64, kept);
    m_fixture.server().misbehave('/' + m_path, fault);

    LoggedOperation operation;
    const auto result = download(*operation);
    const std::string words = result ? std::string() : result.error().message;
    QVERIFY2((result ? vlupd::OK : result.error().code) == code, words.c_str());
    QCOMPARE(m_fixture.server().requests(), requests);
    QCOMPARE(quint64(vl::resumableBytes(m_part, m_pack)), kept);
    if (result)
        QVERIFY(partText() == m_bytes);
    if (code == vlupd::BROKEN_OR_MISSING) {
        QVERIFY2(words.find(m_fixture.server().address()) != std::string::npos, words.c_str());
        QVERIFY2(words.find("at byte 400000") != std::string::npos, words.c_str());
    }

    // Whatever happened, the next run goes on with what is there.
    testsupport::HttpServer good(m_fixture.folder());
    QVERIFY(download(*operation, {}, good.address()));
    QVERIFY(partText() == m_bytes);
    QCOMPARE(m_ready, (std::vector<std::size_t>{0, 1, 2, 3, 4}));
    QCOMPARE(quint64(good.bytesSent()), packSize - kept);
}

void PackDownloadTest::partFilesAreVerified_data()
{
    QTest::addColumn<QByteArray>("part");
    QTest::addColumn<int>("requests");
    QTest::addColumn<quint64>("bytes");

    const auto row = [](const char* name, const std::string& part, int requests,
                        std::size_t bytes) {
        QTest::newRow(name) << QByteArray::fromStdString(part) << requests << quint64(bytes);
    };
    std::string damaged = m_bytes;
    damaged[frameSize + 1] = static_cast<char>(damaged[frameSize + 1] ^ 1);
    row("empty", {}, 1, packSize);
    row("less than a frame", m_bytes.substr(0, frameSize - 1), 1, packSize);
    row("two frames and a half", m_bytes.substr(0, frameSize * 5 / 2), 1, frameSize * 3);
    row("complete", m_bytes, 0, 0);
    row("too long", m_bytes + "rubbish", 0, 0);
    row("complete with one wrong byte", damaged, 1, frameSize);
    row("part with one wrong byte", damaged.substr(0, frameSize * 3), 2, frameSize * 3);
    row("zeros", std::string(packSize, '\0'), 5, packSize);
}

void PackDownloadTest::partFilesAreVerified()
{
    QFETCH(QByteArray, part);
    QFETCH(int, requests);
    QFETCH(quint64, bytes);
    QVERIFY(vl::writeWholeFile(m_part, part.toStdString()));
    LoggedOperation operation;
    QVERIFY(download(*operation));
    QVERIFY(partText() == m_bytes);
    QCOMPARE(m_ready, (std::vector<std::size_t>{0, 1, 2, 3, 4}));
    QCOMPARE(m_fixture.server().requests(), requests);
    QCOMPARE(quint64(m_fixture.server().bytesSent()), bytes);
}

void PackDownloadTest::fullDiskKeepsWhatIsThere()
{
    LoggedOperation operation;
    const auto ready = [](std::size_t frame) -> Expected<void> {
        if (frame == 2)
            vl::setFileFault([](vl::FileOperation what, const std::filesystem::path&) {
                return what == vl::FileOperation::Write ? std::optional<int>(ENOSPC) : std::nullopt;
            });
        return {};
    };
    const auto result = download(*operation, ready);
    vl::setFileFault({});
    QVERIFY(!result);
    QCOMPARE(int(result.error().code), int(vlupd::SYSTEM_CALL_ERROR));
    QCOMPARE(quint64(vl::resumableBytes(m_part, m_pack)), quint64(3 * frameSize));
}

void PackDownloadTest::failingFrameEndsTheDownload()
{
    LoggedOperation operation;
    const auto result = download(*operation, [](std::size_t frame) -> Expected<void> {
        if (frame == 1)
            return vl::failure(vlupd::SYSTEM_CALL_ERROR, "unpack");
        return {};
    });
    QVERIFY(!result);
    QCOMPARE(result.error().message.substr(result.error().message.size() - 6),
             std::string("unpack"));
    QCOMPARE(m_fixture.server().requests(), 1);
}

void PackDownloadTest::cancelledDownloadGoesOn()
{
    m_fixture.server().misbehave('/' + m_path, {.times = 1, .stallAfter = 500'000});
    LoggedOperation operation;
    const auto result = download(*operation, [&operation](std::size_t frame) -> Expected<void> {
        if (frame == 1)
            operation->cancel();
        return {};
    });
    QVERIFY(!result);
    QCOMPARE(int(result.error().code), int(vlupd::UNKNOWN_ERROR));
    LoggedOperation next;
    QVERIFY(download(*next));
    QVERIFY(partText() == m_bytes);
    // Twice was sent at most the frame that had begun.
    QVERIFY(m_fixture.server().bytesSent() <= packSize + frameSize);
}

void PackDownloadTest::everyByteIsCountedOnce()
{
    std::string damaged = m_bytes.substr(0, frameSize * 2);
    damaged[5] = static_cast<char>(damaged[5] ^ 1);
    QVERIFY(vl::writeWholeFile(m_part, damaged));
    m_fixture.server().misbehave('/' + m_path, {.skip = 1, .times = 1, .flipByteAt = 500'000});
    const std::uint64_t atStart = vl::resumableBytes(m_part, m_pack);
    QCOMPARE(quint64(atStart), quint64(2 * frameSize));

    // Ten times the total, so that counting twice would show.
    std::uint64_t done = 0;
    LoggedOperation operation([&done](std::uint64_t, std::uint64_t soFar, std::uint64_t) {
        done = soFar;
        return true;
    });
    operation->beginStage(vlupd::STAGE_DOWNLOADING, atStart, 10 * packSize);
    QVERIFY(download(*operation));
    QTRY_VERIFY2(operation->pump() && done >= packSize, "no report came");
    QCOMPARE(quint64(done), quint64(packSize));
}

QTEST_GUILESS_MAIN(PackDownloadTest)
#include "packdownloadtest.moc"
