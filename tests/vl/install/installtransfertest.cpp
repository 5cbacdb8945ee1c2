#include "tests/support/httpserver.h"
#include "tests/vl/install/installfixture.h"
#include "vl/src/install/library.h"

#include <QTest>

#include <memory>

using namespace std::chrono_literals;
using testsupport::HttpServer;
using testsupport::Misbehaviour;

namespace {

// As patient as a test may be, and never silent after a failure.
vl::CatalogueService::Limits impatient()
{
    vl::CatalogueService::Limits limits;
    limits.pauseAfterFailure = 0ms;
    limits.transport.connectTimeout = 5000ms;
    limits.transport.stallTimeout = 1s;
    limits.transport.firstPause = 1ms;
    limits.transport.longestPause = 5ms;
    limits.transport.rangeRetries = 2;
    return limits;
}

} // namespace

class InstallTransferTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init() { m_server->reset(); }
    void badServers_data();
    void badServers();
    void resumesWhereItEnded();

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

void InstallTransferTest::badServers_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<Misbehaviour>("misbehaviour");
    QTest::addColumn<int>("expected");
    QTest::addColumn<QString>("words");
    const auto row = [this](const char* name, const Misbehaviour& misbehaviour, int expected,
                            const char* words, const std::string& path = {}) {
        QTest::newRow(name) << QString::fromStdString(path.empty() ? m_pack : path) << misbehaviour
                            << expected << QString::fromLatin1(words);
    };
    row("cut once", {.times = 1, .cutAfter = m_packSize / 2}, vlupd::OK, "");
    row("cut again and again", {.cutAfter = 0}, vlupd::RSYNC_ERROR, "/packs/");
    row("Range ignored", {.times = 2, .ignoreRange = true, .cutAfter = m_packSize / 3}, vlupd::OK,
        "");
    row("too short", {.lengthError = -1000, .totalError = -1000, .bodyError = -1000},
        vlupd::CONTENT_LEN_ERROR, "/packs/");
    row("one byte once", {.times = 1, .flipByteAt = m_packSize / 2}, vlupd::OK, "damaged");
    row("one byte always", {.flipByteAt = m_packSize / 2}, vlupd::BROKEN_OR_MISSING, "damaged");
    row("not there", {.status = 404}, vlupd::RSYNC_ERROR, "404");
    row("500, then good", {.times = 1, .status = 500}, vlupd::OK, "500");
    row("stall", {.times = 1, .stallAfter = m_packSize / 2}, vlupd::OK, "");
    row("wrong signature", {.body = "untrusted comment: none\nnothing\n"},
        vlupd::UPDATER_DATA_ERROR, "not a minisign signature", "/catalogue.json.minisig");
}

void InstallTransferTest::badServers()
{
    QFETCH(QString, path);
    QFETCH(Misbehaviour, misbehaviour);
    QFETCH(int, expected);
    QFETCH(QString, words);
    const bool early = path.contains(u"catalogue");
    const Root root(*m_releases, m_server->address(), true);
    LogLines log;
    vl::Library library(root.path(), false, &log, impatient());
    if (!early)
        QCOMPARE(library.install("1.0.0", {}, {}), vlupd::OK);
    m_server->misbehave(path.toStdString(), misbehaviour);
    Recorder recorder;
    const int result = library.install("2.0.0", recorder.progress(), recorder.stage());
    QVERIFY2(result == expected, (std::to_string(result) + "\n" + log.text()).c_str());
    QVERIFY2(log.contains(words.toStdString()), log.text().c_str());
    if (expected == vlupd::OK) {
        QCOMPARE(recorder.fault(), QString());
    } else {
        QCOMPARE(promiseFault(root, *m_releases, {early ? "" : "1.0.0"}), QString());
        QVERIFY(log.contains("installVersion 2.0.0: "));
        m_server->reset();
        const int again = library.install("2.0.0", {}, {});
        QVERIFY2(again == vlupd::OK, log.text().c_str());
    }
    QCOMPARE(promiseFault(root, *m_releases, {"2.0.0"}), QString());
    QCOMPARE(root.leftovers(), QString());
}

void InstallTransferTest::resumesWhereItEnded()
{
    const Root root(*m_releases, m_server->address(), true);
    vl::Library library(root.path(), false, nullptr, impatient());
    // The server stalls near the end, so that the reports there are seen.
    m_server->misbehave(m_pack, {.stallAfter = m_packSize * 7 / 8});
    Recorder first;
    first.goOn = [&](const Recorder::Report& report) { return report.done < m_packSize * 3 / 4; };
    QCOMPARE(library.install("2.0.0", first.progress(), first.stage()), vlupd::UNKNOWN_ERROR);
    m_server->reset();
    Recorder second;
    QCOMPARE(library.install("2.0.0", second.progress(), second.stage()), vlupd::OK);
    QCOMPARE(second.fault(), QString());
    // At least the first frame was there; only the rest came over the wire.
    const std::uint64_t here = second.reports.front().done;
    QVERIFY(here > m_packSize / 4);
    QCOMPARE(m_server->bytesSent(m_pack), m_packSize - here);
    QCOMPARE(promiseFault(root, *m_releases, {"2.0.0"}), QString());
}

QTEST_GUILESS_MAIN(InstallTransferTest)
#include "installtransfertest.moc"
