#include "vl/src/transport/catalogueservice.h"

#include "tests/vl/transport/transportfixture.h"
#include "vl/src/formats/minisign.h"
#include "vl/src/platform/file.h"

#include <QTest>

#include <atomic>
#include <cerrno>
#include <future>
#include <sstream>

using namespace std::chrono_literals;
using testsupport::Misbehaviour;
using vl::CatalogueService;
using Limits = CatalogueService::Limits;

namespace {

constexpr std::uint64_t oldSerial = 5;
constexpr std::uint64_t newSerial = 6;

using Prepare = std::function<void()>;
/// The code and the number of requests for the signature that come of what is prepared.
using Case = std::tuple<int, int, Prepare>;

std::string catalogueText(std::uint64_t serial, const std::string& id = "varnel")
{
    return R"({"format":1,"date":"2026-01-02","versions":{},"repository":")" + id +
           R"(","serial":)" + std::to_string(serial) + "}";
}

/// So long that only a fault of the service makes a test wait for it.
const Limits patient{60s, 60s, 60s, TransportFixture::impatient()};

} // namespace

class CatalogueServiceTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup() { vl::setFileFault({}); }

    void catalogueIsBelievedOrNot_data();
    void catalogueIsBelievedOrNot();
    void otherRepositoriesAndOlderSerialsAreRefused();
    void keyChangeWithTwoKeys();
    void fetchedCatalogueIsReused();
    void budgetIsSpentOnce();
    void noNetworkAfterAFailure();
    void copySurvivesACrashWhileSaving();
    void anotherProcessSavesToo_data();
    void anotherProcessSavesToo();

private:
    std::string signatureOf(const std::string& text) const
    {
        return vl::sign(text, m_keys.secretKey, "timestamp:1");
    }
    void configure(const char* repositoryId = nullptr, std::vector<std::string> keys = {});
    void publish(const std::string& text, const std::string& signature = {});
    std::uint64_t serialOf(CatalogueService& service, bool fresh = false);
    /// The serial that a new process finds.
    std::uint64_t serialAtStart();
    testsupport::HttpServer& server() { return m_fixture->server(); }

    std::unique_ptr<TransportFixture> m_fixture;
    vl::Log m_log;
    const vl::KeyPair m_keys = vl::generateKeyPair().value();
    std::optional<vl::Error> m_error;
};

void CatalogueServiceTest::init()
{
    m_fixture = std::make_unique<TransportFixture>();
    configure();
    publish(catalogueText(newSerial));
}

void CatalogueServiceTest::configure(const char* repositoryId, std::vector<std::string> keys)
{
    if (keys.empty())
        keys.push_back(vl::writePublicKey(m_keys.publicKey));
    nlohmann::json config{{"repository", server().address()}, {"publicKeys", keys}};
    if (repositoryId != nullptr)
        config["repositoryId"] = repositoryId;
    QVERIFY(vl::writeWholeFile(m_fixture->root() / "vl.json", config.dump()));
}

void CatalogueServiceTest::publish(const std::string& text, const std::string& signature)
{
    m_fixture->write("catalogue.json", text);
    m_fixture->write("catalogue.json.minisig", signature.empty() ? signatureOf(text) : signature);
}

std::uint64_t CatalogueServiceTest::serialOf(CatalogueService& service, bool fresh)
{
    const auto catalogue = service.catalogue(fresh);
    m_error = catalogue ? std::nullopt : std::optional(catalogue.error());
    return catalogue ? (*catalogue)->serial : 0;
}

std::uint64_t CatalogueServiceTest::serialAtStart()
{
    CatalogueService service(m_fixture->root(), false, patient, m_log);
    return serialOf(service);
}

void CatalogueServiceTest::catalogueIsBelievedOrNot_data()
{
    QTest::addColumn<Case>("row");
    const auto row = [](const char* name, int code, int requests, const Prepare& prepare) {
        QTest::newRow(name) << Case{code, requests, prepare};
    };
    const auto fault = [this](const char* path, const Misbehaviour& misbehaviour) {
        return [=, this] { server().misbehave(path, misbehaviour); };
    };
    const std::string text = catalogueText(newSerial);
    const std::string others = signatureOf(catalogueText(newSerial + 1));
    const std::string strangers =
        vl::sign(text, vl::generateKeyPair().value().secretKey, "timestamp:1");
    const char* const json = "/catalogue.json";
    const char* const minisig = "/catalogue.json.minisig";
    constexpr int bad = vlupd::UPDATER_DATA_ERROR;
    row("good", vlupd::OK, 1, [] {});
    row("update in flight", vlupd::OK, 2, fault(minisig, {.times = 1, .body = others}));
    row("arbitrary, signed by a stranger", bad, 2, fault(minisig, {.body = strangers}));
    row("tampered catalogue", bad, 2, fault(json, {.flipByteAt = 30}));
    row("swapped signature", bad, 2, fault(minisig, {.body = others}));
    row("truncated catalogue", bad, 2, fault(json, {.body = text.substr(0, 40)}));
    row("truncated signature", bad, 2, fault(minisig, {.body = signatureOf(text).substr(0, 200)}));
    row("endless catalogue", vlupd::CONTENT_LEN_ERROR, 1, fault(json, {.endless = true}));
    row("endless signature", vlupd::CONTENT_LEN_ERROR, 1, fault(minisig, {.endless = true}));
    row("unsigned", vlupd::RSYNC_ERROR, 1, fault(minisig, {.status = 404}));
    row("signed rubbish", bad, 2, [this] { publish("{\"format\":1"); });
    row("log-in page", bad, 2, fault("*", {.body = "<html>", .contentType = "text/html"}));
    row("no server", vlupd::RSYNC_ERROR, 0, [this] { server().stop(); });
}

void CatalogueServiceTest::catalogueIsBelievedOrNot()
{
    QFETCH(Case, row);
    const auto& [code, signatureRequests, prepare] = row;
    const bool isGood = code == vlupd::OK;

    // Without a saved copy, what is wrong is told.
    prepare();
    QCOMPARE(serialAtStart(), isGood ? newSerial : 0);
    QCOMPARE(m_error ? int(m_error->code) : int(vlupd::OK), code);
    QCOMPARE(server().requests("/catalogue.json.minisig"), signatureRequests);

    // With one, it is used unless something better arrives.
    init();
    publish(catalogueText(oldSerial));
    QCOMPARE(serialAtStart(), oldSerial);
    publish(catalogueText(newSerial));
    prepare();
    QCOMPARE(serialAtStart(), isGood ? newSerial : oldSerial);
}

void CatalogueServiceTest::otherRepositoriesAndOlderSerialsAreRefused()
{
    QCOMPARE(serialAtStart(), newSerial);
    const auto copy = m_fixture->root() / "catalogue" / "catalogue.signed";
    const auto record = copy.parent_path() / "seen.json";
    // When the record is lost or damaged, the saved catalogue still shows what was seen.
    for (const char* damage : {"none", "missing", "{", R"({"repository":"stranger","serials":[7]})",
                               R"({"repository":"varnel","serials":{"varnel":-1}})"}) {
        if (*damage == '{')
            QVERIFY(vl::writeWholeFile(record, damage));
        publish(catalogueText(newSerial + 1, "stranger"));
        QCOMPARE(serialAtStart(), newSerial);
        publish(catalogueText(oldSerial));
        QCOMPARE(serialAtStart(), newSerial);
        std::filesystem::remove(record);
    }
    // A named change of repository and back makes nothing forget the first one's serial.
    for (const char* id : {"stranger", "varnel"}) {
        configure(id);
        publish(catalogueText(oldSerial, id));
        QCOMPARE(serialAtStart(), id == std::string("varnel") ? 0U : oldSerial);
    }
    // The copy may be put back from a backup or damaged: the memory of the serial counts.
    const std::string signature = signatureOf(catalogueText(oldSerial));
    QVERIFY(vl::writeWholeFile(copy, signature + catalogueText(oldSerial)));
    QCOMPARE(serialAtStart(), 0U);
    QCOMPARE(int(m_error->code), int(vlupd::UPDATER_DATA_ERROR));
    server().stop();
    QVERIFY(vl::writeWholeFile(copy, signature + catalogueText(newSerial)));
    QCOMPARE(serialAtStart(), 0U);
    // A damaged memory is no reason to refuse everything.
    QVERIFY(vl::writeWholeFile(record, "{"));
    QVERIFY(vl::writeWholeFile(copy, signature + catalogueText(oldSerial)));
    QCOMPARE(serialAtStart(), oldSerial);
}

// Clients are given both keys, then the repository goes over to the next, then the old one goes.
void CatalogueServiceTest::keyChangeWithTwoKeys()
{
    const vl::KeyPair next = vl::generateKeyPair().value();
    const auto publishByNext = [&](std::uint64_t serial) {
        const std::string text = catalogueText(serial);
        publish(text, vl::sign(text, next.secretKey, "timestamp:2"));
    };
    const std::string nextKey = vl::writePublicKey(next.publicKey);
    QCOMPARE(serialAtStart(), newSerial);
    publishByNext(newSerial + 1);
    QCOMPARE(serialAtStart(), newSerial);
    configure(nullptr, {vl::writePublicKey(m_keys.publicKey), nextKey});
    QCOMPARE(serialAtStart(), newSerial + 1);
    publishByNext(oldSerial);
    QCOMPARE(serialAtStart(), newSerial + 1); // no rollback by a change of keys
    publish(catalogueText(newSerial + 2));
    QCOMPARE(serialAtStart(), newSerial + 2);
    configure(nullptr, {nextKey});
    QCOMPARE(serialAtStart(), 0U); // nor is what the old key signed believed from the disk
    publishByNext(newSerial + 2);
    QCOMPARE(serialAtStart(), newSerial + 2);
}

void CatalogueServiceTest::fetchedCatalogueIsReused()
{
    CatalogueService service(m_fixture->root(), false, patient, m_log);
    for (int i = 0; i < 3; ++i)
        QCOMPARE(serialOf(service), newSerial);
    QCOMPARE(server().requests(), 2);
    // The signature alone tells that nothing is new.
    QCOMPARE(serialOf(service, true), newSerial);
    QCOMPARE(server().requests("/catalogue.json"), 1);
    publish(catalogueText(newSerial + 1));
    QCOMPARE(serialOf(service), newSerial);
    QCOMPARE(serialOf(service, true), newSerial + 1);
}

void CatalogueServiceTest::budgetIsSpentOnce()
{
    QCOMPARE(serialAtStart(), newSerial);
    server().reset();
    server().misbehave("*", {.stallAfter = 0});
    const Limits hurried{150ms, 300ms, 0ms, {}};
    const auto start = std::chrono::steady_clock::now();
    {
        vl::Log log;
        CatalogueService service(m_fixture->root(), false, hurried, log);
        for (int i = 0; i < 100; ++i)
            QCOMPARE(serialOf(service), newSerial);
        QVERIFY(std::chrono::steady_clock::now() - start >= 150ms);
        QCOMPARE(server().requests(), 1);
        // An installation may wait anew, for the fetch that is still under way.
        QCOMPARE(serialOf(service, true), newSerial);
        QCOMPARE(server().requests(), 1);
    }
    // A hundred budgets, or an end that waits for the network, would take longer.
    QVERIFY(std::chrono::steady_clock::now() - start < 12s);
}

void CatalogueServiceTest::noNetworkAfterAFailure()
{
    server().misbehave("*", {.status = 500});
    CatalogueService service(m_fixture->root(), false, patient, m_log);
    for (int i = 0; i < 5; ++i) {
        QCOMPARE(serialOf(service, i % 2 == 0), 0U);
        QCOMPARE(int(m_error->code), int(vlupd::RSYNC_ERROR));
    }
    QCOMPARE(server().requests(), 1);
}

void CatalogueServiceTest::copySurvivesACrashWhileSaving()
{
    // Every change of the disk is once the last that works.
    std::atomic<int> changes;
    bool fails = true;
    for (int works = 0; fails; ++works) {
        init();
        publish(catalogueText(oldSerial));
        QCOMPARE(serialAtStart(), oldSerial);
        publish(catalogueText(newSerial));
        changes = 0;
        vl::setFileFault([&](vl::FileOperation what, const std::filesystem::path&) {
            const bool reads = what == vl::FileOperation::Read || what == vl::FileOperation::Open;
            return !reads && changes++ >= works ? std::optional<int>(EIO) : std::nullopt;
        });
        // The catalogue is good, whether it can be saved or not.
        QCOMPARE(serialAtStart(), newSerial);
        vl::setFileFault({});
        fails = changes > works;
        server().misbehave("*", {.status = 500});
        const std::uint64_t kept = serialAtStart();
        QVERIFY2(kept == oldSerial || kept == newSerial, std::to_string(works).c_str());
        server().reset();
        publish(catalogueText(oldSerial));
        QCOMPARE(serialAtStart(), kept);
        // Whatever was lost is made good by the next start, the memory of the serial too.
        publish(catalogueText(newSerial));
        QCOMPARE(serialAtStart(), newSerial);
        publish(catalogueText(oldSerial));
        std::filesystem::remove(m_fixture->root() / "catalogue" / "catalogue.signed");
        QCOMPARE(serialAtStart(), 0U);
    }
    QVERIFY(changes > 5);
}

void CatalogueServiceTest::anotherProcessSavesToo_data()
{
    QTest::addColumn<int>("moment"); // of saving the older catalogue, when the other one begins
    QTest::addColumn<bool>("waits"); // for the other one's end, not only until it wants the lock
    QTest::addColumn<std::uint64_t>("kept");
    QTest::newRow("before") << int(vl::FileOperation::MakeDirectory) << true << newSerial;
    QTest::newRow("meanwhile") << int(vl::FileOperation::Rename) << false << newSerial;
    QTest::newRow("in vain") << int(vl::FileOperation::Rename) << true << oldSerial;
}

void CatalogueServiceTest::anotherProcessSavesToo()
{
    QFETCH(int, moment);
    QFETCH(bool, waits);
    QFETCH(std::uint64_t, kept);
    vl::Log log;
    std::future<std::uint64_t> other;
    std::atomic<bool> begun = false;
    std::atomic<int> lockings = 0;
    publish(catalogueText(oldSerial));
    vl::setFileFault([&](vl::FileOperation what, const std::filesystem::path& path) {
        lockings += path.filename() == "vl.lock" ? 1 : 0;
        if (int(what) == moment && !begun.exchange(true)) {
            publish(catalogueText(newSerial));
            other = std::async(std::launch::async, [&] {
                CatalogueService service(m_fixture->root(), false, patient, log);
                return service.catalogue(false).value()->serial;
            });
            while (!waits && lockings < 2)
                std::this_thread::yield();
            if (waits)
                other.wait();
        }
        return std::optional<int>();
    });
    QCOMPARE(serialAtStart(), oldSerial);
    QCOMPARE(other.get(), newSerial);
    cleanup();
    std::stringbuf lines;
    log.setBuffer(&lines);
    log.deliver();
    const bool saved = lines.str().find("cannot be saved: another process") == std::string::npos;
    QCOMPARE(kept, saved ? newSerial : oldSerial);
    publish(catalogueText(oldSerial));
    QCOMPARE(serialAtStart(), kept);
}

QTEST_GUILESS_MAIN(CatalogueServiceTest)
#include "catalogueservicetest.moc"
