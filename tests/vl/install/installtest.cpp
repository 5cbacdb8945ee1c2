#include "tests/vl/install/installfixture.h"
#include "vl/src/platform/file.h"

#include <QFile>
#include <QProcess>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vlupd::VLUPD;

namespace {

/// What happens to a root or a version's folder.
using Change = std::function<void(const fs::path&)>;
/// What checkFiles answers and logs after a change, below a subfolder.
using Damage = std::tuple<int, const char*, Change, const char*>;

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
    void cleanup() { vl::setFileFault({}); }
    void installs();
    void userFilesMoveAlong();
    void runningVersionKeepsItsUserFiles();
    void callbacksThatEndIt_data();
    void callbacksThatEndIt();
    void damageIsFound_data();
    void damageIsFound();
    void lostRecords_data();
    void lostRecords();
    void readingNeedsNoWriting();
    void downloadsAreCleaned();

private:
    std::unique_ptr<Releases> m_releases;
};

void InstallTest::initTestCase()
{
    m_releases = std::make_unique<Releases>();
    m_releases->publish("1.0.0", oldFiles);
    m_releases->publish("1.10.0", newFiles);
}

void InstallTest::installs()
{
    Installed it(*m_releases, "");
    QVERIFY(it.library.getInstalledVersions().empty());
    QCOMPARE(it.library.removeVersion("1.0.0"), vlupd::NOT_FOUND);
    QCOMPARE(it.library.checkFiles("1.0.0", std::nullopt), vlupd::NOT_FOUND);
    QCOMPARE(it.library.getAvailableVersions().size(), 2U);

    for (const std::string version : {"1.0.0", "1.10.0", "1.0.0"}) {
        Recorder recorder;
        QCOMPARE(it.library.installVersion(version, recorder.progress(), recorder.stage()),
                 vlupd::OK);
        QCOMPARE(recorder.fault(), QString());
        QCOMPARE(promiseFault(it.root, *m_releases, {version}), QString());
        QCOMPARE(it.root.leftovers(), QString());
        const auto program = it.library.getAppExecutablePath(version, "default_exec");
        QVERIFY(program && program->is_absolute() && *program == it.root.tree() / "bin/simulator");
#ifndef Q_OS_WIN
        QCOMPARE(fs::status(*program).permissions() & fs::perms::owner_exec, fs::perms::owner_exec);
#endif
        QVERIFY(!it.library.getAppExecutablePath(version, "other_exec"));
        QVERIFY(!it.library.getAppExecutablePath("1.5.0", "default_exec"));
    }
    Recorder recorder;
    QCOMPARE(it.library.installVersion("1.0.0", recorder.progress(), recorder.stage()),
             vlupd::FOUND_LOCALLY);
    QVERIFY(recorder.reports.empty());
    QCOMPARE(it.library.installVersion("7.0.0", {}, {}), vlupd::NOT_FOUND);
    QVERIFY(it.log.contains("installVersion 7.0.0: the catalogue lists no such version"));
    fs::remove_all(it.root.tree());
    QCOMPARE(it.library.removeVersion("1.0.0"), vlupd::OK);
    QCOMPARE(it.root.leftovers(), QString());
    VLUPD nowhere(it.root.path() / "missing", false, &it.log);
    QCOMPARE(nowhere.installVersion("1.0.0", {}, {}), vlupd::SYSTEM_CALL_ERROR);
    QVERIFY(it.log.threads == std::set{std::this_thread::get_id()});
}

void InstallTest::userFilesMoveAlong()
{
    Installed it(*m_releases);
    const fs::path old = it.root.tree();
    writeFile(old / u8"полёты/мой.txt", "mine");
    writeFile(old / "notes.txt", "my notes");
    writeFile(old / "bin/simulator", "damaged, but not the user's");
    fs::create_directories(old / "empty folder");

    QCOMPARE(it.library.installVersion("1.10.0", {}, {}), vlupd::OK);
    Files expected = newFiles;
    expected["полёты/мой.txt"] = "mine";
    expected["notes.txt.user"] = "my notes";
    QVERIFY(filesIn(it.root.tree()) == expected);
    QCOMPARE(it.library.checkFiles("1.10.0", std::nullopt), vlupd::OK);
    QVERIFY(!fs::exists(old));

    // On the way back a user's file meets a name that is a file there and a folder here.
    writeFile(it.root.tree() / "replaced/mine.txt", "mine too");
    QCOMPARE(it.library.installVersion("1.0.0", {}, {}), vlupd::OK);
    const Files kept = filesIn(it.root.tree());
    QCOMPARE(kept.at("replaced.user/mine.txt"), std::string("mine too"));
    QCOMPARE(kept.at("replaced"), oldFiles.at("replaced"));
    QCOMPARE(kept.at("notes.txt.user"), std::string("my notes"));
    QCOMPARE(it.root.leftovers(), QString());
}

void InstallTest::runningVersionKeepsItsUserFiles()
{
#ifdef Q_OS_WIN
    QSKIP("there, the test of files that are held covers it");
#else
    QFile sleep(QStringLiteral("/bin/sleep"));
    QVERIFY(sleep.open(QIODevice::ReadOnly));
    Releases releases;
    releases.publish("1.0.0", {{"bin/simulator", sleep.readAll().toStdString()}});
    releases.publish("2.0.0", newFiles);
    Installed it(releases);
    const fs::path old = it.root.tree();
    writeFile(old / "mine.txt", "written anew at its end");
    QProcess simulator;
    simulator.start(QString::fromStdString(old / "bin/simulator"), {QStringLiteral("60")});
    QVERIFY(simulator.waitForStarted());
    QCOMPARE(it.library.installVersion("2.0.0", {}, {}), vlupd::OK);
    QVERIFY(fs::exists(old / "mine.txt"));
    simulator.kill();
    QVERIFY(simulator.waitForFinished());
    QVERIFY(it.library.cleanDownloads(0min));
    QVERIFY(fs::exists(it.root.tree() / "mine.txt"));
    QCOMPARE(it.root.leftovers(), QString());
#endif
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
    Installed it(*m_releases);
    Recorder recorder;
    recorder.goOn = [&](const Recorder::Report& report) {
        // Meanwhile others are refused at once, and reading goes on.
        if (it.library.removeVersion("1.0.0") != vlupd::SYSTEM_CALL_ERROR ||
            it.library.cleanDownloads(0min) || it.library.getInstalledVersions().empty())
            return false;
        if (report.stage == stage && throws)
            throw std::runtime_error("from the callback");
        return report.stage != stage;
    };
    QCOMPARE(it.library.installVersion("1.10.0", recorder.progress(), recorder.stage()),
             vlupd::UNKNOWN_ERROR);
    QVERIFY2(it.log.contains("installVersion 1.10.0: the progress callback"),
             it.log.text().c_str());
    QCOMPARE(recorder.reports.back().stage, stage);
    QCOMPARE(promiseFault(it.root, *m_releases, {"1.0.0"}), QString());

    Recorder resumed;
    QCOMPARE(it.library.installVersion("1.10.0", resumed.progress(), resumed.stage()), vlupd::OK);
    QCOMPARE(resumed.fault(), QString());
    if (stage > 0)
        QCOMPARE(resumed.reports.front().done, resumed.reports.front().total);
    QCOMPARE(promiseFault(it.root, *m_releases, {"1.10.0"}), QString());
    QCOMPARE(it.root.leftovers(), QString());
}

void InstallTest::damageIsFound_data()
{
    QTest::addColumn<Damage>("damage");
    const auto row = [](const char* name, int expected, const char* words, const Change& change,
                        const char* subfolder = "") {
        QTest::newRow(name) << Damage{expected, words, change, subfolder};
    };
    const auto write = [](const char* path, const char* text) -> Change {
        return [=](const fs::path& tree) { writeFile(tree / path, text); };
    };
    const Change change = write("shared.txt", "tHE same in both");
    constexpr int broken = vlupd::INSTALLED_FILES_BROKEN;
    row("a file of the user", vlupd::OK, "", write("mine.txt", "mine"));
    row("one bit", broken, "shared.txt: other contents", change);
    row("outside the subfolder", vlupd::OK, "", change, "данные/");
    row("no such subfolder", vlupd::NOT_FOUND, "", change, "../1.0.0");
    row("cut", broken, "bin/simulator: 3 bytes instead of 13", write("bin/simulator", "the"));
    row("missing", broken, "данные/карта.txt: missing",
        [](const fs::path& tree) { fs::remove_all(tree / u8"данные"); });
    row("folder deleted", broken, "missing", [](const fs::path& tree) { fs::remove_all(tree); });
#ifndef Q_OS_WIN // there, a right of its own is needed to make one
    row("link to a right copy", broken, "shared.txt: not a regular file", [](const fs::path& tree) {
        fs::rename(tree / "shared.txt", tree / "copy");
        fs::create_symlink(tree / "copy", tree / "shared.txt");
    });
#endif
    row("write permission gone, manifest lost", vlupd::OK, "", [](const fs::path& tree) {
        for (const char* file : {"bin/simulator", "../../vl.lock"})
            fs::permissions(tree / file, fs::perms::owner_read);
        fs::remove_all(tree / "../../manifests");
    });
}

void InstallTest::damageIsFound()
{
    QFETCH(Damage, damage);
    const auto& [expected, words, change, subfolder] = damage;
    Installed it(*m_releases);
    change(it.root.tree());
    QVERIFY(it.library.getInstalledVersions().contains("1.0.0"));
    QCOMPARE(int(it.library.checkFiles("1.0.0", subfolder)), expected);
    QVERIFY2(it.log.contains(words), it.log.text().c_str());
    // A damaged version can be installed anew, a whole one need not be.
    const bool damaged = it.library.checkFiles("1.0.0", std::nullopt) != vlupd::OK;
    QCOMPARE(it.library.installVersion("1.0.0", {}, {}),
             damaged ? vlupd::OK : vlupd::FOUND_LOCALLY);
    QCOMPARE(it.library.checkFiles("1.0.0", std::nullopt), vlupd::OK);
}

void InstallTest::lostRecords_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<bool>("remains");
    const auto write = [](const char* name, const char* text) {
        const Change change = [=](const fs::path& root) {
            writeFile(root / "installed.json", text);
        };
        QTest::newRow(name) << change << true;
    };
    write("empty", "");
    write("cut", R"({"format":1,"installed":{"ver)");
    write("hostile version", R"({"format":1,"superseded":[],)"
                             R"("installed":{"version":"../..","generation":1,"manifest":""}})");
    write("newer format", R"({"format":2})");
    QTest::newRow("missing") << Change([](const fs::path& root) {
        fs::remove(root / "installed.json");
    }) << true;
    QTest::newRow("interrupted removal") << Change([](const fs::path& root) {
        fs::rename(root / "versions/1.0.0.g1", root / "versions/.trash-1.0.0.g1");
    }) << false;
}

void InstallTest::lostRecords()
{
    QFETCH(Change, change);
    QFETCH(bool, remains);
    Installed it(*m_releases);
    const fs::path root = it.root.path();
    change(root);
    const std::set<std::string> expected{remains ? "1.0.0" : ""};
    QCOMPARE(promiseFault(it.root, *m_releases, expected), QString());
    LogLines log;
    VLUPD library(root, false, nullptr);
    QVERIFY(library.cleanDownloads(0min));
    library.setLogBuf(&log);
    library.getInstalledVersions();
    if (remains)
        QVERIFY2(log.contains("installed.json"), log.text().c_str());
    QCOMPARE(promiseFault(it.root, *m_releases, expected), QString());
    QCOMPARE(it.root.leftovers(), QString());
    QCOMPARE(library.installVersion("1.0.0", {}, {}), remains ? vlupd::FOUND_LOCALLY : vlupd::OK);
}

void InstallTest::readingNeedsNoWriting()
{
    const Installed it(*m_releases);
    const Files before = filesIn(it.root.path());
    // The seam stands for the read-only file system, which the superuser's rights do not override.
    vl::setFileFault([](vl::FileOperation operation, const fs::path&) -> std::optional<int> {
        using enum vl::FileOperation;
        return operation == Open || operation == Read ? std::nullopt : std::optional(EROFS);
    });
    for (const bool readOnly : {true, false}) {
        LogLines log;
        VLUPD library(it.root.path(), readOnly, &log);
        QVERIFY(library.getAvailableVersions().is_object());
        QVERIFY(library.getAppExecutablePath("1.0.0", "default_exec"));
        QCOMPARE(library.checkFiles("1.0.0", std::nullopt), vlupd::OK);
        QVERIFY(library.installVersion("1.10.0", {}, {}) != vlupd::OK);
        QCOMPARE(library.removeVersion("1.0.0"), vlupd::SYSTEM_CALL_ERROR);
        QCOMPARE(log.contains("for reading only"), readOnly);
    }
    cleanup();
    QVERIFY(filesIn(it.root.path()) == before);
    // Without the manifest and the repository nothing can be said about the files.
    fs::remove_all(it.root.path() / "manifests");
    fs::remove(it.root.path() / "vl.json");
    VLUPD library(it.root.path(), true, nullptr);
    QCOMPARE(library.checkFiles("1.0.0", std::nullopt), vlupd::BROKEN_OR_MISSING);
    QVERIFY(!library.getAppExecutablePath("1.0.0", "default_exec"));
    QVERIFY(library.getInstalledVersions().contains("1.0.0"));
}

void InstallTest::downloadsAreCleaned()
{
    Installed it(*m_releases, "");
    Recorder ended;
    ended.goOn = [](const Recorder::Report& report) { return report.stage != 2; };
    QCOMPARE(it.library.installVersion("1.0.0", ended.progress(), ended.stage()),
             vlupd::UNKNOWN_ERROR);
    const std::set<std::string> needed = it.root.partFiles();
    QVERIFY(!needed.empty());
    const std::string other = std::string(64, 'a') + ".zst.part";
    writeFile(it.root.path() / "downloads" / other, "of no use");
    // To Windows the folder is the same as "Downloads".
    const fs::path foreign = it.root.path() / "downloads/photo.part";
    writeFile(foreign, "the user's");
    fs::last_write_time(foreign, fs::file_time_type::clock::now() - 24h);
    // Whether files of some age are still there after a cleaning with this limit.
    const auto stay = [&](const std::set<std::string>& names, std::chrono::hours age,
                          std::chrono::minutes limit) {
        for (const std::string& name : names)
            fs::last_write_time(it.root.path() / "downloads" / name,
                                fs::file_time_type::clock::now() - age);
        return it.library.cleanDownloads(limit) &&
               std::ranges::includes(it.root.partFiles(), names);
    };
    QVERIFY(stay({other}, 0h, 30min));
    QVERIFY(stay({other}, 1h, std::chrono::minutes::max()));
    QVERIFY(!stay({other}, 1h, 30min));
    QVERIFY(stay(needed, 13 * 24h, 30min));
    QVERIFY(!stay(needed, 15 * 24h, 30min));
    QVERIFY(fs::remove(foreign));
    QCOMPARE(it.root.leftovers(), QString());
}

QTEST_GUILESS_MAIN(InstallTest)
#include "installtest.moc"
