#include "tests/vl/install/installfixture.h"
#include "vl/src/platform/file.h"

#include <QTest>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vl::FileOperation;
using vlupd::VLUPD;

namespace {

/// A change of a version's folder.
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
    void userFilesStay();
    void linkedFolderIsLeftAlone();
    void callbacksThatEndIt_data();
    void callbacksThatEndIt();
    void damageIsFound_data();
    void damageIsFound();
    void readingNeedsNoWriting();
    void stagedFilesAreCleaned();
    void logIsNotFlooded();
    void oldFilesAreDeletedLater_data();
    void oldFilesAreDeletedLater();

private:
    std::unique_ptr<Releases> m_releases;
};

void InstallTest::initTestCase()
{
    m_releases = std::make_unique<Releases>(true);
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

    // The first, a higher one, a lower one, the same again whole and damaged.
    using Step = std::pair<std::string, bool>;
    for (const auto& [version, damaged] :
         {Step("1.0.0", false), Step("1.10.0", false), Step("1.0.0", false), Step("1.0.0", false),
          Step("1.0.0", true)}) {
        if (damaged)
            writeFile(it.root.tree() / "shared.txt", "edited");
        Recorder recorder;
        QCOMPARE(it.library.installVersion(version, recorder.progress(), recorder.stage()),
                 vlupd::OK);
        QCOMPARE(recorder.fault(), QString());
        QVERIFY(it.library.cleanDownloads(0min));
        QCOMPARE(promiseFault(it.root, *m_releases, {version}), QString());
        QCOMPARE(it.root.leftovers(), QString());
        const auto program = it.library.getAppExecutablePath(version, "default_exec");
        QVERIFY(program && program->is_absolute() && *program == it.root.tree() / "bin/simulator");
        QCOMPARE(fs::path(it.library.getInstalledVersions().at(version).installDirectory),
                 it.root.tree());
#ifndef Q_OS_WIN
        QCOMPARE(fs::status(*program).permissions() & fs::perms::owner_exec, fs::perms::owner_exec);
#endif
        QVERIFY(!it.library.getAppExecutablePath(version, "other_exec"));
        QVERIFY(!it.library.getAppExecutablePath("1.5.0", "default_exec"));
    }
    QVERIFY(it.log.contains("nothing has to be changed"));
    QVERIFY(it.log.contains("replaced, although somebody has changed it: shared.txt"));
    QCOMPARE(it.library.installVersion("7.0.0", {}, {}), vlupd::NOT_FOUND);
    QVERIFY(it.log.contains("installVersion 7.0.0: the catalogue lists no such version"));
    QCOMPARE(it.library.removeVersion("1.10.0"), vlupd::NOT_FOUND);
    QCOMPARE(it.library.removeVersion("1.0.0"), vlupd::OK);
    QVERIFY(it.library.cleanDownloads(0min));
    QVERIFY(!fs::exists(it.root.tree()));
    QCOMPARE(it.root.leftovers(), QString());
    VLUPD nowhere(it.root.path() / "missing", false, &it.log);
    QCOMPARE(nowhere.installVersion("1.0.0", {}, {}), vlupd::SYSTEM_CALL_ERROR);
    QVERIFY(it.log.threads == std::set{std::this_thread::get_id()});
}

void InstallTest::userFilesStay()
{
    Installed it(*m_releases);
    const fs::path tree = it.root.tree();
    writeFile(tree / u8"полёты/мой.txt", "mine");
    writeFile(tree / u8"данные/моя.txt", "mine beside a file that goes");
    writeFile(tree / "notes.txt", "my notes");
    writeFile(tree / "bin/simulator", "damaged, but not the user's");

    QCOMPARE(it.library.installVersion("1.10.0", {}, {}), vlupd::OK);
    Files expected = newFiles;
    expected["полёты/мой.txt"] = "mine";
    expected["данные/моя.txt"] = "mine beside a file that goes";
    expected["notes.txt.user"] = "my notes";
    QVERIFY(filesIn(tree) == expected);
    QCOMPARE(it.library.checkFiles("1.10.0", std::nullopt), vlupd::OK);

    // On the way back a user's file meets a name that is a file there and a folder here.
    writeFile(tree / "replaced/mine.txt", "mine too");
    QCOMPARE(it.library.installVersion("1.0.0", {}, {}), vlupd::OK);
    expected = oldFiles;
    expected["полёты/мой.txt"] = "mine";
    expected["данные/моя.txt"] = "mine beside a file that goes";
    expected["notes.txt.user"] = "my notes";
    expected["replaced.user/mine.txt"] = "mine too";
    QVERIFY(it.library.cleanDownloads(0min));
    QVERIFY(filesIn(tree) == expected);
    QCOMPARE(it.root.leftovers(), QString());
}

// A folder of the version that leads elsewhere is not the version's any more.
void InstallTest::linkedFolderIsLeftAlone()
{
#ifdef Q_OS_WIN
    QSKIP("there, a right of its own is needed to make a link");
#else
    for (const std::string next : {"1.0.0", "1.10.0"}) {
        const QTemporaryDir elsewhere;
        Installed it(*m_releases);
        const fs::path place = it.root.tree() / u8"данные";
        fs::copy(place, pathOf(elsewhere) / "copy");
        fs::remove_all(place);
        fs::create_directory_symlink(pathOf(elsewhere) / "copy", place);
        QCOMPARE(it.library.checkFiles("1.0.0", std::nullopt), vlupd::INSTALLED_FILES_BROKEN);
        QCOMPARE(it.library.installVersion(next, {}, {}), vlupd::OK);
        QVERIFY(it.library.cleanDownloads(0min));
        // It makes room only where the version brings the folder again.
        const std::string link = next == "1.0.0" ? "данные.user" : "данные";
        QCOMPARE(promiseFault(it.root, *m_releases, {next}, {{link, "not a regular file"}}),
                 QString());
        QVERIFY(filesIn(pathOf(elsewhere)) == (Files{{"copy/карта.txt", "карта"}}));
        QCOMPARE(it.root.leftovers(), QString());
    }
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
            it.library.checkFiles("1.0.0", std::nullopt) != vlupd::SYSTEM_CALL_ERROR ||
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

    // Everything fetched is staged: the repository need not have it any more.
    const fs::path packs = m_releases->folder() / "packs";
    const fs::path hidden = m_releases->folder() / "hidden";
    if (stage > 0)
        fs::rename(packs, hidden);
    Recorder resumed;
    const int result = it.library.installVersion("1.10.0", resumed.progress(), resumed.stage());
    if (stage > 0)
        fs::rename(hidden, packs);
    QVERIFY2(result == vlupd::OK, it.log.text().c_str());
    QCOMPARE(resumed.fault(), QString());
    QVERIFY(it.library.cleanDownloads(0min));
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
    row("one bit, with the old time", broken, "shared.txt: other contents",
        [change](const fs::path& tree) {
            change(tree);
            fs::last_write_time(tree / "shared.txt", fs::file_time_type::clock::now() - 9000h);
        });
    row("outside the subfolder", vlupd::OK, "", change, "данные/");
    row("no such subfolder", vlupd::NOT_FOUND, "", change, "../simulator");
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
        for (const char* file : {"bin/simulator", "../vl.lock"})
            fs::permissions(tree / file, fs::perms::owner_read);
        fs::remove_all(tree.parent_path() / "manifests");
    });
}

void InstallTest::damageIsFound()
{
    QFETCH(Damage, damage);
    const auto& [expected, words, change, subfolder] = damage;
    // A repair finds it on its own; an update keeps away from what a check has found.
    for (const bool checked : {true, false}) {
        Installed it(*m_releases);
        change(it.root.tree());
        QVERIFY(it.library.getInstalledVersions().contains("1.0.0"));
        if (checked) {
            QCOMPARE(int(it.library.checkFiles("1.0.0", subfolder)), expected);
            QVERIFY2(it.log.contains(words), it.log.text().c_str());
            it.library.checkFiles("1.0.0", std::nullopt);
        }
        const std::string next = checked ? "1.10.0" : "1.0.0";
        QCOMPARE(it.library.installVersion(next, {}, {}), vlupd::OK);
        QCOMPARE(it.library.checkFiles(next, std::nullopt), vlupd::OK);
        QVERIFY(it.library.cleanDownloads(0min));
        QCOMPARE(it.root.leftovers(), QString());
    }
}

void InstallTest::readingNeedsNoWriting()
{
    const Installed it(*m_releases);
    const Files before = filesIn(it.root.path());
    // The seam stands for the read-only file system, which the superuser's rights do not override.
    vl::setFileFault([](FileOperation operation, const fs::path&) -> std::optional<int> {
        using enum FileOperation;
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

void InstallTest::stagedFilesAreCleaned()
{
    Installed it(*m_releases);
    Recorder ended;
    ended.goOn = [](const Recorder::Report& report) { return report.stage != 2; };
    QCOMPARE(it.library.installVersion("1.10.0", ended.progress(), ended.stage()),
             vlupd::UNKNOWN_ERROR);
    const auto staged = it.root.staged();
    QVERIFY(!staged.empty());
    const fs::path staging = it.root.path() / "simulator.vl";
    const std::vector<fs::path> foreign{staging / "photo.jpg", staging / "staged-abc/mine",
                                        it.root.path() / "manifests/photo.jpg"};
    const auto old = fs::file_time_type::clock::now() - 1000 * 24h;
    for (const fs::path& path : foreign) {
        writeFile(path, "the user's");
        fs::last_write_time(path, old);
    }
    // Whether files of some age are still there after a cleaning with this limit.
    const auto stay = [&](std::chrono::hours age, std::chrono::minutes limit) {
        for (const auto& [path, size] : staged)
            fs::last_write_time(staging / path, fs::file_time_type::clock::now() - age);
        const bool cleaned = it.library.cleanDownloads(limit);
        auto left = it.root.staged();
        left.erase("staged-abc/mine");
        return cleaned && left == staged;
    };
    QVERIFY(stay(0h, 0min));
    QVERIFY(stay(13 * 24h, 30min));
    QVERIFY(stay(15 * 24h, 20 * 24h));
    QVERIFY(stay(15 * 24h, std::chrono::minutes::max()));
    QVERIFY(!stay(15 * 24h, 30min));
    QCOMPARE(it.root.staged().size(), 1U);
    for (const fs::path& path : foreign)
        QVERIFY(fs::exists(path));
    QCOMPARE(promiseFault(it.root, *m_releases, {"1.0.0"}), QString());
}

void InstallTest::logIsNotFlooded()
{
    Files many = oldFiles;
    Releases releases(true);
    releases.publish("1.0.0", oldFiles);
    for (int i = 0; i < 100; ++i)
        many["many/" + std::to_string(i)] = "of the version";
    releases.publish("2.0.0", many);
    Installed it(releases);
    const auto writeMany = [&](const std::string& text) {
        for (int i = 0; i < 100; ++i)
            writeFile(it.root.tree() / "many" / std::to_string(i), text);
        it.log.lines.clear();
    };
    const auto said = [&](const std::string& words) {
        return std::ranges::count_if(it.log.lines, [&](const std::string& line) {
            return line.find(words) != std::string::npos;
        });
    };
    writeMany("the user's");
    QCOMPARE(it.library.installVersion("2.0.0", {}, {}), vlupd::OK);
    QVERIFY(said("kept the user's") <= 21 && it.log.contains("and 80 more"));
    QVERIFY(it.log.contains("kept the user's: many/"));
    writeMany("edited");
    QCOMPARE(it.library.checkFiles("2.0.0", std::nullopt), vlupd::INSTALLED_FILES_BROKEN);
    QVERIFY(said("many/") == 20 && it.log.contains("and 80 more"));
    it.log.lines.clear();
    QCOMPARE(it.library.installVersion("1.0.0", {}, {}), vlupd::OK);
    QVERIFY(said("somebody has changed it") <= 21 && it.log.contains("and 80 more"));
    QVERIFY(it.log.lines.size() < 40);
}

void InstallTest::oldFilesAreDeletedLater_data()
{
    QTest::addColumn<std::string>("next");
    QTest::newRow("after the program's end") << std::string();
    QTest::newRow("by the next installation") << std::string("1.0.0");
}

// The program goes on as soon as the new version is installed, and may end at once.
void InstallTest::oldFilesAreDeletedLater()
{
    QFETCH(std::string, next);
    enum Deletion { Held, Free, Dead };
    std::atomic<Deletion> deletion = Held;
    Installed it(*m_releases);
    auto library = std::make_unique<VLUPD>(it.root.path(), false, &it.log);
    vl::setFileFault([&](FileOperation operation, const fs::path& path) -> std::optional<int> {
        if (operation != FileOperation::Remove || path.parent_path().filename() != "aside")
            return std::nullopt;
        deletion.wait(Held);
        return deletion == Dead ? std::optional(EIO) : std::nullopt;
    });
    QCOMPARE(library->installVersion("1.10.0", {}, {}), vlupd::OK);
    QVERIFY(filesIn(it.root.path() / "simulator.vl").size() > 1);
    QVERIFY(library->getAppExecutablePath("1.10.0", "default_exec"));
    deletion = next.empty() ? Dead : Free;
    deletion.notify_all();
    QCOMPARE(library->checkFiles("1.10.0", std::nullopt), vlupd::OK);
    if (!next.empty())
        QCOMPARE(library->installVersion(next, {}, {}), vlupd::OK);
    library.reset();
    cleanup();
    QCOMPARE(promiseFault(it.root, *m_releases, {next.empty() ? "1.10.0" : next}), QString());
    QCOMPARE(it.root.leftovers(), QString());
}

QTEST_GUILESS_MAIN(InstallTest)
#include "installtest.moc"
