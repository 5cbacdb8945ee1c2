#include "tests/vl/install/installfixture.h"
#include "vl/src/platform/file.h"

#include <QTest>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vl::FileOperation;
using vlupd::VLUPD;

namespace {

/// A change of a root or a version's folder.
using Change = std::function<void(const fs::path&)>;

const Files oldFiles{{"bin/simulator", "the simulator"},
                     {"data/map.txt", "a map"},
                     {"shared.txt", "the same in both"},
                     {"settings.ini", "default"}};
const Files newFiles{{"bin/simulator", "a newer simulator"},
                     {"shared.txt", "the same in both"},
                     {"settings.ini", "new default"}};
const Files mine{{"saves/mine", "mine"}, {"data/my map.txt", "mine"}};

Change write(const char* name, const std::string& text)
{
    return [=](const fs::path& folder) { writeFile(folder / name, text); };
}

// Nothing can be written any more, while renaming and removing go on.
std::optional<int> fullDisk(FileOperation operation, const fs::path& path)
{
    using enum FileOperation;
    const bool writes = operation == Write || operation == Truncate || operation == MakeDirectory ||
                        operation == FreeSpace ||
                        (operation == Open && vl::isTemporaryName(path.filename().string()));
    return writes ? std::optional(ENOSPC) : std::nullopt;
}

} // namespace

/// Records that cannot be read, and the removal, which is told by a record until it has ended.
class RecordsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup() { vl::setFileFault({}); }
    void unknownFormat_data();
    void unknownFormat();
    void damagedOrLost_data();
    void damagedOrLost();
    void removal_data();
    void removal();
    void interruptedRemoval_data();
    void interruptedRemoval();
    void heldFile();
    void settings_data();
    void settings();

private:
    std::unique_ptr<Releases> m_releases;
};

void RecordsTest::initTestCase()
{
    m_releases = std::make_unique<Releases>(true);
    m_releases->publish("0.9.0", {{"bin/simulator", "had no settings"}});
    m_releases->publish("1.0.0", oldFiles);
    m_releases->publish("2.0.0", newFiles);
    m_releases->publish("3.0.0", {{"bin/simulator", "3"}, {"settings.ini/inside", "a folder"}});
    m_releases->declaresSettings = false;
    m_releases->publish("4.0.0", {{"bin/simulator", "4"}, {"settings.ini", "not the user's"}});
}

// A newer library has been here; what it keeps is not for this one to judge.
void RecordsTest::unknownFormat_data()
{
    QTest::addColumn<Change>("change");
    const char* newer = R"({"format":99,"version":{"name":"1.0.0"}})";
    for (const char* name : {"installed.json", "switch.json", "removed.json"})
        QTest::newRow(name) << write(name, newer);
    QTest::newRow("removed.json alone") << Change([newer](const fs::path& root) {
        fs::remove(root / "installed.json");
        writeFile(root / "removed.json", newer);
    });
}

void RecordsTest::unknownFormat()
{
    QFETCH(Change, change);
    Installed it(*m_releases);
    for (const auto& [path, contents] : mine)
        writeFile(it.root.tree() / path, contents);
    change(it.root.path());
    const Files before = filesIn(it.root.path());
    LogLines log;
    VLUPD library(it.root.path(), false, &log);
    QVERIFY(log.contains("unknown format 99"));
    for (const auto& operation : std::vector<std::function<int()>>{
             [&] { return library.installVersion("1.0.0", {}, {}); },
             [&] { return library.installVersion("2.0.0", {}, {}); },
             [&] { return library.removeVersion("1.0.0"); },
             [&] { return library.cleanDownloads(0min) ? 0 : vlupd::UPDATER_DATA_ERROR; }}) {
        log.lines.clear();
        QCOMPARE(operation(), int(vlupd::UPDATER_DATA_ERROR));
        QVERIFY2(log.contains("unknown format 99"), log.text().c_str());
        QVERIFY(!library.cleanDownloads(0min));
        QVERIFY(filesIn(it.root.path()) == before);
    }
    QVERIFY(!fs::exists(it.root.path() / "simulator.vl"));
}

void RecordsTest::damagedOrLost_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<bool>("known");
    const std::string hash(64, 'a');
    const auto installed = [](const std::string& version, const std::string& manifest) {
        return R"({"format":2,"version":")" + version + R"(","manifest":")" + manifest +
               R"(","switch":1,"verified":9000000000000000000})";
    };
    const auto journal = [=](const std::string& in, const std::string& move,
                             const std::string& manifest = std::string(64, 'a')) {
        return R"({"format":2,"number":7,"from":null,"fromRemoved":true,"to":)" +
               installed("1.0.0", manifest) + R"(,"out":"","in":")" + in +
               R"(","programs":"","moves":[["saves/mine",")" + move + R"("]],"emptied":[]})";
    };
    const auto row = [](const char* name, const char* file, const std::string& text) {
        QTest::newRow(name) << write(file, text) << true;
    };
    row("empty", "installed.json", "");
    row("cut", "installed.json", R"({"format":2,"version":"1.)");
    row("garbage", "installed.json", std::string("\0\xff\xfe[{", 5));
    row("no object", "installed.json", "[2]");
    row("hostile version", "installed.json", installed("../..", hash));
    row("hostile manifest", "installed.json", installed("1.0.0", "../../vl"));
    row("empty journal", "switch.json", "");
    row("cut journal", "switch.json", journal("0", "mine").substr(0, 100));
    row("hostile journal", "switch.json", journal("0", "../../mine"));
    row("endless journal", "switch.json", journal("0-99999999999999999999", "mine"));
    row("journal of a lost manifest", "switch.json", journal("0", "mine"));
    row("damaged record of a removal", "removed.json", "{");
    QTest::newRow("journal with numbers of no file") << Change([journal](const fs::path& root) {
        const auto record = nlohmann::json::parse(filesIn(root).at("installed.json"));
        writeFile(root / "switch.json", journal("5000", "mine", record.at("manifest")));
    }) << true;
    QTest::newRow("lost") << Change([](const fs::path& root) {
        fs::remove(root / "installed.json");
    }) << true;
    QTest::newRow("lost with the manifest") << Change([](const fs::path& root) {
        fs::remove(root / "installed.json");
        fs::remove_all(root / "manifests");
    }) << false;
}

void RecordsTest::damagedOrLost()
{
    QFETCH(Change, change);
    QFETCH(bool, known);
    for (const std::string next : {"1.0.0", "2.0.0", ""}) {
        Installed it(*m_releases);
        for (const auto& [path, contents] : mine)
            writeFile(it.root.tree() / path, contents);
        const Files before = filesIn(it.root.tree());
        change(it.root.path());
        LogLines log;
        {
            VLUPD library(it.root.path(), false, &log);
            library.cleanDownloads(0min);
            QCOMPARE(library.getInstalledVersions().contains("1.0.0"), known);
            QVERIFY(filesIn(it.root.tree()) == before);
        }
        VLUPD library(it.root.path(), false, &log);
        if (!known && next.empty()) {
            QCOMPARE(library.removeVersion("1.0.0"), vlupd::NOT_FOUND);
            continue;
        }
        const int result =
            next.empty() ? library.removeVersion("1.0.0") : library.installVersion(next, {}, {});
        QVERIFY2(result == vlupd::OK, log.text().c_str());
        QCOMPARE(bool(library.getAppExecutablePath(next, "default_exec")), !next.empty());
        // Nobody can know the files of an older version whose list is lost: they are kept.
        Files all = mine;
        if (!known && next == "2.0.0")
            all.merge(Files{{"bin/simulator.user", "the simulator"},
                            {"data/map.txt", "a map"},
                            {"settings.ini", "default"}});
        library.cleanDownloads(0min);
        QCOMPARE(promiseFault(it.root, *m_releases, {next}, all), QString());
        QCOMPARE(it.root.leftovers(), QString());
    }
}

void RecordsTest::removal_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<Files>("left");
    const auto row = [](const char* name, const Files& left, const Change& change) {
        QTest::newRow(name) << change << left;
    };
    row("as installed", {}, [](const fs::path&) {});
    row("deleted by hand", {}, [](const fs::path& tree) { fs::remove_all(tree); });
    row("emptied by hand", {}, [](const fs::path& tree) {
        for (const auto& entry : fs::directory_iterator(tree))
            fs::remove_all(entry.path());
    });
    row("the user's files", mine, [](const fs::path& tree) {
        for (const auto& [path, contents] : mine)
            writeFile(tree / path, contents);
    });
    row("changed settings", {{"settings.ini", "mine"}}, write("settings.ini", "mine"));
    row("an edited file", {}, write("shared.txt", "edited"));
    row("a folder in place of a file", {{"shared.txt/mine", "mine"}}, [](const fs::path& tree) {
        fs::remove(tree / "shared.txt");
        writeFile(tree / "shared.txt/mine", "mine");
    });
#ifndef Q_OS_WIN // there, a right of its own is needed to make one
    row("a link", {{"link", "not a regular file"}},
        [](const fs::path& tree) { fs::create_directory_symlink(tree / "..", tree / "link"); });
#endif
}

void RecordsTest::removal()
{
    QFETCH(Change, change);
    QFETCH(Files, left);
    for (const bool full : {false, true}) {
        Installed it(*m_releases);
        change(it.root.tree());
        if (full)
            vl::setFileFault(fullDisk);
        QCOMPARE(it.library.removeVersion("1.0.0"), vlupd::OK);
        QVERIFY(it.library.getInstalledVersions().empty());
        QVERIFY2(it.library.cleanDownloads(0min), it.log.text().c_str());
        QVERIFY(filesIn(it.root.tree()) == left);
        QVERIFY(!fs::exists(it.root.tree() / "bin"));
        QCOMPARE(fs::exists(it.root.tree()), !left.empty());
        QCOMPARE(it.root.leftovers(), QString());
        cleanup();
        QCOMPARE(it.library.installVersion("1.0.0", {}, {}), vlupd::OK);
        QVERIFY(it.library.cleanDownloads(0min));
        QCOMPARE(promiseFault(it.root, *m_releases, {"1.0.0"}, left), QString());
    }
}

void RecordsTest::interruptedRemoval_data()
{
    QTest::addColumn<int>("steps");
    QTest::addColumn<std::string>("next");
    for (const int steps : {1, 3})
        for (const char* next : {"", "1.0.0", "2.0.0"})
            QTest::addRow("%d steps, then %s", steps, *next != 0 ? next : "a start")
                << steps << std::string(next);
}

// The process dies after the commit, or while files are being deleted.
void RecordsTest::interruptedRemoval()
{
    QFETCH(int, steps);
    QFETCH(std::string, next);
    std::atomic<int> left = steps;
    Installed it(*m_releases);
    for (const auto& [path, contents] : mine)
        writeFile(it.root.tree() / path, contents);
    vl::setFileFault([&left](FileOperation operation, const fs::path&) -> std::optional<int> {
        if (operation != FileOperation::Rename && operation != FileOperation::Remove)
            return std::nullopt;
        return left-- > 0 ? std::nullopt : std::optional(EIO);
    });
    QCOMPARE(VLUPD(it.root.path(), false, nullptr).removeVersion("1.0.0"), vlupd::OK);
    cleanup();
    QVERIFY(it.library.getInstalledVersions().empty());
    if (!next.empty()) {
        // What has not been deleted yet need not be fetched.
        const bool isWhole = steps == 1 && next == "1.0.0";
        const fs::path packs = m_releases->folder() / "packs";
        const fs::path hidden = m_releases->folder() / "hidden";
        if (isWhole)
            fs::rename(packs, hidden);
        const int result = it.library.installVersion(next, {}, {});
        if (isWhole)
            fs::rename(hidden, packs);
        QVERIFY2(result == vlupd::OK, it.log.text().c_str());
    }
    QVERIFY(it.library.cleanDownloads(0min));
    QCOMPARE(promiseFault(it.root, *m_releases, {next}, mine), QString());
    QCOMPARE(it.root.leftovers(), QString());
}

void RecordsTest::heldFile()
{
    std::atomic<bool> held = true;
    Installed it(*m_releases);
    vl::setFileFault([&held](FileOperation operation, const fs::path& path) -> std::optional<int> {
        const bool hit = operation == FileOperation::Remove && path.filename() == "map.txt";
        return hit && held ? std::optional(EBUSY) : std::nullopt;
    });
    QCOMPARE(it.library.removeVersion("1.0.0"), vlupd::OK);
    QVERIFY(!it.library.cleanDownloads(0min));
    QVERIFY2(it.log.contains("data/map.txt: "), it.log.text().c_str());
    QVERIFY(filesIn(it.root.tree()) == (Files{{"data/map.txt", "a map"}}));
    held = false;
    QVERIFY(it.library.cleanDownloads(0min));
    QVERIFY(!fs::exists(it.root.tree()));
    QCOMPARE(it.root.leftovers(), QString());
}

void RecordsTest::settings_data()
{
    QTest::addColumn<std::string>("from");
    QTest::addColumn<std::string>("to");
    QTest::addColumn<Change>("change");
    QTest::addColumn<Files>("expected");
    const Change changed = write("settings.ini", "mine");
    const auto row = [](const std::string& name, const char* from, const char* to,
                        const Change& change, const Files& expected) {
        QTest::newRow(name.c_str()) << std::string(from) << std::string(to) << change << expected;
    };
    const auto rows = [&](const std::string& name, const char* from, const char* to,
                          const Files& whenUnchanged, const Files& whenChanged,
                          const Files& whenDeleted) {
        row(
            name + ", unchanged", from, to, [](const fs::path&) {}, whenUnchanged);
        row(name + ", changed", from, to, changed, whenChanged);
        row(
            name + ", deleted", from, to,
            [](const fs::path& tree) { fs::remove(tree / "settings.ini"); }, whenDeleted);
    };
    const Files first{{"settings.ini", "default"}};
    const Files second{{"settings.ini", "new default"}};
    const Files own{{"settings.ini", "mine"}};
    const Files folder{{"settings.ini/inside", "a folder"}};
    const Files folderAndOwn{{"settings.ini/inside", "a folder"}, {"settings.ini.user", "mine"}};
    const Files plain{{"settings.ini", "not the user's"}};
    const Files plainAndOwn{{"settings.ini", "not the user's"}, {"settings.ini.user", "mine"}};
    rows("update", "1.0.0", "2.0.0", second, own, second);
    rows("downgrade", "2.0.0", "1.0.0", first, own, first);
    rows("repair", "1.0.0", "1.0.0", first, own, first);
    rows("check", "1.0.0", "", first, own, {});
    rows("removal", "1.0.0", "-", {}, own, {});
    rows("no longer listed", "1.0.0", "0.9.0", {}, own, {});
    rows("no longer settings", "1.0.0", "4.0.0", plain, plainAndOwn, plain);
    rows("settings from now on", "4.0.0", "1.0.0", first, own, first);
    rows("in the way of a folder", "1.0.0", "3.0.0", folder, folderAndOwn, folder);
    row("made by the program", "0.9.0", "1.0.0", changed, own);
    row("a folder of the user", "0.9.0", "1.0.0", write("settings.ini/mine", "mine"),
        {{"settings.ini", "default"}, {"settings.ini.user/mine", "mine"}});
}

void RecordsTest::settings()
{
    QFETCH(std::string, from);
    QFETCH(std::string, to);
    QFETCH(Change, change);
    QFETCH(Files, expected);
    Installed it(*m_releases, from);
    change(it.root.tree());
    if (to == "-")
        QCOMPARE(it.library.removeVersion(from), vlupd::OK);
    else if (!to.empty())
        QCOMPARE(it.library.installVersion(to, {}, {}), vlupd::OK);
    QVERIFY(it.library.cleanDownloads(0min));
    if (to != "-")
        QCOMPARE(it.library.checkFiles(to.empty() ? from : to, std::nullopt), vlupd::OK);
    Files there = filesIn(it.root.tree());
    std::erase_if(there, [](const auto& file) { return !file.first.starts_with("settings"); });
    QVERIFY(there == expected);
    QCOMPARE(it.root.leftovers(), QString());
}

QTEST_GUILESS_MAIN(RecordsTest)
#include "recordstest.moc"
