#include "vl/src/transport/framedownload.h"

#include "tests/vl/transport/transportfixture.h"

#include <QTest>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>

using namespace std::chrono_literals;
using testsupport::Misbehaviour;
using vl::Expected;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t frameSize = 200'000;
constexpr std::size_t frameCount = 12;
constexpr std::size_t packSize = frameSize * frameCount;
const std::vector<vl::FrameChain> oneRow{{0}, {1, 2}, {3}, {4}};

/// What the server does, the code that comes of it, the number of requests, and the frames taken.
using Case = std::tuple<Misbehaviour, int, int, std::size_t>;

/// A file of frames on the server.
struct Pack
{
    Pack(const TransportFixture& fixture, std::string text, std::size_t sizeOfFrames)
        : bytes(std::move(text)), path(vl::packPath(vl::hashOf(bytes)))
    {
        for (std::size_t offset = 0; offset < bytes.size(); offset += sizeOfFrames) {
            vl::Frame frame;
            frame.offset = offset;
            frame.size = sizeOfFrames;
            frame.hash = vl::hashOf(std::string_view(bytes).substr(offset, sizeOfFrames));
            frames.push_back(frame);
        }
        fixture.write(path, bytes);
    }

    const std::string bytes;
    const std::string path;
    std::vector<vl::Frame> frames;
};

} // namespace

class FrameDownloadTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void survivesServers_data();
    void survivesServers();
    void chainsStayTogether();
    void severalConnections_data();
    void severalConnections();
    void endsQuickly_data();
    void endsQuickly();

private:
    Expected<void> download(const Pack& pack, const std::vector<vl::FrameChain>& chains,
                            const vl::FrameSink& sink = {}, vl::Operation::Progress progress = {});

    TransportFixture m_fixture;
    const Pack m_pack{m_fixture, TransportFixture::noise(packSize), frameSize};
    vl::SourceOptions m_options = TransportFixture::impatient();
    std::mutex m_mutex;
    std::vector<std::pair<std::size_t, std::size_t>> m_taken; ///< transfer and frame
    bool m_isRight = true;                                    ///< frames had their own bytes
};

void FrameDownloadTest::init()
{
    m_fixture.server().reset();
    m_options = TransportFixture::impatient();
}

Expected<void> FrameDownloadTest::download(const Pack& pack,
                                           const std::vector<vl::FrameChain>& chains,
                                           const vl::FrameSink& sink,
                                           vl::Operation::Progress progress)
{
    m_taken.clear();
    vl::Log log;
    vl::Operation operation(log, std::move(progress), {}, "test");
    operation.beginStage(vlupd::STAGE_DOWNLOADING, 0, pack.bytes.size());
    return vl::downloadFrames(
        [&](std::size_t) {
            return Expected<std::unique_ptr<vl::Source>>(m_fixture.open({}, m_options));
        },
        {pack.path, pack.bytes.size(), pack.frames}, chains, operation,
        [&](std::size_t transfer, std::size_t frame, std::span<const std::byte> bytes) {
            {
                const std::lock_guard lock(m_mutex);
                m_taken.emplace_back(transfer, frame);
                const auto own = std::string_view(pack.bytes)
                                     .substr(pack.frames[frame].offset, pack.frames[frame].size);
                m_isRight = m_isRight && std::ranges::equal(bytes, std::as_bytes(std::span(own)));
            }
            return sink ? sink(transfer, frame, bytes) : Expected<void>();
        });
}

void FrameDownloadTest::survivesServers_data()
{
    QTest::addColumn<Case>("row");
    const auto row = [](const char* name, const Misbehaviour& fault, int code, int requests,
                        std::size_t frames) {
        QTest::newRow(name) << Case{fault, code, requests, frames};
    };
    row("good", {}, vlupd::OK, 1, 5);
    row("cut for ever", {.cutAfter = 450'000}, vlupd::OK, 3, 5);
    row("ignored, cut", {.times = 1, .ignoreRange = true, .cutAfter = 700'000}, vlupd::OK, 2, 5);
    row("last byte wrong once", {.times = 1, .flipByteAt = 5 * frameSize - 1}, vlupd::OK, 2, 5);
    row("changed under a resume",
        {.times = 1, .entityTag = "\"old\"", .flipByteAt = 410'000, .cutAfter = 450'000}, vlupd::OK,
        3, 5);
    row("wrong byte for ever", {.flipByteAt = 500'000}, vlupd::BROKEN_OR_MISSING, 2, 2);
    row("too short a file told", {.totalError = -1}, vlupd::CONTENT_LEN_ERROR, 1, 0);
}

void FrameDownloadTest::survivesServers()
{
    QFETCH(Case, row);
    const auto& [fault, code, requests, frames] = row;
    m_fixture.server().misbehave('/' + m_pack.path, fault);
    const auto result = download(m_pack, oneRow);
    const std::string words = result ? std::string() : result.error().message;
    QVERIFY2((result ? vlupd::OK : result.error().code) == code, words.c_str());
    QCOMPARE(m_fixture.server().requests(), requests);
    QVERIFY(m_isRight);
    QCOMPARE(m_taken.size(), frames);
    for (std::size_t i = 0; i < frames; ++i)
        QCOMPARE(m_taken[i].second, i);
    if (code == vlupd::BROKEN_OR_MISSING)
        QVERIFY2(words.find(m_fixture.server().address() + '/' + m_pack.path) == 0 &&
                     words.find("at byte 400000") != std::string::npos,
                 words.c_str());
}

// A file is written by one thread, from its first byte to its last.
void FrameDownloadTest::chainsStayTogether()
{
    const std::vector<vl::FrameChain> chains{{0, 2, 3}, {5}, {7, 9, 10, 11}};
    QVERIFY(download(m_pack, chains));
    std::map<std::size_t, std::size_t> transferOf;
    std::map<std::size_t, std::size_t> orderOf;
    for (const auto& [transfer, frame] : m_taken) {
        transferOf[frame] = transfer;
        orderOf[frame] = orderOf.size();
    }
    QVERIFY(m_isRight);
    QCOMPARE(m_taken.size(), 8U);
    QCOMPARE(orderOf.size(), 8U);
    for (const vl::FrameChain& chain : chains)
        for (std::size_t i = 1; i < chain.size(); ++i)
            QVERIFY(transferOf.at(chain[i]) == transferOf.at(chain[i - 1]) &&
                    orderOf.at(chain[i]) > orderOf.at(chain[i - 1]));
    // Nothing of what lies between was fetched.
    QCOMPARE(m_fixture.server().bytesSent(), 8 * frameSize);
}

void FrameDownloadTest::severalConnections_data()
{
    QTest::addColumn<bool>("scattered");
    QTest::addColumn<std::size_t>("connections");
    QTest::newRow("scattered frames") << true << vl::maxTransfers;
    QTest::newRow("a long stretch") << false << std::size_t(2);
}

// The first frame of each connection waits for those of the others.
void FrameDownloadTest::severalConnections()
{
    QFETCH(bool, scattered);
    QFETCH(std::size_t, connections);
    std::optional<Pack> large;
    if (!scattered)
        large.emplace(m_fixture, std::string(65U << 20U, 'x'), 13U << 20U);
    const std::vector<vl::FrameChain> chains =
        scattered ? std::vector<vl::FrameChain>{{0}, {2}, {4}, {6}, {8}, {10}}
                  : std::vector<vl::FrameChain>{{0}, {1}, {2}, {3}, {4}};
    std::mutex mutex;
    std::condition_variable changed;
    std::set<std::size_t> transfers;
    QVERIFY(download(scattered ? m_pack : *large, chains, [&](std::size_t transfer, auto, auto) {
        std::unique_lock lock(mutex);
        transfers.insert(transfer);
        changed.notify_all();
        changed.wait_for(lock, 10s, [&] { return transfers.size() == connections; });
        return Expected<void>();
    }));
    QCOMPARE(transfers.size(), connections);
    QCOMPARE(m_taken.size(), chains.size());
    QVERIFY(m_isRight);
}

void FrameDownloadTest::endsQuickly_data()
{
    QTest::addColumn<bool>("cancelled");
    QTest::newRow("the sink fails") << false;
    QTest::newRow("the caller ends it") << true;
}

// All connections but one stall meanwhile, and have the patience of a real client.
void FrameDownloadTest::endsQuickly()
{
    QFETCH(bool, cancelled);
    m_options.stallTimeout = 30s;
    m_fixture.server().misbehave('/' + m_pack.path, {.skip = 1, .stallAfter = 1000});
    Clock::time_point ended;
    bool goesOn = true;
    const auto result = download(
        m_pack, {{0}, {2}, {4}, {6}},
        [&](auto, auto, auto) -> Expected<void> {
            const std::lock_guard lock(m_mutex);
            ended = Clock::now();
            goesOn = false;
            return cancelled ? Expected<void>() : vl::failure(vlupd::SYSTEM_CALL_ERROR, "no room");
        },
        [&](auto, auto, auto) {
            const std::lock_guard lock(m_mutex);
            return goesOn || !cancelled;
        });
    QVERIFY(!result);
    QCOMPARE(int(result.error().code),
             int(cancelled ? vlupd::UNKNOWN_ERROR : vlupd::SYSTEM_CALL_ERROR));
    QCOMPARE(m_taken.size(), 1U);
    // The callback is asked once a second, and the end takes no longer than another one.
    QVERIFY(Clock::now() - ended < 5s);
}

QTEST_GUILESS_MAIN(FrameDownloadTest)
#include "framedownloadtest.moc"
