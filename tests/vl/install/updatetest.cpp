#include "tests/support/httpserver.h"
#include "tests/vl/install/installfixture.h"
#include "vl/src/formats/delta.h"
#include "vl/src/platform/file.h"

#include <QTest>

#include <algorithm>
#include <cerrno>
#include <fstream>

namespace fs = std::filesystem;
using testsupport::HttpServer;
using testsupport::Misbehaviour;
using vlupd::VLUPD;

namespace {

constexpr std::size_t mebibyte = 1U << 20U;

/// Whether the index or else the delta suffers, what the server does, and the number of requests.
using Case = std::tuple<bool, Misbehaviour, int>;

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

/// A root with a version installed, and the server that it updates from.
struct Scene
{
    bool inMemory = true;
    Releases releases{inMemory};
    std::unique_ptr<HttpServer> server{};
    std::unique_ptr<Root> root{};
    LogLines log{};

    void install(const std::string& version)
    {
        server = std::make_unique<HttpServer>(releases.folder());
        root = std::make_unique<Root>(releases, server->address(), inMemory);
        QCOMPARE(VLUPD(root->path(), false, nullptr).installVersion(version, {}, {}), vlupd::OK);
        server->reset();
    }
    /// Result of an installation, which must end with `version` whole.
    int update(const std::string& version, Recorder* recorder = nullptr)
    {
        Recorder own;
        Recorder& reports = recorder != nullptr ? *recorder : own;
        const int result = VLUPD(root->path(), false, &log)
                               .installVersion(version, reports.progress(), reports.stage());
        const QString fault = promiseFault(*root, releases, {version});
        if (!fault.isEmpty())
            qWarning() << fault << log.text().c_str();
        return fault.isEmpty() ? result : -1;
    }
    std::uint64_t packBytes(const std::string& version) const
    {
        return server->bytesSent(releases.pack(version).first);
    }
    std::string deltaPath(const std::string& version) const
    {
        return std::string("/") + vl::deltaPath(releases.manifest(version).deltas.at(0).hash);
    }
};

} // namespace

class UpdateTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void treeChanges_data();
    void treeChanges();
    void plansHandOver_data();
    void plansHandOver();
    void damagedBase_data();
    void damagedBase();
    void chains();
    void repairFetchesOneFrame();
    void deltaIsResumed();
    void gigabytes();
};

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
        [](Files& files) { files["data/A"] = files.extract("data/3").mapped(); });
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

void UpdateTest::treeChanges()
{
    QFETCH(Files, now);
    QFETCH(QString, fetched);
    Scene scene;
    scene.releases.publish("1.0.0", oldFiles());
    std::vector<std::string> programs{"bin/simulator"};
    const bool mode = qstrcmp(QTest::currentDataTag(), "mode change") == 0;
    if (mode)
        programs.push_back("data/3");
    scene.releases.publish("2.0.0", now, {}, programs);
    scene.install("1.0.0");
    Recorder recorder;
    QCOMPARE(scene.update("2.0.0", &recorder), vlupd::OK);
    QCOMPARE(recorder.fault(), QString());
    const bool delta = fetched == u"delta";
    QCOMPARE(scene.packBytes("2.0.0") > 0, fetched == u"pack");
    QCOMPARE(delta && scene.server->bytesSent(scene.deltaPath("2.0.0")) == 0, false);
    QCOMPARE(scene.root->leftovers(), QString());
    const auto executable = [&scene] {
        return (fs::status(scene.root->tree() / "data/3").permissions() & fs::perms::owner_exec) !=
               fs::perms::none;
    };
#ifndef Q_OS_WIN // which tells programs by their names
    QVERIFY(!mode || executable());
#endif
    // And back.
    QCOMPARE(scene.update("1.0.0"), vlupd::OK);
    QVERIFY(!executable());
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
    Scene scene;
    Files files = oldFiles();
    scene.releases.publish("1.0.0", files);
    files["data/3"] = edited(files["data/3"]);
    scene.releases.publish("2.0.0", files);
    scene.install("1.0.0");
    const std::string path =
        index ? std::string("/") +
                    vl::deltaIndexPath(scene.releases.manifest("2.0.0").deltas.at(0).indexHash)
              : scene.deltaPath("2.0.0");
    scene.server->misbehave(path, fault);
    QCOMPARE(scene.update("2.0.0"), vlupd::OK);
    QCOMPARE(scene.server->requests(path), requests);
    QVERIFY(scene.packBytes("2.0.0") > 0);
    QVERIFY2(scene.log.contains("taking frames of the full pack instead"),
             scene.log.text().c_str());
}

void UpdateTest::damagedBase_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("contents"); // null: removed
    QTest::newRow("base of the delta changed") << "data/3" << QByteArray(60'000, 'x');
    QTest::newRow("base of the delta gone") << "data/3" << QByteArray();
    QTest::newRow("kept file changed") << "data/1" << QByteArray(60'000, 'x');
    QTest::newRow("kept file with a twin changed") << "data/7" << QByteArray(60'000, 'x');
    QTest::newRow("kept file of another size") << "data/1" << QByteArray(7, 'x');
}

// A file that was damaged or changed is no error: its bytes come over the line.
void UpdateTest::damagedBase()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, contents);
    Scene scene;
    Files files = oldFiles();
    files["twin"] = files["data/7"] = someBytes(60'000, 7);
    scene.releases.publish("1.0.0", files);
    files["data/3"] = edited(files["data/3"]);
    scene.releases.publish("2.0.0", files);
    scene.install("1.0.0");
    const fs::path place = scene.root->tree() / file.toStdString();
    fs::remove(place);
    if (!contents.isNull())
        writeFile(place, contents.toStdString());
    QCOMPARE(scene.update("2.0.0"), vlupd::OK);
    QVERIFY(scene.packBytes("2.0.0") > 0);
}

void UpdateTest::chains()
{
    Scene scene;
    Files files = oldFiles();
    files["large"] = someBytes(mebibyte, 50);
    std::string before;
    for (const std::string version : {"1.0.0", "2.0.0", "3.0.0", "4.0.0", "5.0.0"}) {
        files["data/3"] = edited(files["data/3"]);
        files["only in " + version] = someBytes(5'000, unsigned(version[0]));
        scene.releases.publish(version, files,
                               before.empty() ? std::vector<std::string>()
                                              : std::vector<std::string>{before});
        before = version;
    }
    scene.install("1.0.0");
    QCOMPARE(scene.update("4.0.0"), vlupd::OK);
    QVERIFY2(scene.log.contains("a chain of 3 deltas"), scene.log.text().c_str());
    QCOMPARE(scene.packBytes("4.0.0"), std::uint64_t(0));
    QCOMPARE(scene.root->leftovers(), QString());
    // With the middle gone, and with more steps than are worth it, the full pack brings the rest.
    scene.install("1.0.0");
    scene.server->misbehave(scene.deltaPath("3.0.0"), {.status = 404});
    QCOMPARE(scene.update("4.0.0"), vlupd::OK);
    QVERIFY(scene.packBytes("4.0.0") > 0);
    scene.install("1.0.0");
    QCOMPARE(scene.update("5.0.0"), vlupd::OK);
    QCOMPARE(scene.server->requests(scene.deltaPath("5.0.0")), 0);
    // A disk that fills up is not filled further by the versions between.
    scene.install("1.0.0");
    vl::setFileFault([](vl::FileOperation what, const fs::path& path) {
        const bool isNew = vl::toUtf8(path).find("/4.0.0.g2/") != std::string::npos;
        return isNew && what == vl::FileOperation::Write ? std::optional(ENOSPC) : std::nullopt;
    });
    const int full = VLUPD(scene.root->path(), false, &scene.log).installVersion("4.0.0", {}, {});
    vl::setFileFault({});
    QCOMPARE(full, vlupd::SYSTEM_CALL_ERROR);
    QVERIFY2(!scene.root->leftovers().contains(u".trash"), qPrintable(scene.root->leftovers()));
}

void UpdateTest::repairFetchesOneFrame()
{
    Scene scene;
    Files files = oldFiles();
    for (unsigned i = 0; i < 3; ++i)
        files["large/" + std::to_string(i)] = someBytes(9 * mebibyte, 60 + i);
    scene.releases.publish("1.0.0", files);
    const auto& frames = scene.releases.manifest("1.0.0").pack.frames;
    QVERIFY(frames.size() >= 3);
    scene.install("1.0.0");
    writeFile(scene.root->tree() / "large/1", "broken");
    QCOMPARE(scene.update("1.0.0"), vlupd::OK);
    const std::uint64_t largest = std::ranges::max(frames, {}, &vl::Frame::size).size;
    QVERIFY(scene.packBytes("1.0.0") <= largest);
    QCOMPARE(scene.server->requests(scene.releases.pack("1.0.0").first), 1);
}

void UpdateTest::deltaIsResumed()
{
    Scene scene;
    Files files = oldFiles();
    files["noise"] = someBytes(20 * mebibyte, 70);
    scene.releases.publish("1.0.0", files);
    files["more noise"] = someBytes(20 * mebibyte, 71);
    scene.releases.publish("2.0.0", files);
    scene.install("1.0.0");
    const vl::DeltaReference delta = scene.releases.manifest("2.0.0").deltas.at(0);
    Recorder half;
    half.goOn = [&](const Recorder::Report& report) { return report.done < delta.size * 9 / 10; };
    QCOMPARE(VLUPD(scene.root->path(), false, nullptr)
                 .installVersion("2.0.0", half.progress(), half.stage()),
             vlupd::UNKNOWN_ERROR);
    scene.server->reset();
    QCOMPARE(scene.update("2.0.0"), vlupd::OK);
    QVERIFY(scene.server->bytesSent(scene.deltaPath("2.0.0")) < delta.size / 2);
    QCOMPARE(scene.server->requests(std::string("/") + vl::deltaIndexPath(delta.indexHash)), 0);
    QCOMPARE(scene.root->leftovers(), QString());
}

// Much memory would be needed if anything grew with the size of a file.
void UpdateTest::gigabytes()
{
    if (qEnvironmentVariableIntValue("VARNEL_NIGHTLY") == 0)
        QSKIP("By night only: VARNEL_NIGHTLY=1, QTEST_FUNCTION_TIMEOUT=3600000, 20 GB of disk");
    constexpr std::uint64_t piece = 8 * mebibyte;
    constexpr unsigned pieces = 384; // 3 GiB
    Scene scene{.inMemory = false};
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
        scene.releases.publishFolder("1.0.0", source);
        for (unsigned i = 0; i <= pieces; i += 24)
            write(i * piece + i, someBytes(1000, i + 1));
    }
    fs::rename(source / "large", source / "larger");
    scene.releases.publishFolder("2.0.0", source);
    scene.install("1.0.0");
    const std::uint64_t size = scene.releases.pack("2.0.0").second;
    for (const std::string version : {"2.0.0", "1.0.0"}) {
        scene.server->reset();
        peakMemory();
        VLUPD library(scene.root->path(), false, &scene.log);
        QVERIFY2(library.installVersion(version, {}, {}) == vlupd::OK, scene.log.text().c_str());
        const std::uint64_t peak = peakMemory();
        qInfo() << version.c_str() << peak / mebibyte << "MiB of memory,"
                << scene.server->bytesSent() << "bytes fetched of" << size;
        QVERIFY(peak < 160 * mebibyte);
        QCOMPARE(library.checkFiles(version, std::nullopt), vlupd::OK);
        QVERIFY(version == "1.0.0" || scene.server->bytesSent() < size / 1000);
    }
    QCOMPARE(scene.root->leftovers(), QString());
}

QTEST_GUILESS_MAIN(UpdateTest)
#include "updatetest.moc"
