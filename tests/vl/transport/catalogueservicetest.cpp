#include "vl/src/transport/catalogueservice.h"

#include "tests/vl/transport/transportfixture.h"
#include "vl/src/formats/minisign.h"
#include "vl/src/platform/file.h"

#include <QTest>

#include <cerrno>

using namespace std::chrono_literals;
using testsupport::Misbehaviour;
using vl::CatalogueService;
using Limits = CatalogueService::Limits;

namespace {

const std::string version = "1.0.0";
constexpr std::uint64_t oldSerial = 5;
constexpr std::uint64_t newSerial = 6;

/// So long that only a fault of the service makes a test wait for it.
Limits patient()
{
    return {.withSaved = 60s,
            .withoutSaved = 60s,
            .pauseAfterFailure = 60s,
            .transport = TransportFixture::impatient()};
}

/// For servers that stall.
Limits hurried()
{
    return {.withSaved = 150ms, .withoutSaved = 300ms, .pauseAfterFailure = 60s, .transport = {}};
}

} // namespace

class CatalogueServiceTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup() { vl::setFileFault({}); }

    void catalogueIsBelievedOrNot_data();
    void catalogueIsBelievedOrNot();
    void otherRepositoriesAreRefused();
    void olderSerialsAreRefused();
    void passedDateOnlyWarns();
    void fetchedCatalogueIsReused();
    void budgetIsSpentOnce_data();
    void budgetIsSpentOnce();
    void noNetworkAfterAFailure();
    void lateCatalogueIsSavedForTheNextStart();
    void damagedCopyIsNotUsed();
    void copySurvivesACrashWhileSaving();
    void readOnlyRootIsLeftAlone();
    void missingConfigurationIsNamed();
    void manifestsAreVerified_data();
    void manifestsAreVerified();
    void savedManifestSparesTheNetwork();

private:
    using Prepare = std::function<void(CatalogueServiceTest&)>;

    std::string catalogueText(std::uint64_t serial, const std::string& id = "varnel");
    std::string signatureOf(const std::string& text) const
    {
        return vl::sign(text, m_keys.secretKey, "timestamp:1");
    }
    void publish(const std::string& text);
    void configure(const std::string& more = {});
    std::uint64_t serialOf(CatalogueService& service, bool fresh = false);
    /// The serial that a new process finds.
    std::uint64_t serialAtStart(bool readOnly = false);
    testsupport::HttpServer& server() { return m_fixture->server(); }

    std::unique_ptr<TransportFixture> m_fixture;
    vl::Log m_log;
    vl::KeyPair m_keys;
    std::string m_manifestText;
    std::string m_manifestPath;
    std::optional<vl::Error> m_error;
};

Q_DECLARE_METATYPE(Misbehaviour)
Q_DECLARE_METATYPE(std::function<void(CatalogueServiceTest&)>)

void CatalogueServiceTest::initTestCase()
{
    m_keys = vl::generateKeyPair().value();
    vl::Manifest manifest;
    manifest.version = version;
    manifest.executables["default_exec"] = "simulator";
    manifest.pack.size = 10;
    manifest.pack.frames.push_back({.size = 10, .rawSize = 2048});
    manifest.files.push_back({.path = "simulator", .size = 100, .mode = 0755, .rawOffset = 512});
    m_manifestText = vl::writeManifest(manifest);
    m_manifestPath = vl::manifestPath(vl::hashOf(m_manifestText));
}

void CatalogueServiceTest::init()
{
    m_fixture = std::make_unique<TransportFixture>();
    configure();
    publish(catalogueText(newSerial));
    m_fixture->write(m_manifestPath, m_manifestText);
}

std::string CatalogueServiceTest::catalogueText(std::uint64_t serial, const std::string& id)
{
    vl::Catalogue catalogue;
    catalogue.repositoryId = id;
    catalogue.serial = serial;
    catalogue.date = "2026-01-02";
    catalogue.versions[version] = {
        {"date", "2026-01-01"},
        {"manifest",
         {{"size", m_manifestText.size()}, {"hash", vl::toHex(vl::hashOf(m_manifestText))}}}};
    return vl::writeCatalogue(catalogue);
}

void CatalogueServiceTest::publish(const std::string& text)
{
    m_fixture->write("catalogue.json", text);
    m_fixture->write("catalogue.json.minisig", signatureOf(text));
}

void CatalogueServiceTest::configure(const std::string& more)
{
    nlohmann::json config{{"repository", server().address()},
                          {"publicKeys", {vl::writePublicKey(m_keys.publicKey)}}};
    if (!more.empty())
        config["repositoryId"] = more;
    QVERIFY(vl::writeWholeFile(m_fixture->root() / "vl.json", config.dump()));
}

std::uint64_t CatalogueServiceTest::serialOf(CatalogueService& service, bool fresh)
{
    const auto catalogue = service.catalogue(fresh);
    m_error = catalogue ? std::nullopt : std::optional(catalogue.error());
    return catalogue ? (*catalogue)->serial : 0;
}

std::uint64_t CatalogueServiceTest::serialAtStart(bool readOnly)
{
    CatalogueService service(m_fixture->root(), readOnly, patient(), m_log);
    return serialOf(service);
}

void CatalogueServiceTest::catalogueIsBelievedOrNot_data()
{
    QTest::addColumn<Prepare>("prepare");
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("signatureRequests");

    const auto row = [](const char* name, int code, int requests, Prepare prepare) {
        QTest::newRow(name) << prepare << code << requests;
    };
    using Test = CatalogueServiceTest;
    const std::string json = "/catalogue.json";
    const std::string minisig = "/catalogue.json.minisig";
    row("good", vlupd::OK, 1, [](Test&) {});
    row("another key", vlupd::UPDATER_DATA_ERROR, 2, [](Test& test) {
        const std::string text = test.catalogueText(newSerial);
        const vl::KeyPair stranger = vl::generateKeyPair().value();
        test.m_fixture->write("catalogue.json.minisig",
                              vl::sign(text, stranger.secretKey, "timestamp:1"));
    });
    row("update in flight", vlupd::OK, 2, [=](Test& test) {
        test.server().misbehave(
            minisig, {.times = 1, .body = test.signatureOf(test.catalogueText(newSerial + 1))});
    });
    row("pair that never fits", vlupd::UPDATER_DATA_ERROR, 2, [=](Test& test) {
        test.server().misbehave(minisig,
                                {.body = test.signatureOf(test.catalogueText(newSerial + 1))});
    });
    row("half a catalogue from a cache", vlupd::OK, 2, [=](Test& test) {
        test.server().misbehave(json,
                                {.times = 1, .body = test.catalogueText(newSerial).substr(0, 99)});
    });
    row("cut catalogue", vlupd::RSYNC_ERROR, 1,
        [=](Test& test) { test.server().misbehave(json, {.cutAfter = 50}); });
    row("endless catalogue", vlupd::CONTENT_LEN_ERROR, 1,
        [=](Test& test) { test.server().misbehave(json, {.endless = true}); });
    row("unsigned", vlupd::RSYNC_ERROR, 1,
        [=](Test& test) { test.server().misbehave(minisig, {.status = 404}); });
    row("empty signature", vlupd::UPDATER_DATA_ERROR, 2,
        [=](Test& test) { test.server().misbehave(minisig, {.body = ""}); });
    row("signed rubbish", vlupd::UPDATER_DATA_ERROR, 2,
        [](Test& test) { test.publish("{\"format\":1"); });
    row("format of the future", vlupd::UPDATER_DATA_ERROR, 2, [](Test& test) {
        nlohmann::json later = nlohmann::json::parse(test.catalogueText(newSerial));
        later["format"] = 2;
        test.publish(later.dump());
    });
    row("log-in page", vlupd::UPDATER_DATA_ERROR, 2, [](Test& test) {
        test.server().misbehave("*", {.body = "<html>", .contentType = "text/html"});
    });
    row("server in trouble", vlupd::RSYNC_ERROR, 1,
        [](Test& test) { test.server().misbehave("*", {.status = 500}); });
    row("no server", vlupd::RSYNC_ERROR, 0, [](Test& test) { test.server().stop(); });
}

void CatalogueServiceTest::catalogueIsBelievedOrNot()
{
    QFETCH(Prepare, prepare);
    QFETCH(int, code);
    QFETCH(int, signatureRequests);
    const bool isGood = code == vlupd::OK;

    // Without a saved copy, what is wrong is told.
    prepare(*this);
    const std::uint64_t first = serialAtStart();
    QVERIFY2((m_error ? m_error->code : vlupd::OK) == code,
             m_error ? m_error->message.c_str() : "");
    QCOMPARE(quint64(first), quint64(isGood ? newSerial : 0));
    QCOMPARE(server().requests("/catalogue.json.minisig"), signatureRequests);

    // With one, it is used unless something better arrives.
    init();
    publish(catalogueText(oldSerial));
    QCOMPARE(quint64(serialAtStart()), quint64(oldSerial));
    publish(catalogueText(newSerial));
    prepare(*this);
    QCOMPARE(quint64(serialAtStart()), quint64(isGood ? newSerial : oldSerial));
}

void CatalogueServiceTest::otherRepositoriesAreRefused()
{
    QCOMPARE(quint64(serialAtStart()), quint64(newSerial));
    publish(catalogueText(newSerial + 1, "stranger"));
    CatalogueService service(m_fixture->root(), false, patient(), m_log);
    QCOMPARE(quint64(serialOf(service)), quint64(newSerial));

    // The configuration may name another one; then the saved copy is the stranger.
    configure("stranger");
    QCOMPARE(quint64(serialAtStart()), quint64(newSerial + 1));
    configure("third");
    QCOMPARE(quint64(serialAtStart()), quint64(0));
    QCOMPARE(int(m_error->code), int(vlupd::UPDATER_DATA_ERROR));
}

void CatalogueServiceTest::olderSerialsAreRefused()
{
    QCOMPARE(quint64(serialAtStart()), quint64(newSerial));
    publish(catalogueText(oldSerial));
    QCOMPARE(quint64(serialAtStart()), quint64(newSerial));
    // The copy may be lost or put back from a backup: the memory of the serial counts.
    const auto folder = m_fixture->root() / "catalogue";
    QVERIFY(vl::writeWholeFile(folder / "catalogue.json", catalogueText(oldSerial)));
    QVERIFY(vl::writeWholeFile(folder / "catalogue.json.minisig",
                               signatureOf(catalogueText(oldSerial))));
    QCOMPARE(quint64(serialAtStart()), quint64(0));
    QCOMPARE(int(m_error->code), int(vlupd::UPDATER_DATA_ERROR));
    // A damaged memory is no reason to refuse everything.
    QVERIFY(vl::writeWholeFile(folder / "seen.json", "{"));
    QCOMPARE(quint64(serialAtStart()), quint64(oldSerial));
}

void CatalogueServiceTest::passedDateOnlyWarns()
{
    nlohmann::json expired = nlohmann::json::parse(catalogueText(newSerial));
    expired["expires"] = "2001-02-03";
    publish(expired.dump());
    QCOMPARE(quint64(serialAtStart()), quint64(newSerial));
    std::stringbuf lines;
    m_log.setBuffer(&lines);
    m_log.deliver();
    m_log.setBuffer(nullptr);
    QVERIFY2(lines.str().find("replaced by 2001-02-03") != std::string::npos, lines.str().c_str());
}

void CatalogueServiceTest::fetchedCatalogueIsReused()
{
    CatalogueService service(m_fixture->root(), false, patient(), m_log);
    for (int i = 0; i < 3; ++i)
        QCOMPARE(quint64(serialOf(service)), quint64(newSerial));
    QCOMPARE(server().requests(), 2);
    // The signature alone tells that nothing is new.
    QCOMPARE(quint64(serialOf(service, true)), quint64(newSerial));
    QCOMPARE(server().requests("/catalogue.json"), 1);
    publish(catalogueText(newSerial + 1));
    QCOMPARE(quint64(serialOf(service)), quint64(newSerial));
    QCOMPARE(quint64(serialOf(service, true)), quint64(newSerial + 1));
}

void CatalogueServiceTest::budgetIsSpentOnce_data()
{
    QTest::addColumn<bool>("isSaved");
    QTest::newRow("with a saved catalogue") << true;
    QTest::newRow("without one") << false;
}

void CatalogueServiceTest::budgetIsSpentOnce()
{
    QFETCH(bool, isSaved);
    if (isSaved)
        QCOMPARE(quint64(serialAtStart()), quint64(newSerial));
    server().reset();
    server().misbehave("*", {.stallAfter = 0});
    Limits limits = hurried();
    limits.pauseAfterFailure = 0ms;
    const auto start = std::chrono::steady_clock::now();
    {
        vl::Log log;
        CatalogueService service(m_fixture->root(), false, limits, log);
        for (int i = 0; i < 100; ++i)
            QCOMPARE(quint64(serialOf(service)), quint64(isSaved ? newSerial : 0));
        QVERIFY(std::chrono::steady_clock::now() - start >= (isSaved ? 150ms : 300ms));
        QCOMPARE(server().requests(), 1);
        // An installation may wait anew, for the fetch that is still under way.
        QCOMPARE(quint64(serialOf(service, true)), quint64(isSaved ? newSerial : 0));
        QCOMPARE(server().requests(), 1);
    }
    // A hundred budgets, or an end that waits for the network, would take longer.
    QVERIFY(std::chrono::steady_clock::now() - start < 12s);
}

void CatalogueServiceTest::noNetworkAfterAFailure()
{
    server().misbehave("*", {.status = 500});
    CatalogueService service(m_fixture->root(), false, patient(), m_log);
    for (int i = 0; i < 5; ++i) {
        QCOMPARE(quint64(serialOf(service, i % 2 == 0)), quint64(0));
        QCOMPARE(int(m_error->code), int(vlupd::RSYNC_ERROR));
    }
    QCOMPARE(server().requests(), 1);

    Limits limits = patient();
    limits.pauseAfterFailure = 0ms;
    server().reset();
    server().misbehave("*", {.times = 1, .status = 500});
    CatalogueService eager(m_fixture->root(), false, limits, m_log);
    QCOMPARE(quint64(serialOf(eager)), quint64(0));
    QCOMPARE(quint64(serialOf(eager)), quint64(newSerial));
}

void CatalogueServiceTest::lateCatalogueIsSavedForTheNextStart()
{
    publish(catalogueText(oldSerial));
    QCOMPARE(quint64(serialAtStart()), quint64(oldSerial));
    publish(catalogueText(newSerial));
    server().misbehave("/catalogue.json", {.stallAfter = 20});
    {
        CatalogueService service(m_fixture->root(), false, hurried(), m_log);
        QCOMPARE(quint64(serialOf(service)), quint64(oldSerial));
        server().release();
        QTRY_COMPARE(quint64(serialOf(service)), quint64(newSerial));
    }
    server().stop();
    QCOMPARE(quint64(serialAtStart()), quint64(newSerial));
}

void CatalogueServiceTest::damagedCopyIsNotUsed()
{
    QCOMPARE(quint64(serialAtStart()), quint64(newSerial));
    server().stop();
    QCOMPARE(quint64(serialAtStart()), quint64(newSerial));
    const auto copy = m_fixture->root() / "catalogue" / "catalogue.json";
    std::string text = vl::readWholeFile(copy, vl::maxCatalogueSize).value();
    text.replace(text.find("2026"), 4, "2027");
    QVERIFY(vl::writeWholeFile(copy, text));
    QCOMPARE(quint64(serialAtStart()), quint64(0));
    QCOMPARE(int(m_error->code), int(vlupd::RSYNC_ERROR));
}

void CatalogueServiceTest::copySurvivesACrashWhileSaving()
{
    // Every operation on the disk is once the last that works.
    for (int works = 0;; ++works) {
        init();
        publish(catalogueText(oldSerial));
        QCOMPARE(quint64(serialAtStart()), quint64(oldSerial));
        publish(catalogueText(newSerial));
        std::atomic<int> done{0};
        vl::setFileFault([&](vl::FileOperation what, const std::filesystem::path&) {
            const bool changes = what != vl::FileOperation::Read && what != vl::FileOperation::Open;
            return changes && done++ >= works ? std::optional<int>(EIO) : std::nullopt;
        });
        // The catalogue is good, whether it can be saved or not.
        QCOMPARE(quint64(serialAtStart()), quint64(newSerial));
        vl::setFileFault({});
        server().stop();
        const std::uint64_t kept = serialAtStart();
        QVERIFY2(kept == oldSerial || kept == newSerial, std::to_string(works).c_str());
        if (done <= works) {
            QVERIFY(works > 5);
            QCOMPARE(quint64(kept), quint64(newSerial));
            break;
        }
    }
}

void CatalogueServiceTest::readOnlyRootIsLeftAlone()
{
    QCOMPARE(quint64(serialAtStart(true)), quint64(newSerial));
    QVERIFY(!std::filesystem::exists(m_fixture->root() / "catalogue"));
}

void CatalogueServiceTest::missingConfigurationIsNamed()
{
    QVERIFY(vl::removeFile(m_fixture->root() / "vl.json"));
    QCOMPARE(quint64(serialAtStart()), quint64(0));
    QCOMPARE(int(m_error->code), int(vlupd::UPDATER_DATA_ERROR));
    QVERIFY(m_error->message.find("vl.json") != std::string::npos);
    QCOMPARE(server().requests(), 0);
}

void CatalogueServiceTest::manifestsAreVerified_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<Misbehaviour>("fault");
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("requests");
    const auto row = [](const char* name, Misbehaviour fault, int code, int requests,
                        const std::string& key = version) {
        QTest::newRow(name) << QString::fromStdString(key) << fault << code << requests;
    };
    row("good", {}, vlupd::OK, 1);
    row("500 once", {.times = 1, .status = 500}, vlupd::OK, 2);
    row("no such manifest", {.status = 404}, vlupd::RSYNC_ERROR, 1);
    row("one wrong byte once", {.times = 1, .flipByteAt = 20}, vlupd::OK, 2);
    row("one wrong byte", {.flipByteAt = 20}, vlupd::BROKEN_OR_MISSING, 2);
    row("too short", {.body = "{}"}, vlupd::CONTENT_LEN_ERROR, 2);
    row("too long", {.untoldLength = true, .bodyError = 1}, vlupd::CONTENT_LEN_ERROR, 2);
    row("log-in page", {.body = "<html>"}, vlupd::UPDATER_DATA_ERROR, 1);
    row("unknown version", {}, vlupd::NOT_FOUND, 0, "9.9.9");
}

void CatalogueServiceTest::manifestsAreVerified()
{
    QFETCH(QString, key);
    QFETCH(Misbehaviour, fault);
    QFETCH(int, code);
    QFETCH(int, requests);
    CatalogueService service(m_fixture->root(), false, patient(), m_log);
    const auto catalogue = service.catalogue(false);
    QVERIFY(catalogue);
    server().misbehave('/' + m_manifestPath, fault);
    LoggedOperation operation;
    const auto source = m_fixture->open();
    const auto manifest = service.manifest(**catalogue, key.toStdString(), *source, *operation);
    QVERIFY2((manifest ? vlupd::OK : manifest.error().code) == code,
             manifest ? "" : manifest.error().message.c_str());
    QCOMPARE(server().requests('/' + m_manifestPath), requests);
    QCOMPARE(std::filesystem::exists(
                 vl::savedManifestPath(m_fixture->root(), vl::hashOf(m_manifestText))),
             code == vlupd::OK);
    if (manifest)
        QVERIFY(manifest->find("simulator") != nullptr);
}

void CatalogueServiceTest::savedManifestSparesTheNetwork()
{
    CatalogueService service(m_fixture->root(), false, patient(), m_log);
    const auto catalogue = service.catalogue(false);
    QVERIFY(catalogue);
    LoggedOperation operation;
    const auto source = m_fixture->open();
    const auto fetch = [&] { return service.manifest(**catalogue, version, *source, *operation); };
    QVERIFY(fetch());
    QVERIFY(fetch());
    QCOMPARE(server().requests('/' + m_manifestPath), 1);
    const auto saved = vl::savedManifestPath(m_fixture->root(), vl::hashOf(m_manifestText));
    QVERIFY(vl::writeWholeFile(saved, "{}"));
    QVERIFY(fetch());
    QCOMPARE(server().requests('/' + m_manifestPath), 2);
    QCOMPARE(vl::readWholeFile(saved, 10'000).value(), m_manifestText);
}

QTEST_GUILESS_MAIN(CatalogueServiceTest)
#include "catalogueservicetest.moc"
