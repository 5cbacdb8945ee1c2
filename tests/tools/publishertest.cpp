#include "tools/vl-publish/publisher.h"

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
    void equalInputGivesEqualOutput();
    void badRequestsAreRefused_data();
    void badRequestsAreRefused();
    void symbolicLinksAreRefused();
    void damageIsFound_data();
    void damageIsFound();

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

    QVERIFY(removeVersion(m_repository, "1.0.0", m_keys.secretKey));
    QVERIFY(!removeVersion(m_repository, "1.0.0", m_keys.secretKey));
    QVERIFY(listVersions(m_repository)->empty() && verify().faults.empty());
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
    row("missing executable", "is no file of",
        [](AddRequest& r) { r.executables["default_exec"] = "bin/sim.exe"; });
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

void PublisherTest::symbolicLinksAreRefused()
{
    fs::create_symlink("sim", m_folder / "bin/link");
    const auto added = addVersion(request("1.0.0"), m_notes);
    QVERIFY(!added);
    const std::string refusal = added.error().message;
    QVERIFY2(refusal.find("\"bin/link\": it is a symbolic link") != std::string::npos,
             refusal.c_str());
    QVERIFY(!fs::exists(m_repository / "catalogue.json"));
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
    row("pack missing", "tar.zst", [](const fs::path&, const fs::path& pack) { fs::remove(pack); });
    row("catalogue", "does not match", [flip](const fs::path& repository, const fs::path&) {
        flip(repository / "catalogue.json", 1);
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

QTEST_APPLESS_MAIN(PublisherTest)
#include "publishertest.moc"
