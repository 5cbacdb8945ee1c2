#include "tests/vl/install/installfixture.h"
#include "vl/src/platform/file.h"

#include <QTest>

#include <filesystem>
#include <memory>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vlupd::VLUPD;

namespace {

const Files oldFiles{{"bin/simulator", "the simulator"},
                     {"empty", ""},
                     {"shared.txt", "the same in both"},
                     {"replaced", "a file that becomes a folder"},
                     {"данные/карта.txt", "карта"}};

// Longer than a frame, so that its pieces come from several.
const std::string large = someBytes(20U << 20U, 1);
const Files newFiles{{"bin/simulator", "a newer simulator"},
                     {"empty", ""},
                     {"shared.txt", "the same in both"},
                     {"replaced/inside.txt", "a folder that was a file"},
                     {"notes.txt", "now the version has notes of its own"},
                     {"data/large.bin", large}};

} // namespace

class InstallTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void installs_data();
    void installs();
    void userFilesMoveAlong();
    void refusals_data();
    void refusals();
    void callbacksThatEndIt_data();
    void callbacksThatEndIt();
    void callbacksThatCallBack();
    void readingNeedsNoWriting();
    void damageIsFound_data();
    void damageIsFound();
    void lostManifestIsFetched();
    void removes();
    void lostRecords_data();
    void lostRecords();
    void folderDeletedByHand();
    void downloadsAreCleaned();
    void logIsSilentWithoutBuffer();

private:
    fs::path folderOf(VLUPD& library, const std::string& version)
    {
        return library.getInstalledVersions()[version].installDirectory;
    }

    std::unique_ptr<Releases> m_releases;
};

void InstallTest::initTestCase()
{
    m_releases = std::make_unique<Releases>();
    m_releases->publish("1.0.0", oldFiles);
    m_releases->publish("1.10.0", newFiles);
}

void InstallTest::installs_data()
{
    QTest::addColumn<QString>("repository");
    const QString folder = QString::fromStdString(m_releases->folder().string());
    QTest::newRow("folder") << folder;
    QTest::newRow("file address") << QStringLiteral("file://") + folder;
}

void InstallTest::installs()
{
    QFETCH(QString, repository);
    const Root root(*m_releases, repository.toStdString());
    LogLines log;
    VLUPD library(root.path(), false, &log);
    QVERIFY(library.getInstalledVersions().empty());
    QCOMPARE(library.getAvailableVersions().size(), 2U);

    for (const std::string version : {"1.0.0", "1.10.0", "1.0.0"}) {
        Recorder recorder;
        const int result = library.installVersion(version, recorder.progress(), recorder.stage());
        QVERIFY2(result == vlupd::OK, log.text().c_str());
        QCOMPARE(recorder.fault(), QString());
        QCOMPARE(promiseFault(root, *m_releases, {version}), QString());
        QCOMPARE(root.leftovers(), QString());
        const auto program = library.getAppExecutablePath(version, "default_exec");
        QVERIFY(program && program->is_absolute() &&
                *program == folderOf(library, version) / "bin/simulator");
        QCOMPARE(fs::status(*program).permissions() & fs::perms::owner_exec, fs::perms::owner_exec);
        QVERIFY(!library.getAppExecutablePath(version, "other_exec"));
        QVERIFY(!library.getAppExecutablePath("1.5.0", "default_exec"));
    }
    Recorder recorder;
    QCOMPARE(library.installVersion("1.0.0", recorder.progress(), recorder.stage()),
             vlupd::FOUND_LOCALLY);
    QVERIFY(recorder.reports.empty());
}

void InstallTest::userFilesMoveAlong()
{
    const Root root(*m_releases);
    LogLines log;
    VLUPD library(root.path(), false, &log);
    QCOMPARE(library.installVersion("1.0.0", {}, {}), vlupd::OK);
    const fs::path old = folderOf(library, "1.0.0");
    writeFile(old / "полёты/мой.txt", "mine");
    writeFile(old / "notes.txt", "my notes");
    writeFile(old / "bin/simulator", "damaged, but not the user's");
    fs::create_directories(old / "empty folder");

    QCOMPARE(library.installVersion("1.10.0", {}, {}), vlupd::OK);
    Files expected = newFiles;
    expected["полёты/мой.txt"] = "mine";
    expected["notes.txt.user"] = "my notes";
    QVERIFY(filesIn(folderOf(library, "1.10.0")) == expected);
    QCOMPARE(library.checkFiles("1.10.0", std::nullopt), vlupd::OK);
    QVERIFY(!fs::exists(old));

    // On the way back a user's file meets a name that is a file there and a folder here.
    writeFile(folderOf(library, "1.10.0") / "replaced/mine.txt", "mine too");
    QCOMPARE(library.installVersion("1.0.0", {}, {}), vlupd::OK);
    const Files kept = filesIn(folderOf(library, "1.0.0"));
    QCOMPARE(kept.at("replaced.user/mine.txt"), std::string("mine too"));
    QCOMPARE(kept.at("replaced"), oldFiles.at("replaced"));
    QCOMPARE(kept.at("notes.txt.user"), std::string("my notes"));
    QCOMPARE(root.leftovers(), QString());
}

void InstallTest::refusals_data()
{
    using Prepare = std::function<void(const fs::path&)>;
    QTest::addColumn<Prepare>("prepare");
    QTest::addColumn<QString>("version");
    QTest::addColumn<bool>("readOnly");
    QTest::addColumn<int>("expected");
    QTest::addColumn<QString>("words");
    const auto replaceConfig = [](const std::string& text) -> Prepare {
        return [text](const fs::path& root) { writeFile(root / "vl.json", text); };
    };
    const auto row = [](const char* name, const Prepare& prepare, int expected, const char* words,
                        const char* version = "1.0.0", bool readOnly = false) {
        QTest::newRow(name) << prepare << QString::fromLatin1(version) << readOnly << expected
                            << QString::fromLatin1(words);
    };
    row("unknown version", {}, vlupd::NOT_FOUND, "installVersion 7.0.0: ", "7.0.0");
    row("no version", {}, vlupd::NOT_FOUND, "installVersion : ", "");
    row("read-only object", {}, vlupd::SYSTEM_CALL_ERROR, "for reading only", "1.0.0", true);
    row(
        "configuration missing", [](const fs::path& root) { fs::remove(root / "vl.json"); },
        vlupd::UPDATER_DATA_ERROR, "vl.json");
    row("configuration is no JSON", replaceConfig("repository=x"), vlupd::UPDATER_DATA_ERROR,
        "vl.json");
    row("no repository there",
        replaceConfig(
            R"({"repository":"nowhere","publicKeys":[")" +
            QString::fromStdString(m_releases->publicKey()).section(u'\n', 1, 1).toStdString() +
            R"("]})"),
        vlupd::RSYNC_ERROR, "nowhere");
    row(
        "file in a folder's place",
        [](const fs::path& root) { writeFile(root / "versions", "a file"); },
        vlupd::CREATE_DIR_ERROR, "versions");
    row(
        "root missing", [](const fs::path& root) { fs::remove_all(root); },
        vlupd::SYSTEM_CALL_ERROR, "vl.lock");
}

void InstallTest::refusals()
{
    using Prepare = std::function<void(const fs::path&)>;
    QFETCH(Prepare, prepare);
    QFETCH(QString, version);
    QFETCH(bool, readOnly);
    QFETCH(QString, words);
    const Root root(*m_releases);
    if (prepare)
        prepare(root.path());
    LogLines log;
    VLUPD library(root.path(), readOnly, &log);
    Recorder recorder;
    QTEST(static_cast<int>(
              library.installVersion(version.toStdString(), recorder.progress(), recorder.stage())),
          "expected");
    QVERIFY2(log.contains(words.toStdString()), log.text().c_str());
    QVERIFY(recorder.reports.empty());
    QVERIFY(library.getInstalledVersions().empty());
    QVERIFY(library.removeVersion("1.0.0") != vlupd::OK);
    QVERIFY(library.checkFiles("1.0.0", std::nullopt) != vlupd::OK);
}

void InstallTest::callbacksThatEndIt_data()
{
    QTest::addColumn<int>("stage");
    QTest::addColumn<bool>("throws");
    for (const int stage : {0, 2, 3})
        for (const bool throws : {false, true})
            QTest::addRow("stage %d %s", stage, throws ? "throws" : "false") << stage << throws;
}

void InstallTest::callbacksThatEndIt()
{
    QFETCH(int, stage);
    QFETCH(bool, throws);
    const Root root(*m_releases);
    LogLines log;
    VLUPD library(root.path(), false, &log);
    QCOMPARE(library.installVersion("1.0.0", {}, {}), vlupd::OK);
    Recorder recorder;
    recorder.goOn = [&](const Recorder::Report& report) {
        if (report.stage == stage && throws)
            throw std::runtime_error("from the callback");
        return report.stage != stage;
    };
    QCOMPARE(library.installVersion("1.10.0", recorder.progress(), recorder.stage()),
             vlupd::UNKNOWN_ERROR);
    QVERIFY2(log.contains("installVersion 1.10.0: the progress callback"), log.text().c_str());
    QCOMPARE(recorder.reports.back().stage, stage);
    QCOMPARE(promiseFault(root, *m_releases, {"1.0.0"}), QString());

    Recorder resumed;
    QCOMPARE(library.installVersion("1.10.0", resumed.progress(), resumed.stage()), vlupd::OK);
    QCOMPARE(resumed.fault(), QString());
    if (stage > 0)
        QCOMPARE(resumed.reports.front().done, resumed.reports.front().total);
    QCOMPARE(promiseFault(root, *m_releases, {"1.10.0"}), QString());
    QCOMPARE(root.leftovers(), QString());
}

void InstallTest::callbacksThatCallBack()
{
    const Root root(*m_releases);
    LogLines log;
    VLUPD library(root.path(), false, &log);
    QCOMPARE(library.installVersion("1.0.0", {}, {}), vlupd::OK);
    int calls = 0;
    const auto stage = [&](vlupd::UPD_INSTALLATION_STAGE) {
        ++calls;
        QVERIFY(library.getInstalledVersions().contains("1.0.0"));
        QVERIFY(library.getAppExecutablePath("1.0.0", "default_exec"));
        QCOMPARE(library.installVersion("1.0.0", {}, {}), vlupd::SYSTEM_CALL_ERROR);
        QCOMPARE(library.removeVersion("1.0.0"), vlupd::SYSTEM_CALL_ERROR);
        QCOMPARE(library.checkFiles("1.0.0", std::nullopt), vlupd::SYSTEM_CALL_ERROR);
        QVERIFY(!library.cleanDownloads(0min));
        throw 1;
    };
    QCOMPARE(library.installVersion("1.10.0", {}, stage), vlupd::UNKNOWN_ERROR);
    QCOMPARE(calls, 1);
    QVERIFY(log.contains("another operation of this program is running"));
    QCOMPARE(promiseFault(root, *m_releases, {"1.0.0"}), QString());
}

void InstallTest::readingNeedsNoWriting()
{
    const Root root(*m_releases);
    QCOMPARE(VLUPD(root.path(), false, nullptr).installVersion("1.0.0", {}, {}), vlupd::OK);
    const auto before = filesIn(root.path());
    fs::permissions(root.path(), fs::perms::owner_write, fs::perm_options::remove);
    // The seam stands for the read-only file system, which root's rights do not override.
    vl::setFileFault([](vl::FileOperation operation, const fs::path&) -> std::optional<int> {
        using enum vl::FileOperation;
        return operation == Open || operation == Read ? std::nullopt : std::optional(EROFS);
    });
    {
        LogLines log;
        VLUPD library(root.path(), true, &log);
        QVERIFY(library.getAvailableVersions().is_object());
        QVERIFY(library.getAppExecutablePath("1.0.0", "default_exec"));
        QCOMPARE(library.checkFiles("1.0.0", std::nullopt), vlupd::OK);
        QCOMPARE(library.removeVersion("1.0.0"), vlupd::SYSTEM_CALL_ERROR);
        QVERIFY(!library.cleanDownloads(0min));
    }
    VLUPD library(root.path(), false, nullptr);
    QVERIFY(library.installVersion("1.10.0", {}, {}) != vlupd::OK);
    QCOMPARE(library.removeVersion("1.0.0"), vlupd::SYSTEM_CALL_ERROR);
    vl::setFileFault({});
    fs::permissions(root.path(), fs::perms::owner_write, fs::perm_options::add);
    QVERIFY(filesIn(root.path()) == before);
    QCOMPARE(promiseFault(root, *m_releases, {"1.0.0"}), QString());
}

void InstallTest::damageIsFound_data()
{
    using Damage = std::function<void(const fs::path&)>;
    QTest::addColumn<Damage>("damage");
    QTest::addColumn<QString>("subfolder");
    QTest::addColumn<int>("expected");
    QTest::addColumn<QString>("words");
    const auto row = [](const char* name, int expected, const QString& words, const Damage& damage,
                        const QString& subfolder = {}) {
        QTest::newRow(name) << damage << subfolder << expected << words;
    };
    const Damage change = [](const fs::path& tree) {
        writeFile(tree / "shared.txt", "tHE same in both");
    };
    const auto broken = vlupd::INSTALLED_FILES_BROKEN;
    row("nothing", vlupd::OK, {}, [](const fs::path&) {});
    row("one bit", broken, QStringLiteral("shared.txt: other contents"), change);
    row("outside the subfolder", vlupd::OK, {}, change, QStringLiteral("данные/"));
    row("the file itself as subfolder", broken, {}, change, QStringLiteral("shared.txt"));
    row("no such subfolder", vlupd::NOT_FOUND, {}, change, QStringLiteral("../1.0.0"));
    row("cut", broken, QStringLiteral("bin/simulator: 3 bytes instead of 13"),
        [](const fs::path& tree) { writeFile(tree / "bin/simulator", "the"); });
    row("empty file filled", broken, QStringLiteral("empty: 1 bytes instead of 0"),
        [](const fs::path& tree) { writeFile(tree / "empty", "x"); });
    row("missing", broken, QStringLiteral("данные/карта.txt: missing"),
        [](const fs::path& tree) { fs::remove_all(tree / "данные"); });
    row("everything gone", broken, QStringLiteral("missing"),
        [](const fs::path& tree) { fs::remove_all(tree); });
    row("folder in its place", broken, QStringLiteral("shared.txt: not a regular file"),
        [](const fs::path& tree) {
            fs::remove(tree / "shared.txt");
            fs::create_directory(tree / "shared.txt");
        });
    row("link to a right copy", broken, QStringLiteral("shared.txt: not a regular file"),
        [](const fs::path& tree) {
            fs::rename(tree / "shared.txt", tree / "copy");
            fs::create_symlink(tree / "copy", tree / "shared.txt");
        });
    row("a file of the user", vlupd::OK, {},
        [](const fs::path& tree) { writeFile(tree / "mine.txt", "mine"); });
    row("write permission gone", vlupd::OK, {}, [](const fs::path& tree) {
        fs::permissions(tree / "bin/simulator", fs::perms::owner_read);
    });
}

void InstallTest::damageIsFound()
{
    using Damage = std::function<void(const fs::path&)>;
    QFETCH(Damage, damage);
    QFETCH(QString, subfolder);
    QFETCH(QString, words);
    const Root root(*m_releases, {}, true);
    LogLines log;
    VLUPD library(root.path(), false, &log);
    QCOMPARE(library.installVersion("1.0.0", {}, {}), vlupd::OK);
    damage(folderOf(library, "1.0.0"));
    const auto below = subfolder.isEmpty() ? std::nullopt : std::optional(subfolder.toStdString());
    const vlupd::UPD_RESULT result = library.checkFiles("1.0.0", below);
    QTEST(static_cast<int>(result), "expected");
    QVERIFY2(log.contains(words.toStdString()), log.text().c_str());
    // A damaged version can be installed anew, a whole one need not be.
    const bool damaged = library.checkFiles("1.0.0", std::nullopt) != vlupd::OK;
    QCOMPARE(library.installVersion("1.0.0", {}, {}), damaged ? vlupd::OK : vlupd::FOUND_LOCALLY);
    QCOMPARE(library.checkFiles("1.0.0", std::nullopt), vlupd::OK);
}

void InstallTest::lostManifestIsFetched()
{
    const Root root(*m_releases, {}, true);
    QCOMPARE(VLUPD(root.path(), false, nullptr).installVersion("1.0.0", {}, {}), vlupd::OK);
    for (const bool damaged : {false, true}) {
        for (const auto& [name, text] : filesIn(root.path() / "manifests"))
            writeFile(root.path() / "manifests" / name, text + " ");
        if (!damaged)
            fs::remove_all(root.path() / "manifests");
        VLUPD library(root.path(), false, nullptr);
        QCOMPARE(library.checkFiles("1.0.0", std::nullopt), vlupd::OK);
        QVERIFY(library.getAppExecutablePath("1.0.0", "default_exec"));
    }
    // Without the repository nothing can be said about the files, and nothing is.
    fs::remove_all(root.path() / "manifests");
    fs::remove(root.path() / "vl.json");
    LogLines log;
    VLUPD library(root.path(), false, &log);
    QCOMPARE(library.checkFiles("1.0.0", std::nullopt), vlupd::BROKEN_OR_MISSING);
    QVERIFY2(log.contains("cannot be fetched"), log.text().c_str());
    QVERIFY(!library.getAppExecutablePath("1.0.0", "default_exec"));
    QVERIFY(library.getInstalledVersions().contains("1.0.0"));
}

void InstallTest::removes()
{
    const Root root(*m_releases);
    VLUPD library(root.path(), false, nullptr);
    QCOMPARE(library.removeVersion("1.0.0"), vlupd::NOT_FOUND);
    QCOMPARE(library.installVersion("1.0.0", {}, {}), vlupd::OK);
    const fs::path tree = folderOf(library, "1.0.0");
    writeFile(tree / "closed/mine.txt", "mine");
    fs::permissions(tree / "bin/simulator", fs::perms::owner_read | fs::perms::owner_exec);
    fs::permissions(tree / "closed", fs::perms::owner_read);
    QCOMPARE(library.removeVersion("1.10.0"), vlupd::NOT_FOUND);
    QCOMPARE(library.removeVersion("1.0.0"), vlupd::OK);
    QVERIFY(library.getInstalledVersions().empty());
    QVERIFY(!fs::exists(tree));
    QCOMPARE(library.checkFiles("1.0.0", std::nullopt), vlupd::NOT_FOUND);
    QVERIFY(!library.getAppExecutablePath("1.0.0", "default_exec"));
    QCOMPARE(root.leftovers(), QString());
}

void InstallTest::lostRecords_data()
{
    using Change = std::function<void(const fs::path&)>;
    QTest::addColumn<Change>("change");
    QTest::addColumn<bool>("remains");
    const auto write = [](const char* text) -> Change {
        return [text](const fs::path& root) { writeFile(root / "installed.json", text); };
    };
    QTest::newRow("missing") << Change([](const fs::path& root) {
        fs::remove(root / "installed.json");
    }) << true;
    QTest::newRow("empty") << write("") << true;
    QTest::newRow("cut") << write(R"({"format":1,"installed":{"ver)") << true;
    QTest::newRow("garbage") << Change([](const fs::path& root) {
        writeFile(root / "installed.json", std::string(3U << 20U, '\0'));
    }) << true;
    QTest::newRow("other types") << write(R"({"format":1,"installed":[],"superseded":{}})") << true;
    QTest::newRow("hostile version")
        << write(R"({"format":1,"installed":{"version":"../..","generation":1,"manifest":""},)"
                 R"("superseded":[]})")
        << true;
    QTest::newRow("newer format") << write(R"({"format":2})") << true;
    QTest::newRow("interrupted removal") << Change([](const fs::path& root) {
        fs::rename(root / "versions/1.0.0.g1", root / "versions/.trash-1.0.0.g1");
    }) << false;
    QTest::newRow("interrupted removal, missing") << Change([](const fs::path& root) {
        fs::remove(root / "installed.json");
        fs::rename(root / "versions/1.0.0.g1", root / "versions/.trash-1.0.0.g1");
    }) << false;
}

void InstallTest::lostRecords()
{
    using Change = std::function<void(const fs::path&)>;
    QFETCH(Change, change);
    QFETCH(bool, remains);
    const Root root(*m_releases, {}, true);
    QCOMPARE(VLUPD(root.path(), false, nullptr).installVersion("1.0.0", {}, {}), vlupd::OK);
    change(root.path());
    const std::set<std::string> expected{remains ? "1.0.0" : ""};
    QCOMPARE(promiseFault(root, *m_releases, expected), QString());
    LogLines log;
    VLUPD library(root.path(), false, nullptr);
    QVERIFY(library.cleanDownloads(0min));
    library.setLogBuf(&log);
    library.getInstalledVersions();
    if (remains)
        QVERIFY2(log.contains("installed.json"), log.text().c_str());
    QCOMPARE(promiseFault(root, *m_releases, expected), QString());
    QCOMPARE(root.leftovers(), QString());
    QCOMPARE(library.installVersion("1.0.0", {}, {}), remains ? vlupd::FOUND_LOCALLY : vlupd::OK);
}

void InstallTest::folderDeletedByHand()
{
    const Root root(*m_releases);
    VLUPD library(root.path(), false, nullptr);
    QCOMPARE(library.installVersion("1.0.0", {}, {}), vlupd::OK);
    fs::remove_all(folderOf(library, "1.0.0"));
    QVERIFY(library.getInstalledVersions().contains("1.0.0"));
    QCOMPARE(library.installVersion("1.0.0", {}, {}), vlupd::OK);
    QCOMPARE(promiseFault(root, *m_releases, {"1.0.0"}), QString());
    fs::remove_all(folderOf(library, "1.0.0"));
    QCOMPARE(library.removeVersion("1.0.0"), vlupd::OK);
    QCOMPARE(root.leftovers(), QString());
}

void InstallTest::downloadsAreCleaned()
{
    const Root root(*m_releases);
    VLUPD library(root.path(), false, nullptr);
    Recorder ended;
    ended.goOn = [](const Recorder::Report& report) { return report.stage != 2; };
    QCOMPARE(library.installVersion("1.0.0", ended.progress(), ended.stage()),
             vlupd::UNKNOWN_ERROR);
    const std::set<std::string> needed = root.partFiles();
    QCOMPARE(needed.size(), 1U);
    const fs::path part = root.path() / "downloads" / *needed.begin();
    const fs::path other = root.path() / "downloads/other.tar.zst.part";
    writeFile(other, "of no use");
    const auto setAge = [](const fs::path& path, std::chrono::hours age) {
        fs::last_write_time(path, fs::file_time_type::clock::now() - age);
    };
    setAge(part, 13 * 24h);
    QVERIFY(library.cleanDownloads(30min));
    QVERIFY(fs::exists(other) && fs::exists(part));
    setAge(other, 1h);
    QVERIFY(library.cleanDownloads(std::chrono::minutes::max()));
    QVERIFY(fs::exists(other));
    QVERIFY(library.cleanDownloads(30min));
    QVERIFY(!fs::exists(other) && fs::exists(part));
    setAge(part, 15 * 24h);
    QVERIFY(library.cleanDownloads(30min));
    QVERIFY(!fs::exists(part));
}

void InstallTest::logIsSilentWithoutBuffer()
{
    const Root root(*m_releases);
    LogLines first;
    {
        VLUPD library(root.path(), false, nullptr);
        QCOMPARE(library.removeVersion("1.0.0"), vlupd::NOT_FOUND);
        library.setLogBuf(&first);
        QCOMPARE(library.removeVersion("1.1.0"), vlupd::NOT_FOUND);
        library.setLogBuf(nullptr);
        QCOMPARE(library.removeVersion("1.2.0"), vlupd::NOT_FOUND);
    }
    // What was said before a buffer came is kept for it; the last line went nowhere.
    const std::vector<std::string> expected{"removeVersion 1.0.0: not installed",
                                            "removeVersion 1.1.0: not installed"};
    QVERIFY2(first.lines == expected, first.text().c_str());
}

QTEST_GUILESS_MAIN(InstallTest)
#include "installtest.moc"
