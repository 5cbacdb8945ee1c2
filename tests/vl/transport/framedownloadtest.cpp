#include "vl/src/transport/framedownload.h"

#include "tests/vl/transport/transportfixture.h"
#include "vl/src/platform/file.h"
#include "vl/src/transport/partfile.h"

#include <QTest>

#include <algorithm>
#include <mutex>

using testsupport::Misbehaviour;
using vl::Expected;

namespace {

constexpr std::size_t frameSize = 200'000;
constexpr std::size_t frameCount = 5;
constexpr std::size_t packSize = frameSize * frameCount;
const std::vector<std::size_t> allFrames{0, 1, 2, 3, 4};

/// What the server does, the code and the number of requests that come of it, and bytes kept.
using Case = std::tuple<Misbehaviour, int, int, std::uint64_t>;

} // namespace

class FrameDownloadTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void packsSurviveServers_data();
    void packsSurviveServers();
    void partFilesAreVerified_data();
    void partFilesAreVerified();

private:
    Expected<void> download(const std::string& repository = {});
    void expectComplete();

    TransportFixture m_fixture;
    const std::string m_bytes = TransportFixture::noise(packSize);
    vl::Pack m_pack;
    std::string m_path;
    std::filesystem::path m_part;
    std::vector<std::size_t> m_ready;
};

void FrameDownloadTest::initTestCase()
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
    m_part = m_fixture.root() / "pack.part";
}

void FrameDownloadTest::init()
{
    m_fixture.server().reset();
    QVERIFY(vl::removeFile(m_part));
    QVERIFY(vl::removeFile(vl::haveFile(m_part)));
}

Expected<void> FrameDownloadTest::download(const std::string& repository)
{
    m_ready.clear();
    std::mutex mutex;
    LoggedOperation operation;
    return vl::downloadFrames([&](std::size_t) { return m_fixture.open(repository); },
                              {m_path, packSize, m_pack.frames}, allFrames, m_part, *operation,
                              [&](std::size_t frame) -> Expected<void> {
                                  const std::lock_guard lock(mutex);
                                  m_ready.push_back(frame);
                                  return {};
                              });
}

void FrameDownloadTest::expectComplete()
{
    QVERIFY(vl::readWholeFile(m_part, packSize).value() == m_bytes);
    std::ranges::sort(m_ready); // scattered frames arrive in any order
    QCOMPARE(m_ready, allFrames);
}

void FrameDownloadTest::packsSurviveServers_data()
{
    QTest::addColumn<Case>("row");
    const auto row = [](const char* name, const Misbehaviour& fault, int code, int requests,
                        std::size_t frames) {
        QTest::newRow(name) << Case{fault, code, requests, frames * frameSize};
    };
    row("good", {}, vlupd::OK, 1, 5);
    row("cut for ever", {.cutAfter = 450'000}, vlupd::OK, 3, 5);
    row("ignored, cut", {.times = 1, .ignoreRange = true, .cutAfter = 700'000}, vlupd::OK, 2, 5);
    row("last byte wrong once", {.times = 1, .flipByteAt = packSize - 1}, vlupd::OK, 2, 5);
    row("changed under a resume",
        {.times = 1, .entityTag = "\"old\"", .flipByteAt = 410'000, .cutAfter = 450'000}, vlupd::OK,
        3, 5);
    row("wrong byte for ever", {.flipByteAt = 500'000}, vlupd::BROKEN_OR_MISSING, 2, 2);
    row("too short a file told", {.totalError = -1}, vlupd::CONTENT_LEN_ERROR, 1, 0);
    row("endless", {.endless = true}, vlupd::CONTENT_LEN_ERROR, 1, 5);
}

void FrameDownloadTest::packsSurviveServers()
{
    QFETCH(Case, row);
    const auto& [fault, code, requests, kept] = row;
    m_fixture.server().misbehave('/' + m_path, fault);
    const auto result = download();
    const std::string words = result ? std::string() : result.error().message;
    QVERIFY2((result ? vlupd::OK : result.error().code) == code, words.c_str());
    QCOMPARE(m_fixture.server().requests(), requests);
    QCOMPARE(vl::arrivedBytes(m_part, m_pack.frames, allFrames), kept);
    if (code == vlupd::BROKEN_OR_MISSING)
        QVERIFY2(words.find("at byte 400000") != std::string::npos, words.c_str());
    // Whatever happened, the next run goes on with what is there.
    const testsupport::HttpServer good(m_fixture.folder());
    QVERIFY(download(good.address()));
    expectComplete();
    QCOMPARE(good.bytesSent(), packSize - kept);
}

void FrameDownloadTest::partFilesAreVerified_data()
{
    QTest::addColumn<QByteArray>("part");
    QTest::addColumn<QByteArray>("marks");
    QTest::addColumn<int>("requests");
    QTest::addColumn<quint64>("bytes");
    const auto row = [](const char* name, const std::string& part, const char* marks, int requests,
                        std::size_t frames) {
        QTest::newRow(name) << QByteArray::fromStdString(part) << QByteArray(marks) << requests
                            << quint64(frames * frameSize);
    };
    std::string damaged = m_bytes;
    damaged[frameSize + 1] = static_cast<char>(damaged[frameSize + 1] ^ 1);
    row("two frames and a half", m_bytes.substr(0, frameSize * 5 / 2), "11", 1, 3);
    row("complete", m_bytes + "rubbish", "11111 rubbish", 0, 0);
    row("complete with one wrong byte", damaged, "11111", 1, 1);
    row("scattered", damaged, "11101", 2, 2);
    row("marks of what is not there", {}, "11111", 1, 5);
    row("no marks", m_bytes, "", 1, 5);
}

void FrameDownloadTest::partFilesAreVerified()
{
    QFETCH(QByteArray, part);
    QFETCH(QByteArray, marks);
    QFETCH(int, requests);
    QFETCH(quint64, bytes);
    QVERIFY(vl::writeWholeFile(m_part, part.toStdString()));
    QVERIFY(vl::writeWholeFile(vl::haveFile(m_part), marks.toStdString()));
    QVERIFY(download());
    QCOMPARE(m_fixture.server().requests(), requests);
    QCOMPARE(quint64(m_fixture.server().bytesSent()), bytes);
    QVERIFY(vl::readWholeFile(m_part, 2 * packSize).value().starts_with(m_bytes));
}

QTEST_GUILESS_MAIN(FrameDownloadTest)
#include "framedownloadtest.moc"
