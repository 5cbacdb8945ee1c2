#include "tests/support/httpserver.h"
#include "tests/vl/install/installfixture.h"
#include "vl/src/formats/delta.h"
#include "vl/src/platform/file.h"

#include <QTest>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>

namespace fs = std::filesystem;
using testsupport::HttpServer;
using testsupport::Misbehaviour;
using vl::FileOperation;
using vlupd::VLUPD;

namespace {

constexpr std::size_t mebibyte = 1U << 20U;

/// Whether the index or else the delta suffers, what the server does, and the number of requests.
using Case = std::tuple<bool, Misbehaviour, int>;
/// What happens to the staged files of an installation that was ended.
using Spoil = std::function<void(const fs::path& staged)>;
/// Makes file operations fail.
using Fault = std::function<std::optional<int>(FileOperation, const fs::path&)>;
/// A fault, the result, words of the log, and the share of the new files that may be fetched.
using BadDisk = std::tuple<Fault, int, const char*, double>;
/// What lies where the new version brings a file: nothing, a file or a folder of the user, or a
/// file of his where it needs a folder.
enum class InTheWay { Nothing, File, Folder, Parent };

std::string edited(std::string bytes)
{
    for (std::size_t i = 1000; i + 3 < bytes.size(); i += 20'000)
        bytes.replace(i, 3, "new, ");
    return bytes;
}

const std::string longName = std::string(200, 'd') + "/" + std::string(100, 'f') + ".dat";

Files oldFiles()
{
    Files files{{"bin/simulator", "program"}, {"empty", ""}, {"карта/район.txt", "Север"}};
    for (unsigned i = 0; i < 6; ++i)
        files["data/" + std::to_string(i)] = someBytes(60'000, i);
    return files;
}

/// Files of the user that are in the way of what `now` brings and `before` had not.
Files filesInTheWay(InTheWay kind, const Files& before, const Files& now)
{
    static int count = 0; // so that no two are the same
    const std::string text = "mine, number " + std::to_string(++count) + " in place of ";
    Files mine;
    for (const auto& [path, contents] : now) {
        if (before.contains(path))
            continue;
        if (kind == InTheWay::File)
            mine[path] = text + path;
        if (kind == InTheWay::Folder)
            mine[path + "/mine.txt"] = text + path;
        if (kind == InTheWay::Parent && path.find('/') != path.npos)
            mine[path.substr(0, path.rfind('/'))] = text + "the folder of " + path;
    }
    return mine;
}

/// When the files in `folder` were modified last.
std::map<std::string, fs::file_time_type> timesIn(const fs::path& folder)
{
    std::map<std::string, fs::file_time_type> times;
    const auto entries = vl::listTree(folder).value_or(std::vector<vl::TreeEntry>());
    for (const vl::TreeEntry& entry : entries)
        if (entry.info.kind == vl::FileKind::File)
            times[entry.path] = entry.info.modified;
    return times;
}

QStringList emptyFoldersIn(const fs::path& folder)
{
    QStringList found;
    const auto entries = vl::listTree(folder).value();
    for (const vl::TreeEntry& entry : entries)
        if (entry.info.kind == vl::FileKind::Directory &&
            fs::is_empty(folder / vl::fromUtf8(entry.path)))
            found << QString::fromStdString(entry.path);
    return found;
}

bool isStaged(const fs::path& path)
{
    return path.parent_path().filename().string().starts_with("staged-");
}

/// The most memory that was held since the last call, in bytes; 0 where the system does not tell.
std::uint64_t peakMemory()
{
    std::ifstream status("/proc/self/status");
    std::uint64_t kibibytes = 0;
    for (std::string word; status >> word && kibibytes == 0;)
        if (word == "VmHWM:")
            status >> kibibytes;
    std::ofstream("/proc/self/clear_refs") << 5;
    return kibibytes << 10U;
}

/// A root, the server that it updates from, and the user's files in the version's folder.
struct Scene
{
    const Releases& releases;
    bool inMemory = true;
    HttpServer server{releases.folder()};
    Root root{releases, server.address(), inMemory};
    LogLines log{};
    Files mine{};

    fs::path tree() const { return root.path() / "simulator"; }
    /// Writes those files of the user whose places are free.
    void write(const Files& files)
    {
        for (const auto& [path, contents] : files) {
            fs::path place = tree() / vl::fromUtf8(path);
            bool free = !fs::exists(fs::symlink_status(place));
            for (place = place.parent_path(); free && place != tree(); place = place.parent_path())
                free = !fs::is_regular_file(place);
            if (free)
                writeFile(tree() / vl::fromUtf8(path), mine[path] = contents);
        }
    }
    /// Makes all files an hour old, so that their times vouch for their contents.
    void age() const
    {
        for (const auto& [path, time] : timesIn(tree()))
            fs::last_write_time(tree() / vl::fromUtf8(path), time - std::chrono::hours(1));
    }
    /// Result of an operation after which the promise is kept; counts what the server sends.
    int run(const std::set<std::string>& allowed, const std::function<int(VLUPD&)>& work)
    {
        server.reset();
        const int result = work(*std::make_unique<VLUPD>(root.path(), false, &log));
        vl::setFileFault({});
        sent = server.bytesSent();
        const QString fault = promiseFault(root, releases, allowed, mine);
        if (!fault.isEmpty())
            qWarning() << fault << log.text().c_str();
        // What had to make room has another name from now on.
        mine = filesIn(tree());
        for (const std::string& version : allowed)
            for (const auto& [path, contents] : version.empty() ? Files() : releases.files(version))
                mine.erase(path);
        return fault.isEmpty() ? result : -1;
    }
    int install(const std::string& version, Recorder* recorder = nullptr)
    {
        Recorder own;
        Recorder& reports = recorder != nullptr ? *recorder : own;
        return run({version}, [&](VLUPD& library) {
            return library.installVersion(version, reports.progress(), reports.stage());
        });
    }
    /// Ends the installation of `version` over `before` when a part of `path` has come.
    void interrupt(const std::string& version, const std::string& before, const std::string& path,
                   std::uint64_t size, double part)
    {
        // The server stalls, so that the report is seen; nothing that is there has to be read.
        age();
        Recorder recorder;
        recorder.goOn = [&](const Recorder::Report& report) {
            return double(report.done) < double(size) * (part - 0.05);
        };
        const int result = run({before}, [&](VLUPD& library) {
            server.misbehave(path, {.stallAfter = std::uint64_t(double(size) * part)});
            return library.installVersion(version, recorder.progress(), recorder.stage());
        });
        QVERIFY2(result == vlupd::UNKNOWN_ERROR, log.text().c_str());
        log.lines.clear();
    }
    std::uint64_t packBytes(const std::string& version) const
    {
        return server.bytesSent(releases.pack(version).first);
    }
    std::string deltaPath(const std::string& version) const
    {
        return std::string("/") + vl::deltaPath(releases.manifest(version).deltas.at(0).hash);
    }

    std::uint64_t sent = 0; ///< by the server, in the last operation
};

} // namespace

class UpdateTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { vl::setFileFault({}); }
    void gigabytes(); // first, while little memory is held
    void treeChanges_data();
    void treeChanges();
    void plansHandOver_data();
    void plansHandOver();
    void damagedBase_data();
    void damagedBase();
    void repairFetchesOneFrame();
    void interruptedOnesGoOn_data();
    void interruptedOnesGoOn();
    void roomIsMade_data();
    void roomIsMade();
    void badDisks_data();
    void badDisks();
    void closingIsNotSerial();

private:
    const Releases& large();

    std::optional<Releases> m_large;
};

// 44 MiB are new in 2.0.0, 6 kB in 3.0.0.
const Releases& UpdateTest::large()
{
    if (m_large)
        return *m_large;
    m_large.emplace(true);
    Files files = oldFiles();
    files["noise"] = someBytes(20 * mebibyte, 70);
    m_large->publish("1.0.0", files);
    Files more = files;
    for (unsigned i = 0; i < 4; ++i)
        more["large/" + std::to_string(i)] = someBytes(11 * mebibyte, 71 + i);
    m_large->publish("2.0.0", more);
    for (unsigned i = 0; i < 6; ++i)
        files["small/" + std::to_string(i)] = someBytes(1000, 80 + i);
    m_large->publish("3.0.0", files);
    return *m_large;
}

void UpdateTest::treeChanges_data()
{
    QTest::addColumn<Files>("now");
    QTest::addColumn<QString>("fetched"); // "", "delta" or "pack"
    const auto row = [](const char* name, const char* fetched, auto&& change) {
        Files files = oldFiles();
        change(files);
        QTest::newRow(name) << files << QString::fromLatin1(fetched);
    };
    row("nothing", "", [](Files&) {});
    row("removed", "", [](Files& files) { files.erase("data/1"); });
    row("swapped", "", [](Files& files) { std::swap(files["data/1"], files["data/2"]); });
    row("mode change", "", [](Files&) {});
    row("empty file", "", [](Files& files) { files["another"].clear(); });
    row("folder with nothing left in it", "", [](Files& files) { files.erase("карта/район.txt"); });
    row("Cyrillic case-only rename", "",
        [](Files& files) { files["Карта/РАЙОН.txt"] = files.extract("карта/район.txt").mapped(); });
    row("duplicated", "", [](Files& files) { files["copy"] = files["data/3"]; });
    row("moved", "", [](Files& files) { files["x/y/z"] = files.extract("data/3").mapped(); });
    row("case-only rename", "",
        [](Files& files) { files["DATA/3"] = files.extract("data/3").mapped(); });
    row("file to folder", "",
        [](Files& files) { files["data/3/inside"] = files.extract("data/3").mapped(); });
    row("folder to file", "",
        [](Files& files) { files["карта"] = files.extract("карта/район.txt").mapped(); });
    row("emptied", "", [](Files& files) { files["data/3"].clear(); });
    row("path of 305 characters", "", [](Files& files) { files[longName] = files["data/4"]; });
    row("edited", "delta", [](Files& files) { files["data/3"] = edited(files["data/3"]); });
    row("moved and edited", "delta",
        [](Files& files) { files["x"] = edited(files.extract("data/3").mapped()); });
    row("filled", "delta", [](Files& files) { files["empty"] = "something"; });
    row("added twice", "delta",
        [](Files& files) { files["b"] = files["a"] = someBytes(20'000, 9); });
    row("all new", "pack", [](Files& files) {
        for (auto& [path, contents] : files)
            contents = someBytes(50'000 + path.size(), unsigned(path[path.size() - 1]));
    });
}

// There, back, a repair and the removal, while the user writes into the same folder.
void UpdateTest::treeChanges()
{
    QFETCH(Files, now);
    QFETCH(QString, fetched);
    const bool mode = qstrcmp(QTest::currentDataTag(), "mode change") == 0;
    Releases releases(true);
    releases.publish("1.0.0", oldFiles());
    std::vector<std::string> programs{"bin/simulator"};
    if (mode)
        programs.push_back("data/3");
    releases.publish("2.0.0", now, {}, programs);
    for (const InTheWay kind :
         {InTheWay::Nothing, InTheWay::File, InTheWay::Folder, InTheWay::Parent}) {
        Scene scene{releases};
        Files before;
        for (const std::string version : {"1.0.0", "2.0.0", "1.0.0"}) {
            const bool update = version == "2.0.0";
            const Files& after = releases.files(version);
            if (kind != InTheWay::Nothing)
                scene.write({{"mine.txt", "mine"},
                             {"data/my notes.txt", "mine too"},
                             {"карта/мой маршрут.txt", "моё"}});
            // Their contents are made nowhere else.
            std::set<std::string> kept;
            for (const auto& [path, contents] : after)
                if (update && !mode && before.contains(path) && before[path] == contents &&
                    std::ranges::count(after, contents, &Files::value_type::second) == 1)
                    kept.insert(path);
            if (update)
                scene.age();
            const auto times = timesIn(scene.tree());
            std::mutex mutex;
            QStringList touched;
            vl::setFileFault([&](FileOperation, const fs::path& path) -> std::optional<int> {
                const std::lock_guard lock(mutex);
                const std::string name = vl::toUtf8(path.lexically_relative(scene.tree()));
                if (kept.contains(name) && name != "bin/simulator") // which leaves meanwhile
                    touched << QString::fromStdString(name);
                return {};
            });
            Recorder recorder;
            recorder.goOn = [&, done = false](const Recorder::Report& report) mutable {
                if (!done && report.stage >= (update ? 2 : 0))
                    scene.write(filesInTheWay(kind, before, after));
                done = done || report.stage >= (update ? 2 : 0);
                return true;
            };
            QCOMPARE(scene.install(version, &recorder), vlupd::OK);
            QCOMPARE(recorder.fault(), QString());
            QCOMPARE(touched.join(u' '), QString());
            for (const std::string& path : kept)
                QVERIFY(timesIn(scene.tree()).at(path) == times.at(path));
            if (update) {
                QCOMPARE(scene.packBytes("2.0.0") > 0, fetched == u"pack");
                QVERIFY(fetched != u"delta" ||
                        scene.server.bytesSent(scene.deltaPath("2.0.0")) > 0);
            }
            QCOMPARE(scene.root.leftovers(), QString());
            if (kind == InTheWay::Nothing)
                QCOMPARE(emptyFoldersIn(scene.tree()).join(u' '), QString());
#ifndef Q_OS_WIN // which tells programs by their names
            const auto permissions = fs::status(scene.tree() / "data/3").permissions();
            QVERIFY(!mode || ((permissions & fs::perms::owner_exec) != fs::perms::none) == update);
#endif
            before = after;
        }
        Files damaged = before;
        writeFile(scene.tree() / "bin/simulator", "damaged");
        for (const std::string path : {"data/1", "data/2", "data/5"}) {
            fs::remove(scene.tree() / path);
            damaged.erase(path);
        }
        scene.write(filesInTheWay(kind, damaged, before));
        const bool asFile = kind == InTheWay::File; // an edited file of the version to anyone
        if (asFile)
            std::erase_if(scene.mine,
                          [&](const auto& file) { return before.contains(file.first); });
        QCOMPARE(scene.install("1.0.0"), vlupd::OK);
        QVERIFY(!asFile || scene.log.contains("somebody has changed it: data/1"));
        QCOMPARE(scene.run({""}, [](VLUPD& it) { return it.removeVersion("1.0.0"); }), vlupd::OK);
        QCOMPARE(scene.root.leftovers(), QString());
        QVERIFY(kind != InTheWay::Nothing || emptyFoldersIn(scene.tree()).isEmpty());
    }
}

void UpdateTest::plansHandOver_data()
{
    QTest::addColumn<Case>("row");
    const auto row = [](const char* name, bool index, const Misbehaviour& fault, int requests) {
        QTest::newRow(name) << Case{index, fault, requests};
    };
    row("index gone", true, {.status = 404}, 1);
    row("index damaged", true, {.flipByteAt = 20}, 1);
    row("index forbidden", true, {.status = 403}, 1);
    row("delta gone", false, {.status = 410}, 1);
    row("delta damaged", false, {.flipByteAt = 20}, 2);
    row("delta of another length", false, {.lengthError = 5}, 1);
    row("a page", false, {.body = "<html>log in</html>", .contentType = "text/html"}, 1);
}

void UpdateTest::plansHandOver()
{
    QFETCH(Case, row);
    const auto& [index, fault, requests] = row;
    Releases releases(true);
    Files files = oldFiles();
    releases.publish("1.0.0", files);
    files["data/3"] = edited(files["data/3"]);
    releases.publish("2.0.0", files);
    Scene scene{releases};
    QCOMPARE(scene.install("1.0.0"), vlupd::OK);
    const auto delta = releases.manifest("2.0.0").deltas.at(0);
    const std::string path = std::string("/") + (index ? vl::deltaIndexPath(delta.indexHash)
                                                       : vl::deltaPath(delta.hash));
    const int result = scene.run({"2.0.0"}, [&, &misbehaviour = fault](VLUPD& library) {
        scene.server.misbehave(path, misbehaviour);
        return library.installVersion("2.0.0", {}, {});
    });
    QCOMPARE(result, vlupd::OK);
    QCOMPARE(scene.server.requests(path), requests);
    QVERIFY(scene.packBytes("2.0.0") > 0);
    QVERIFY2(scene.log.contains("taking frames of the full pack instead"),
             scene.log.text().c_str());
}

void UpdateTest::damagedBase_data()
{
    QTest::addColumn<std::string>("file");
    QTest::addColumn<QByteArray>("contents"); // null: removed
    QTest::addColumn<bool>("timePutBack");
    QTest::addColumn<bool>("fetched");
    const QByteArray changed(60'000, 'x');
    const auto row = [](const char* name, const char* file, const QByteArray& contents,
                        bool timePutBack = false, bool fetched = true) {
        QTest::newRow(name) << std::string(file) << contents << timePutBack << fetched;
    };
    row("base of the delta changed", "data/3", changed);
    row("base of the delta changed, its time put back", "data/3", changed, true);
    row("base of the delta gone", "data/3", {});
    row("source of a copy changed, its time put back", "data/2", changed, true);
    row("kept file changed", "data/1", changed);
    row("kept file gone that has a twin", "data/7", {}, false, false);
    row("kept file of another size", "data/1", "x");
}

// A file that was damaged or changed is no error: its bytes come over the line.
void UpdateTest::damagedBase()
{
    QFETCH(std::string, file);
    QFETCH(QByteArray, contents);
    QFETCH(bool, timePutBack);
    QFETCH(bool, fetched);
    Releases releases(true);
    Files files = oldFiles();
    files["twin"] = files["data/7"] = someBytes(60'000, 7);
    releases.publish("1.0.0", files);
    files["data/3"] = edited(files["data/3"]);
    files["moved"] = files.extract("data/2").mapped();
    releases.publish("2.0.0", files);
    Scene scene{releases};
    QCOMPARE(scene.install("1.0.0"), vlupd::OK);
    scene.age();
    const fs::path place = scene.tree() / file;
    const auto time = fs::last_write_time(place);
    fs::remove(place);
    if (!contents.isNull())
        writeFile(place, contents.toStdString());
    if (timePutBack)
        fs::last_write_time(place, time);
    QCOMPARE(scene.install("2.0.0"), vlupd::OK);
    QCOMPARE(scene.packBytes("2.0.0") > 0, fetched);
}

void UpdateTest::repairFetchesOneFrame()
{
    Scene scene{large()};
    const auto& frames = large().manifest("2.0.0").pack.frames;
    QVERIFY(frames.size() >= 4);
    QCOMPARE(scene.install("2.0.0"), vlupd::OK);
    writeFile(scene.tree() / "data/1", "broken");
    QCOMPARE(scene.install("2.0.0"), vlupd::OK);
    QVERIFY(scene.packBytes("2.0.0") <= std::ranges::max(frames, {}, &vl::Frame::size).size);
    QCOMPARE(scene.server.requests(large().pack("2.0.0").first), 1);
}

void UpdateTest::interruptedOnesGoOn_data()
{
    QTest::addColumn<bool>("byDelta");
    QTest::addColumn<Spoil>("spoil");
    QTest::addColumn<double>("most"); // the share of the bytes that comes again
    const auto row = [](const char* name, bool byDelta, double most, const Spoil& spoil) {
        QTest::newRow(name) << byDelta << spoil << most;
    };
    // Of the staged files, the first that is whole or else the first that is cut.
    const auto choose = [](const fs::path& staged, bool whole) {
        for (const auto& [path, time] : timesIn(staged))
            if ((fs::file_size(staged / path) == 11 * mebibyte) == whole)
                return staged / path;
        throw std::runtime_error("no such file");
    };
    const auto flip = [](const fs::path& path) {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(1000);
        file.put('!');
    };
    row("delta", true, 0.6, [](const fs::path&) {});
    row("pack", false, 0.4, [](const fs::path&) {});
    row("whole one damaged", true, 0.9, [=](const fs::path& at) { flip(choose(at, true)); });
    row("cut one damaged", true, 0.9, [=](const fs::path& at) { flip(choose(at, false)); });
    row("whole one cut", true, 0.9,
        [=](const fs::path& at) { fs::resize_file(choose(at, true), 5 * mebibyte + 1); });
    row("all empty", true, 1.01, [=](const fs::path& at) {
        for (const auto& [path, time] : timesIn(at))
            fs::resize_file(at / path, 0);
    });
    row("what nobody wants there", true, 0.6, [](const fs::path& at) {
        writeFile(at / "photo.jpg", "of no version");
        writeFile(at / "7000000", "no such number");
        writeFile(at / "folder/file", "of no version");
    });
}

void UpdateTest::interruptedOnesGoOn()
{
    QFETCH(bool, byDelta);
    QFETCH(Spoil, spoil);
    QFETCH(double, most);
    Scene scene{large()};
    if (byDelta)
        QCOMPARE(scene.install("1.0.0"), vlupd::OK);
    const auto [path, size] =
        byDelta ? std::pair(scene.deltaPath("2.0.0"), large().manifest("2.0.0").deltas.at(0).size)
                : large().pack("2.0.0");
    scene.interrupt("2.0.0", byDelta ? "1.0.0" : "", path, size, 0.9);
    const fs::path staging = scene.root.path() / "simulator.vl";
    const auto staged = timesIn(staging);
    QVERIFY(staged.size() > 1);
    spoil((staging / staged.begin()->first).parent_path());
    QCOMPARE(scene.install("2.0.0"), vlupd::OK);
    QVERIFY2(double(scene.sent) < double(size) * most, scene.log.text().c_str());
    QCOMPARE(scene.root.leftovers(), QString());
    // Whole files were used as they are.
    std::set<fs::file_time_type> times;
    for (const auto& [name, time] : timesIn(scene.tree()))
        times.insert(time);
    const auto used = std::ranges::count_if(
        staged, [&](const auto& file) { return times.contains(file.second); });
    QVERIFY(used >= 1 || most > 1);
}

void UpdateTest::roomIsMade_data()
{
    QTest::addColumn<std::string>("first");
    QTest::addColumn<std::string>("second");
    QTest::addColumn<int>("result"); // of the second, while the first takes the room that there is
    using namespace std::string_literals;
    QTest::newRow("large one is in the way") << "2.0.0"s
                                             << "3.0.0"s << int(vlupd::OK);
    QTest::newRow("small one would not help") << "3.0.0"s
                                              << "2.0.0"s << int(vlupd::SYSTEM_CALL_ERROR);
}

// What is staged for another version stays unless its room is needed and enough.
void UpdateTest::roomIsMade()
{
    QFETCH(std::string, first);
    QFETCH(std::string, second);
    QFETCH(int, result);
    for (const bool full : {false, true}) {
        Scene scene{large()};
        QCOMPARE(scene.install("1.0.0"), vlupd::OK);
        // At the end of its unpacking, so that all of it is staged.
        Recorder ended;
        ended.goOn = [](const Recorder::Report& report) { return report.stage != 2; };
        scene.run({"1.0.0"}, [&](VLUPD& library) {
            return library.installVersion(first, ended.progress(), ended.stage());
        });
        const auto staged = scene.root.staged();
        QVERIFY(!staged.empty());
        const fs::path folder =
            scene.root.path() / "simulator.vl" / fs::path(staged.begin()->first).parent_path();
        scene.log.lines.clear();
        const int expected = full ? result : int(vlupd::OK);
        const int got = scene.run({expected == vlupd::OK ? second : "1.0.0"}, [&](VLUPD& library) {
            if (full)
                vl::setFileFault([&](FileOperation operation, const fs::path&) {
                    return operation == FileOperation::FreeSpace && fs::exists(folder)
                               ? std::optional(ENOSPC)
                               : std::nullopt;
                });
            return library.installVersion(second, {}, {});
        });
        QVERIFY2(got == expected, scene.log.text().c_str());
        const bool removed = full && expected == vlupd::OK;
        QCOMPARE(fs::exists(folder), !removed);
        QCOMPARE(scene.log.contains("to make room"), removed);
        QCOMPARE(scene.log.contains("not enough space"), expected != vlupd::OK);
    }
}

void UpdateTest::badDisks_data()
{
    QTest::addColumn<BadDisk>("disk");
    constexpr int error = vlupd::SYSTEM_CALL_ERROR;
    const auto row = [](const char* name, int result, const char* words, double most,
                        const Fault& fault) {
        QTest::newRow(name) << BadDisk{fault, result, words, most};
    };
    const auto failed = std::make_shared<std::atomic<bool>>(false);
    row("one write under a delta fails", vlupd::OK,
        "Input/output error; taking frames of the full pack instead", 2.1,
        [failed](FileOperation operation, const fs::path& path) -> std::optional<int> {
            const bool now = operation == FileOperation::Write && isStaged(path);
            return now && !failed->exchange(true) ? std::optional(EIO) : std::nullopt;
        });
    row("no write succeeds", error, "No space left on device", 0.01,
        [](FileOperation operation, const fs::path&) -> std::optional<int> {
            return operation == FileOperation::Write ? std::optional(ENOSPC) : std::nullopt;
        });
    const auto full = std::make_shared<std::atomic<bool>>(false);
    row("full in the midst of it", error, "not enough space", 1.01,
        [full](FileOperation operation, const fs::path& path) -> std::optional<int> {
            if (operation == FileOperation::Write && isStaged(path))
                *full = true;
            const bool concerns =
                operation == FileOperation::Write || operation == FileOperation::FreeSpace;
            return *full && concerns ? std::optional(ENOSPC) : std::nullopt;
        });
    row("no byte free", error, "not enough space", 0.01,
        [](FileOperation operation, const fs::path&) -> std::optional<int> {
            return operation == FileOperation::FreeSpace ? std::optional(ENOSPC) : std::nullopt;
        });
}

void UpdateTest::badDisks()
{
    QFETCH(BadDisk, disk);
    const auto& [fault, expected, words, most] = disk;
    Scene scene{large()};
    QCOMPARE(scene.install("1.0.0"), vlupd::OK);
    const bool good = expected == vlupd::OK;
    const int result = scene.run({good ? "2.0.0" : "1.0.0"}, [&, &fails = fault](VLUPD& library) {
        vl::setFileFault(fails);
        return library.installVersion("2.0.0", {}, {});
    });
    QVERIFY2(result == expected && scene.log.contains(words), scene.log.text().c_str());
    const double size = double(large().manifest("2.0.0").deltas.at(0).size);
    QVERIFY2(double(scene.sent) < size * most, scene.log.text().c_str());
    QVERIFY(good || scene.log.lines.back().starts_with("installVersion 2.0.0: "));
    QCOMPARE(scene.install("2.0.0"), vlupd::OK);
    QCOMPARE(scene.root.leftovers(), QString());
}

// A virus scanner reads every new file while it is closed.
void UpdateTest::closingIsNotSerial()
{
    using Clock = std::chrono::steady_clock;
    Releases releases(true);
    Files files = oldFiles();
    for (unsigned i = 0; i < 400; ++i)
        files["small/" + std::to_string(i)] = someBytes(500, i);
    releases.publish("1.0.0", files);
    Scene scene{releases};
    std::mutex mutex;
    Clock::time_point first = Clock::time_point::max();
    Clock::time_point last;
    Clock::duration serial{};
    vl::setFileFault([&](FileOperation operation, const fs::path&) -> std::optional<int> {
        if (operation != FileOperation::Finish)
            return {};
        const auto begin = Clock::now();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const std::lock_guard lock(mutex);
        first = std::min(first, begin);
        last = Clock::now();
        serial += last - begin;
        return {};
    });
    QCOMPARE(scene.install("1.0.0"), vlupd::OK);
    QVERIFY(serial >= std::chrono::milliseconds(400 * 5));
    QVERIFY(last - first < serial * 2 / 3);
}

// Much memory would be needed if anything grew with the size of a file.
void UpdateTest::gigabytes()
{
    if (qEnvironmentVariableIntValue("VARNEL_NIGHTLY") == 0)
        QSKIP("By night only: VARNEL_NIGHTLY=1, QTEST_FUNCTION_TIMEOUT=3600000, 20 GB of disk");
    constexpr std::uint64_t piece = 8 * mebibyte;
    constexpr unsigned pieces = 384; // 3 GiB
    Releases releases;
    const QTemporaryDir folder;
    const fs::path source = pathOf(folder);
    writeFile(source / "bin/simulator", "program");
    {
        auto large = vl::File::open(source / "large", vl::File::Mode::ReadWrite).value();
        const auto write = [&large](std::uint64_t offset, const std::string& bytes) {
            QVERIFY(large.writeAt(offset, std::as_bytes(std::span(bytes))));
        };
        for (unsigned i = 0; i < pieces; ++i)
            write(i * piece, someBytes(piece, i));
        releases.publishFolder("1.0.0", source);
        for (unsigned i = 0; i <= pieces; i += 24)
            write(i * piece + i, someBytes(1000, i + 1));
    }
    fs::rename(source / "large", source / "larger");
    releases.publishFolder("2.0.0", source);
    Scene scene{releases, false};
    QCOMPARE(VLUPD(scene.root.path(), false, nullptr).installVersion("1.0.0", {}, {}), vlupd::OK);
    const std::uint64_t size = releases.pack("2.0.0").second;
    for (const std::string version : {"2.0.0", "1.0.0"}) {
        scene.server.reset();
        peakMemory();
        VLUPD library(scene.root.path(), false, &scene.log);
        QVERIFY2(library.installVersion(version, {}, {}) == vlupd::OK, scene.log.text().c_str());
        const std::uint64_t peak = peakMemory();
        qInfo() << version.c_str() << peak / mebibyte << "MiB of memory,"
                << scene.server.bytesSent() << "bytes fetched of" << size;
        QVERIFY(peak < 160 * mebibyte);
        QCOMPARE(library.checkFiles(version, std::nullopt), vlupd::OK);
        QVERIFY(version == "1.0.0" || scene.server.bytesSent() < size / 1000);
    }
    QCOMPARE(scene.root.leftovers(), QString());
}

QTEST_GUILESS_MAIN(UpdateTest)
#include "updatetest.moc"
