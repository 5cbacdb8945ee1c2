#include "tests/support/httpserver.h"
#include "tests/vl/install/installfixture.h"
#include "tests/vl/transport/transportfixture.h"
#include "vl/src/install/library.h"

#include <QTest>

#include <algorithm>
#include <memory>

using namespace std::chrono_literals;
using testsupport::HttpServer;
using testsupport::Misbehaviour;

namespace fs = std::filesystem;

namespace {

/// What is done to a root or the server.
using Spoil = std::function<void(const fs::path& root)>;
/// The code, the words in the log, and what leads to them.
using Bad = std::tuple<int, const char*, Spoil>;

// As patient as a test may be, and never silent after a failure.
const vl::CatalogueService::Limits impatient{.pauseAfterFailure = 0ms,
                                             .transport = TransportFixture::impatient()};

} // namespace

class InstallTransferTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init() { m_server->reset(); }
    void badInput_data();
    void badInput();
    void totalsAreTrue();

private:
    std::unique_ptr<Releases> m_releases;
    std::unique_ptr<HttpServer> m_server;
    std::string m_pack; ///< path of the new version's pack
    std::uint64_t m_packSize = 0;
};

void InstallTransferTest::initTestCase()
{
    m_releases = std::make_unique<Releases>(true);
    m_releases->publish("1.0.0", {{"bin/simulator", "the simulator"}});
    // The long file's pieces lie in two frames.
    m_releases->publish("2.0.0", {{"bin/simulator", "a newer simulator"},
                                  {"long", someBytes(18U << 20U, 1)},
                                  {"other", someBytes(6U << 20U, 2)}});
    m_server = std::make_unique<HttpServer>(m_releases->folder());
    std::tie(m_pack, m_packSize) = m_releases->pack("2.0.0");
}

void InstallTransferTest::badInput_data()
{
    QTest::addColumn<Bad>("bad");
    const auto row = [](const char* name, int expected, const char* words, const Spoil& spoil) {
        QTest::newRow(name) << Bad{expected, words, spoil};
    };
    const auto server = [&](const char* name, const Misbehaviour& misbehaviour, int expected,
                            const char* words, const std::string& path = {}) {
        row(name, expected, words, [=, this](const fs::path&) {
            m_server->misbehave(path.empty() ? m_pack : path, misbehaviour);
        });
    };
    std::string manifest;
    std::string others;
    for (const auto& [path, text] : filesIn(m_releases->folder() / "manifests")) {
        if (text.find(R"("version":"2.0.0")") != std::string::npos)
            manifest = "/manifests/" + path;
        else
            others = text;
    }
    server("cut once", {.times = 1, .cutAfter = m_packSize / 2}, vlupd::OK, "");
    server("cut again and again", {.cutAfter = 0}, vlupd::RSYNC_ERROR, "/packs/");
    server("Range ignored", {.times = 2, .ignoreRange = true, .cutAfter = m_packSize / 3},
           vlupd::OK, "");
    server("too short", {.lengthError = -1000, .totalError = -1000, .bodyError = -1000},
           vlupd::CONTENT_LEN_ERROR, "/packs/");
    server("one byte once", {.times = 1, .flipByteAt = m_packSize / 2}, vlupd::OK, "damaged");
    server("tampered pack", {.flipByteAt = m_packSize / 2}, vlupd::BROKEN_OR_MISSING, "damaged");
    server("not there", {.status = 404}, vlupd::RSYNC_ERROR, "404");
    server("500, then good", {.times = 1, .status = 500}, vlupd::OK, "500");
    server("stall", {.times = 1, .stallAfter = 0}, vlupd::OK, "");
    server("arbitrary signature", {.body = "untrusted comment: none\nnothing\n"},
           vlupd::UPDATER_DATA_ERROR, "not a minisign signature", "/catalogue.json.minisig");
    server("tampered manifest", {.flipByteAt = 20}, vlupd::BROKEN_OR_MISSING, "/manifests/",
           manifest);
    constexpr int length = vlupd::CONTENT_LEN_ERROR;
    server("truncated manifest", {.body = "{}"}, length, "/manifests/", manifest);
    server("endless manifest", {.endless = true}, length, "/manifests/", manifest);
    server("manifest of another version", {.body = others}, length, "/manifests/", manifest);

    // `before` replaced in vl.json
    const auto config = [&](const char* name, int expected, const char* words,
                            const std::string& before, const std::string& after) {
        row(name, expected, words, [=](const fs::path& root) {
            std::string text = filesIn(root).at("vl.json");
            writeFile(root / "vl.json", text.replace(text.find(before), before.size(), after));
        });
    };
    constexpr int wrongData = vlupd::UPDATER_DATA_ERROR;
    row("no vl.json", wrongData, "vl.json: No such file",
        [](const fs::path& root) { fs::remove(root / "vl.json"); });
    config("no JSON", wrongData, "vl.json: not valid JSON", "{", "repository=x {");
    config("no key", wrongData, "vl.json: \"publicKeys\"", "publicKeys", "x");
    config("strange address", wrongData, "reached by ftp", "http:", "ftp:");
    config("unreadable address", wrongData, "cannot be read", "http:", "http:// ");
    config("other id", wrongData, "vl.json names x", "{", R"({"repositoryId":"x",)");
    config("nothing there", vlupd::RSYNC_ERROR, "/nowhere/", m_server->address(), "nowhere");
    row("file in a folder's place", vlupd::CREATE_DIR_ERROR, "simulator.vl",
        [](const fs::path& root) { writeFile(root / "simulator.vl", "a file"); });
}

// Either it is made good, or one line says why and the old version stays.
void InstallTransferTest::badInput()
{
    QFETCH(Bad, bad);
    const auto& [expected, words, spoil] = bad;
    // A wrong signature matters only where no catalogue was verified before.
    const bool early = qstrcmp(QTest::currentDataTag(), "arbitrary signature") == 0;
    const Root root(*m_releases, m_server->address(), true);
    const std::string config = filesIn(root.path()).at("vl.json");
    LogLines log;
    vl::Library library(root.path(), false, &log, impatient);
    if (!early)
        QCOMPARE(library.install("1.0.0", {}, {}), vlupd::OK);
    QVERIFY(library.cleanDownloads(0min));
    log.lines.clear();
    spoil(root.path());
    Recorder recorder;
    const int result = library.install("2.0.0", recorder.progress(), recorder.stage());
    QVERIFY2(result == expected, (std::to_string(result) + "\n" + log.text()).c_str());
    QVERIFY2(log.contains(words), log.text().c_str());
    if (expected == vlupd::OK) {
        QCOMPARE(recorder.fault(), QString());
    } else {
        QVERIFY2(log.lines.back().starts_with("installVersion 2.0.0: ") &&
                     log.lines.back().find(words) != std::string::npos,
                 log.text().c_str());
        if (fs::is_regular_file(root.path() / "simulator.vl"))
            fs::remove(root.path() / "simulator.vl");
        QCOMPARE(promiseFault(root, *m_releases, {early ? "" : "1.0.0"}), QString());
        m_server->reset();
        writeFile(root.path() / "vl.json", config);
        const int again = library.install("2.0.0", {}, {});
        QVERIFY2(again == vlupd::OK, log.text().c_str());
    }
    QCOMPARE(promiseFault(root, *m_releases, {"2.0.0"}), QString());
    QCOMPARE(root.leftovers(), QString());
}

void InstallTransferTest::totalsAreTrue()
{
    const Root root(*m_releases, m_server->address(), true);
    vl::Library library(root.path(), false, nullptr, impatient);
    // The server stalls near the end, so that the reports there are seen.
    m_server->misbehave(m_pack, {.stallAfter = m_packSize * 7 / 8});
    Recorder first;
    first.goOn = [&](const Recorder::Report& report) { return report.done < m_packSize * 3 / 4; };
    QCOMPARE(library.install("2.0.0", first.progress(), first.stage()), vlupd::UNKNOWN_ERROR);
    QCOMPARE(first.reports.back().total, m_packSize);
    const vl::Manifest manifest = m_releases->manifest("2.0.0");
    std::uint64_t read = 0; // of staged files that are whole
    std::uint64_t staged = 0;
    for (const auto& [path, size] : root.staged()) {
        staged += size;
        const vl::ManifestFile& file = manifest.files.at(std::stoul(fs::path(path).filename()));
        read += size == file.size ? size : 0;
    }
    QVERIFY(staged > m_packSize / 4);
    m_server->reset();
    Recorder second;
    QCOMPARE(library.install("2.0.0", second.progress(), second.stage()), vlupd::OK);
    QCOMPARE(second.fault(), QString());
    const auto last = std::ranges::find(second.reports, 2, &Recorder::Report::stage) - 1;
    QCOMPARE(last->total, read + m_server->bytesSent(m_pack));
    QVERIFY(m_server->bytesSent(m_pack) < m_packSize);
    QCOMPARE(promiseFault(root, *m_releases, {"2.0.0"}), QString());
}

QTEST_GUILESS_MAIN(InstallTransferTest)
#include "installtransfertest.moc"
