#include "tests/vl/install/installfixture.h"

#include <QTest>

#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>

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
    void installs();
    void userFilesMoveAlong();
    void callbacksThatEndIt_data();
    void callbacksThatEndIt();
    void damageIsFound_data();
    void damageIsFound();
    void lostRecords_data();
    void lostRecords();
    void folderDeletedByHand();

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

void InstallTest::installs()
{
    const Root root(*m_releases);
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
    row("no such subfolder", vlupd::NOT_FOUND, {}, change, QStringLiteral("../1.0.0"));
    row("cut", broken, QStringLiteral("bin/simulator: 3 bytes instead of 13"),
        [](const fs::path& tree) { writeFile(tree / "bin/simulator", "the"); });
    row("missing", broken, QStringLiteral("данные/карта.txt: missing"),
        [](const fs::path& tree) { fs::remove_all(tree / "данные"); });
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
    QTest::newRow("hostile version")
        << write(R"({"format":1,"installed":{"version":"../..","generation":1,"manifest":""},)"
                 R"("superseded":[]})")
        << true;
    QTest::newRow("newer format") << write(R"({"format":2})") << true;
    QTest::newRow("interrupted removal") << Change([](const fs::path& root) {
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

QTEST_GUILESS_MAIN(InstallTest)
#include "installtest.moc"
