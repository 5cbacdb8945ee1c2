#include "tools/vl-publish/publisher.h"

#include "vl/src/formats/catalogue.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/platform/file.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <filesystem>

namespace fs = std::filesystem;
using namespace vl::publish;

namespace {

/// Keeps the notes.
class Notes final : public Progress
{
public:
    void note(const std::string& text) override { texts.push_back(text); }
    std::vector<std::string> texts;
};

void writeFile(const fs::path& path, const std::string& text)
{
    fs::create_directories(path.parent_path());
    QFile file(QString::fromStdString(path.string()));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(text.data(), qint64(text.size())), qint64(text.size()));
}

std::string readFile(const fs::path& path)
{
    QFile file(QString::fromStdString(path.string()));
    return file.open(QIODevice::ReadOnly) ? file.readAll().toStdString() : std::string();
}

/// Bytes that do not compress.
std::string noise(std::size_t size)
{
    std::string text(size, '\0');
    std::uint32_t state = 1;
    for (char& c : text) {
        state = state * 1664525U + 1013904223U;
        c = static_cast<char>(state >> 24U);
    }
    return text;
}

/// Paths and contents of everything in a repository but the lock.
std::map<std::string, std::string> contentsOf(const fs::path& folder)
{
    std::map<std::string, std::string> contents;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file() && entry.path().filename() != "vl.lock")
            contents[fs::relative(entry.path(), folder).string()] = readFile(entry.path());
    }
    return contents;
}

} // namespace

/// What is published is what every client gets: it must be right, whole and the same each time.
class PublisherTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void publishedFolderIsListedVerifiedAndUnpackedByTar();
    void placesOfFilesKeepToTheFrames();
    void equalInputGivesEqualOutput();
    void badRequestsAreRefused_data();
    void badRequestsAreRefused();
    void foldersThatCannotBePublishedAreRefused();
    void removedVersionIsDelisted();
    void interruptedChangesAreCleared();
    void foreignCatalogueIsNotSignedAnew();
    void damageIsFound_data();
    void damageIsFound();
    void keysAreNeverOverwritten();

private:
    AddRequest request(const std::string& version) const;
    void add(const AddRequest& addRequest);
    VerifyReport verify();
    fs::path onlyPack() const { return fs::directory_iterator(m_repository / "packs")->path(); }

    std::unique_ptr<QTemporaryDir> m_top;
    fs::path m_folder;
    fs::path m_repository;
    vl::KeyPair m_keys = vl::generateKeyPair().value();
    Notes m_notes;
};

void PublisherTest::init()
{
    m_notes.texts.clear();
    m_top = std::make_unique<QTemporaryDir>();
    m_folder = fs::path(m_top->path().toStdString()) / "release";
    m_repository = fs::path(m_top->path().toStdString()) / "repository";
    writeFile(m_folder / "bin/sim", "#!/bin/sh\n");
    writeFile(m_folder / "empty.dat", "");
    writeFile(m_folder / "данные" / "карта мира.txt", "Карта\n");
    writeFile(m_folder / (std::string(90, 'l') + "/" + std::string(200, 'n')), "long");
}

void PublisherTest::cleanup()
{
    qunsetenv("SOURCE_DATE_EPOCH");
    m_top.reset();
}

AddRequest PublisherTest::request(const std::string& version) const
{
    AddRequest request;
    request.repository = m_repository;
    request.version = version;
    request.folder = m_folder;
    request.executables = {{"default_exec", "bin/sim"}};
    request.secretKey = m_keys.secretKey;
    request.level = 1;
    return request;
}

void PublisherTest::add(const AddRequest& addRequest)
{
    const auto added = addVersion(addRequest, m_notes);
    QVERIFY2(added, added ? "" : added.error().message.c_str());
}

VerifyReport PublisherTest::verify()
{
    return verifyRepository(m_repository, std::span(&m_keys.publicKey, 1), m_notes);
}

void PublisherTest::publishedFolderIsListedVerifiedAndUnpackedByTar()
{
    writeFile(m_folder / "large.bin", noise(2 * vl::frameRawSize + 12345));
    fs::create_directory(m_folder / "nothing here");
    AddRequest special = request("1.0.0");
    special.date = "2026-10-01";
    special.name = "Особая";
    special.changelog = {{"features", {"Карта"}}};
    add(special);
    QCOMPARE(m_notes.texts.size(), std::size_t{1});
    QVERIFY(m_notes.texts[0].find("nothing here") != std::string::npos);

    const auto listed = listVersions(m_repository);
    QVERIFY(listed && listed->size() == 1);
    QCOMPARE(listed->front().date, std::string("2026-10-01"));
    QCOMPARE(listed->front().name, std::string("Особая"));
    QCOMPARE(listed->front().fileCount, std::size_t{5});
    const auto faults = verify().faults;
    QVERIFY2(faults.empty(), faults.empty() ? "" : faults[0].c_str());

    const fs::path unpacked = fs::path(m_top->path().toStdString()) / "unpacked";
    fs::create_directory(unpacked);
    QCOMPARE(QProcess::execute(QStringLiteral("tar"),
                               {QStringLiteral("--zstd"), QStringLiteral("-xf"),
                                QString::fromStdString(onlyPack().string()), QStringLiteral("-C"),
                                QString::fromStdString(unpacked.string())}),
             0);
    QCOMPARE(contentsOf(unpacked), contentsOf(m_folder));
    QVERIFY((fs::status(unpacked / "bin/sim").permissions() & fs::perms::owner_exec) !=
            fs::perms::none);
}

void PublisherTest::placesOfFilesKeepToTheFrames()
{
    const std::size_t half = vl::frameRawSize / 2;
    writeFile(m_folder / "a1", std::string(half, '1'));
    writeFile(m_folder / "a2", std::string(half, '2'));
    writeFile(m_folder / "b", std::string(vl::frameRawSize - 1, 'b'));
    writeFile(m_folder / "c", std::string(vl::frameRawSize, 'c'));
    writeFile(m_folder / "d", std::string(vl::frameRawSize + 1, 'd'));
    add(request("1.0.0"));
    const auto catalogue = vl::readCatalogue(readFile(m_repository / "catalogue.json"));
    const auto manifest = vl::readManifest(
        readFile(m_repository / vl::manifestPath(catalogue->manifests.at("1.0.0").hash)), "1.0.0");
    QVERIFY(manifest);
    for (const vl::ManifestFile& file : manifest->files) {
        std::size_t crossed = 0;
        bool begins = false;
        for (const vl::Frame& frame : manifest->pack.frames) {
            const std::uint64_t end = file.rawOffset + file.size;
            crossed += frame.rawOffset > file.rawOffset && frame.rawOffset < end ? 1 : 0;
            begins = begins || frame.rawOffset == file.rawOffset;
        }
        QCOMPARE(crossed, std::size_t(file.path == "d" ? 1 : 0));
        QVERIFY(file.size < vl::frameRawSize || begins);
    }
    QVERIFY(verify().faults.empty());
}

void PublisherTest::equalInputGivesEqualOutput()
{
    writeFile(m_folder / "large.bin", noise(vl::frameRawSize + 1000));
    writeFile(m_folder / "text", std::string(2 * vl::frameRawSize, 't'));
    qputenv("SOURCE_DATE_EPOCH", "1700000000");
    AddRequest first = request("1.0.0");
    add(first);
    const auto contents = contentsOf(m_repository);
    QCOMPARE(contents.size(), std::size_t{4});
    QVERIFY(contents.at("catalogue.json").find("2023-11-14") != std::string::npos);

    fs::remove_all(m_repository);
    for (const auto& entry : fs::recursive_directory_iterator(m_folder))
        fs::last_write_time(entry, fs::file_time_type::clock::now() - std::chrono::hours(1));
    add(first);
    QVERIFY(contentsOf(m_repository) == contents);
}

void PublisherTest::badRequestsAreRefused_data()
{
    using Change = std::function<void(AddRequest&)>;
    QTest::addColumn<Change>("change");
    QTest::addColumn<QByteArray>("fault");
    const auto row = [](const char* name, const char* fault, const Change& change) {
        QTest::newRow(name) << change << QByteArray(fault);
    };
    row("listed version", "already listed", [](AddRequest& r) { r.version = "0.9.0-RC"; });
    row("listed in other case", "nothing but case", [](AddRequest& r) { r.version = "0.9.0-rc"; });
    row("hostile version", "\"..\"", [](AddRequest& r) { r.version = ".."; });
    row("reserved version", "reserved", [](AddRequest& r) { r.version = "con"; });
    row("no such day", "not a date", [](AddRequest& r) { r.date = "2026-02-30"; });
    row("no such day of expiry", "not a date", [](AddRequest& r) { r.expires = "soon"; });
    row("no executable", "no executable", [](AddRequest& r) { r.executables.clear(); });
    row("missing executable", "is no file of",
        [](AddRequest& r) { r.executables["default_exec"] = "bin/sim.exe"; });
    row("folder as executable", "is no file of",
        [](AddRequest& r) { r.executables["default_exec"] = "bin"; });
    row("changelog of another shape", "features", [](AddRequest& r) {
        r.changelog = {{"features", "x"}};
    });
    row("level", "level", [](AddRequest& r) { r.level = 23; });
    row("missing folder", "nowhere", [](AddRequest& r) { r.folder /= "nowhere"; });
    row("repository inside the folder", "inside",
        [](AddRequest& r) { r.repository = r.folder / "r"; });
    row("other key", "unknown key",
        [](AddRequest& r) { r.secretKey = vl::generateKeyPair().value().secretKey; });
}

void PublisherTest::badRequestsAreRefused()
{
    QFETCH(std::function<void(AddRequest&)>, change);
    QFETCH(QByteArray, fault);
    add(request("0.9.0-RC"));
    const auto before = contentsOf(m_repository);
    AddRequest bad = request("1.0.0");
    change(bad);
    const auto added = addVersion(bad, m_notes);
    QVERIFY(!added);
    QVERIFY2(added.error().message.find(fault.toStdString()) != std::string::npos,
             added.error().message.c_str());
    QVERIFY(contentsOf(m_repository) == before);
}

void PublisherTest::foldersThatCannotBePublishedAreRefused()
{
    const auto refusal = [this] {
        const auto added = addVersion(request("1.0.0"), m_notes);
        return added ? std::string() : added.error().message;
    };
    fs::create_symlink("sim", m_folder / "bin/link");
    QVERIFY2(refusal().find("\"bin/link\": it is a symbolic link") != std::string::npos,
             refusal().c_str());
    fs::remove(m_folder / "bin/link");
    fs::create_directory_symlink("bin", m_folder / "folder link");
    QVERIFY(refusal().find("symbolic link") != std::string::npos);
    fs::remove(m_folder / "folder link");
    writeFile(m_folder / "a:b", "");
    QVERIFY2(refusal().find("\"a:b\"") != std::string::npos, refusal().c_str());
    fs::remove(m_folder / "a:b");
    writeFile(m_folder / "BIN/SIM", "");
    if (!fs::equivalent(m_folder / "BIN", m_folder / "bin"))
        QVERIFY2(refusal().find("one file") != std::string::npos, refusal().c_str());
    QVERIFY(!fs::exists(m_repository / "catalogue.json"));
}

void PublisherTest::removedVersionIsDelisted()
{
    add(request("1.0.0"));
    writeFile(m_folder / "new", "new");
    add(request("1.10.0"));
    add(request("1.2.0"));
    auto listed = listVersions(m_repository);
    QVERIFY(listed && listed->size() == 3);
    QCOMPARE(listed->back().key, std::string("1.10.0"));
    const auto before = vl::readCatalogue(readFile(m_repository / "catalogue.json"));
    QCOMPARE(before->serial, std::uint64_t{3});

    QVERIFY(removeVersion(m_repository, "1.10.0", m_keys.secretKey));
    QVERIFY(!removeVersion(m_repository, "1.10.0", m_keys.secretKey));
    const auto after = vl::readCatalogue(readFile(m_repository / "catalogue.json"));
    QCOMPARE(after->serial, std::uint64_t{4});
    QCOMPARE(after->repositoryId, before->repositoryId);
    QVERIFY(!after->manifests.contains("1.10.0"));
    const auto report = verify();
    QVERIFY(report.faults.empty());
    QCOMPARE(report.versions, std::size_t{2});
    QVERIFY(!removeVersion(m_folder, "1.0.0", m_keys.secretKey));
}

void PublisherTest::interruptedChangesAreCleared()
{
    add(request("1.0.0"));
    // Ended while a pack was being written.
    writeFile(m_repository / "packs/.new-pack.vl-tmp", "half a pack");
    // Ended before the signature was in place.
    writeFile(m_repository / "catalogue.json.new", "{\"format\": 1, \"half");
    add(request("1.1.0"));
    QVERIFY(!fs::exists(m_repository / "packs/.new-pack.vl-tmp"));
    QVERIFY(!fs::exists(m_repository / "catalogue.json.new"));
    QVERIFY(verify().faults.empty());

    // Ended between the signature and the catalogue.
    const std::string old = readFile(m_repository / "catalogue.json");
    add(request("1.2.0"));
    fs::rename(m_repository / "catalogue.json", m_repository / "catalogue.json.new");
    writeFile(m_repository / "catalogue.json", old);
    QVERIFY(!verify().faults.empty());
    add(request("1.3.0"));
    const auto report = verify();
    QVERIFY(report.faults.empty());
    QCOMPARE(report.versions, std::size_t{4});
}

void PublisherTest::foreignCatalogueIsNotSignedAnew()
{
    add(request("1.0.0"));
    std::string text = readFile(m_repository / "catalogue.json");
    text.replace(text.find("\"serial\": 1"), 11, "\"serial\": 9");
    writeFile(m_repository / "catalogue.json", text);
    const auto added = addVersion(request("1.1.0"), m_notes);
    QVERIFY(!added);
    QVERIFY2(added.error().message.find("does not match") != std::string::npos,
             added.error().message.c_str());
    QCOMPARE(readFile(m_repository / "catalogue.json"), text);
}

void PublisherTest::damageIsFound_data()
{
    using Damage = std::function<void(const fs::path& repository, const fs::path& pack)>;
    QTest::addColumn<Damage>("damage");
    QTest::addColumn<QByteArray>("fault");
    const auto flip = [](const fs::path& path, std::size_t fromEnd) {
        std::string text = readFile(path);
        text[text.size() - fromEnd] = static_cast<char>(text[text.size() - fromEnd] ^ 1);
        writeFile(path, text);
    };
    const auto row = [](const char* name, const char* fault, const Damage& damage) {
        QTest::newRow(name) << damage << QByteArray(fault);
    };
    row("byte of a pack", "frame 0 at offset 0",
        [flip](const fs::path&, const fs::path& pack) { flip(pack, fs::file_size(pack)); });
    row("file in a damaged frame", "file \"bin/sim\"",
        [flip](const fs::path&, const fs::path& pack) { flip(pack, fs::file_size(pack)); });
    row("last frame", "not what its name says",
        [flip](const fs::path&, const fs::path& pack) { flip(pack, 1); });
    row("pack cut short", "bytes instead of", [](const fs::path&, const fs::path& pack) {
        fs::resize_file(pack, fs::file_size(pack) - 1);
    });
    row("pack missing", "tar.zst", [](const fs::path&, const fs::path& pack) { fs::remove(pack); });
    row("manifest", "differs from what the catalogue says",
        [flip](const fs::path& repository, const fs::path&) {
            flip(fs::directory_iterator(repository / "manifests")->path(), 5);
        });
    row("manifest missing", "manifest of version 1.0.0",
        [](const fs::path& repository, const fs::path&) {
            fs::remove_all(repository / "manifests");
        });
    row("catalogue", "does not match", [flip](const fs::path& repository, const fs::path&) {
        flip(repository / "catalogue.json", 1);
    });
    row("signature missing", "minisig", [](const fs::path& repository, const fs::path&) {
        fs::remove(repository / "catalogue.json.minisig");
    });
}

void PublisherTest::damageIsFound()
{
    QFETCH(std::function<void(const fs::path&, const fs::path&)>, damage);
    QFETCH(QByteArray, fault);
    add(request("1.0.0"));
    QVERIFY(verify().faults.empty());
    damage(m_repository, onlyPack());
    const auto faults = verify().faults;
    const bool named = std::any_of(faults.begin(), faults.end(), [&fault](const std::string& text) {
        return text.find(fault.toStdString()) != std::string::npos;
    });
    QVERIFY2(named, faults.empty() ? "no fault found" : faults[0].c_str());
}

void PublisherTest::keysAreNeverOverwritten()
{
    const fs::path top(m_top->path().toStdString());
    QVERIFY(generateKeys(top / "s.key", top / "p.pub"));
    QVERIFY(vl::readSecretKey(readFile(top / "s.key")));
    QCOMPARE(fs::status(top / "s.key").permissions(),
             fs::perms::owner_read | fs::perms::owner_write);
    const std::string secret = readFile(top / "s.key");
    QVERIFY(!generateKeys(top / "s.key", top / "other.pub"));
    QVERIFY(!generateKeys(top / "other.key", top / "p.pub"));
    QCOMPARE(readFile(top / "s.key"), secret);
    QVERIFY(!fs::exists(top / "other.key"));
}

QTEST_APPLESS_MAIN(PublisherTest)
#include "publishertest.moc"
