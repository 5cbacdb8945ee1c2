#include "tests/vl/install/installfixture.h"
#include "tests/vl/install/switchscenario.h"
#include "vl/src/platform/file.h"
#include "vl/src/platform/lock.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QTest>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <tuple>

namespace fs = std::filesystem;
using vl::FileOperation;
using vlupd::VLUPD;

namespace {

constexpr int killedCode = 99;
constexpr std::chrono::minutes atOnce{0};

/// Makes operations on the files of one root fail; one object at a time.
class Faults final
{
public:
    /// `fails`: asked before every operation, on any thread.
    Faults(const fs::path& root, std::function<bool(FileOperation)> fails, int error = EIO)
    {
        vl::setFileFault([below = root.string(), fails = std::move(fails),
                          error](FileOperation now, const fs::path& path) -> std::optional<int> {
            // Settings that cannot be read count as the user's and stay.
            const bool isReading = now == FileOperation::Open || now == FileOperation::Read;
            if (!path.string().starts_with(below) || (isReading && path.extension() == ".ini"))
                return std::nullopt;
            return fails(now) ? std::optional(error) : std::nullopt;
        });
    }
    ~Faults() { vl::setFileFault({}); }
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;
};

/// Rounds of random kills that were asked for by night; by day 0.
int roundsByNight()
{
    return qEnvironmentVariableIntValue("VARNEL_CRASH_ROUNDS");
}

/// Installs the version `change`, or removes ("remove VERSION"), or only starts ("clean"); what is
/// to be tidied afterwards is, as far as it can be. A cleaning that goes on later is no success.
int carryOut(VLUPD& library, const std::string& change)
{
    const std::string removal = "remove ";
    int result = vlupd::OK;
    if (change.starts_with(removal))
        result = library.removeVersion(change.substr(removal.size()));
    else if (change != "clean")
        result = library.installVersion(change, {}, {});
    const bool clean = library.cleanDownloads(atOnce);
    return change != "clean" || clean ? result : vlupd::UNKNOWN_ERROR;
}

std::string installedIn(const Root& root)
{
    const auto installed = VLUPD(root.path(), true, nullptr).getInstalledVersions();
    return installed.empty() ? "" : installed.begin()->first;
}

// Asks as a launcher does, until a file "stop" appears.
int watch(const fs::path& root)
{
    VLUPD kept(root, true, nullptr);
    while (!fs::exists(root / "stop")) {
        VLUPD fresh(root, true, nullptr);
        for (VLUPD* library : {&kept, &fresh})
            if (library->getInstalledVersions().size() != 1)
                return 1;
    }
    return 0;
}

int childMain(const std::vector<std::string>& arguments)
{
    const fs::path root = arguments[2];
    if (arguments[3] == "watch")
        return watch(root);
    // The process ends before this rename.
    std::atomic<int> left = std::stoi(arguments[4]);
    const Faults killing(root, [&left](FileOperation now) {
        if (now == FileOperation::Rename && left-- == 0)
            std::_Exit(killedCode);
        return false;
    });
    VLUPD library(root, false, nullptr);
    return carryOut(library, arguments[3]);
}

} // namespace

class InstallFaultTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void everyOperationFails_data();
    void everyOperationFails();
    void diskStaysFull();
    void killedAtEachRename_data();
    void killedAtEachRename();
    void killed();
    void copiedInMidSwitch();
    void twoProcesses();
    void readersDuringSwitches();

private:
    /// The root that a change begins with.
    struct Start
    {
        std::unique_ptr<Root> root;
        Files mine;
        std::set<std::string> versions; ///< one of them is installed, at the latest once settled
        bool isDamaged = false;
    };
    std::unique_ptr<Root> copied(const Start& start) const
    {
        return copyOf(*start.root, *m_releases);
    }
    Start installedWith(const std::string& version, const Files& mine) const;
    Start interrupted(int renames, int undone) const;
    QString faultOf(const Root& root, const Start& start, const std::string& change) const;
    int runChild(const Root& root, const std::string& change, int renames = INT_MAX) const;
    QStringList childArguments(const Root& root, const std::string& change, int renames) const;
    void keepsPromise(const Root& root, const Start& start, const std::string& change,
                      const QString& label) const;

    const QString m_program = QCoreApplication::applicationFilePath();
    std::unique_ptr<Releases> m_releases;
    std::map<std::string, Start> m_starts;
};

void InstallFaultTest::initTestCase()
{
    m_releases = std::make_unique<Releases>(true);
    scenario::publish(*m_releases);
    Files many = scenario::second;
    for (int i = 0; i < 40; ++i)
        many["data/" + std::to_string(i)] =
            someBytes(i == 0 ? 4U << 20U : 100'000U, static_cast<unsigned>(i));
    m_releases->publish("4.0.0", many);

    m_starts["empty"] = {
        .root = std::make_unique<Root>(*m_releases, "", true), .mine = {}, .versions = {""}};
    m_starts["first"] = installedWith("1.0.0", scenario::besideFirst);
    m_starts["second"] = installedWith("2.0.0", scenario::besideSecond);
    m_starts["many"] = installedWith("4.0.0", scenario::besideSecond);
    Start& damaged = m_starts["damaged"] = installedWith("1.0.0", scenario::besideFirst);
    damaged.isDamaged = true;
    writeFile(damaged.root->tree() / "a", "cut");
    writeFile(damaged.root->tree() / "bin/simulator", "another text");
    fs::remove(damaged.root->tree() / "same");
    m_starts["half switched"] = interrupted(9, 0);
    m_starts["half undone"] = interrupted(12, 4);
    for (const char* name : {"half switched", "half undone"})
        QVERIFY(fs::exists(m_starts.at(name).root->path() / "switch.json"));
}

InstallFaultTest::Start InstallFaultTest::installedWith(const std::string& version,
                                                        const Files& mine) const
{
    Start start{
        .root = std::make_unique<Root>(*m_releases, "", true), .mine = mine, .versions = {version}};
    LogLines log;
    VLUPD library(start.root->path(), false, &log);
    if (carryOut(library, version) != vlupd::OK)
        throw std::runtime_error(log.text());
    for (const auto& [path, contents] : mine)
        writeFile(start.root->tree() / path, contents);
    return start;
}

// An update that ended after so many renames, with everything failing from then on. `undone`: after
// one failure so many more, which undo.
InstallFaultTest::Start InstallFaultTest::interrupted(int renames, int undone) const
{
    const Start& first = m_starts.at("first");
    Start start{.root = copied(first), .mine = first.mine, .versions = {"1.0.0", "2.0.0"}};
    std::atomic<int> done{0};
    const Faults faults(start.root->path(), [&](FileOperation now) {
        const int before = now == FileOperation::Rename ? done++ : done.load();
        return (now == FileOperation::Rename && before == renames) || before > renames + undone;
    });
    VLUPD library(start.root->path(), false, nullptr);
    (void)carryOut(library, "2.0.0");
    return start;
}

// The fault after a change, finished or not; empty if none. Damage may still be there.
QString InstallFaultTest::faultOf(const Root& root, const Start& start,
                                  const std::string& change) const
{
    std::set<std::string> allowed = start.versions;
    if (change.starts_with("remove"))
        allowed.insert("");
    else if (change != "clean")
        allowed.insert(change);
    const QString fault = promiseFault(root, *m_releases, allowed, start.mine);
    return start.isDamaged && filesIn(root.tree()) == filesIn(start.root->tree()) ? QString()
                                                                                  : fault;
}

// What was begun is ended; then the same change again ends well and leaves nothing. After a
// cleaning, an installation.
void InstallFaultTest::keepsPromise(const Root& root, const Start& start, const std::string& change,
                                    const QString& label) const
{
    QString fault = faultOf(root, start, change);
    QVERIFY2(fault.isEmpty(), qPrintable(fault + label));
    const std::string again = change == "clean" ? "2.0.0" : change;
    const bool isRemoval = again.starts_with("remove");
    const std::string target = isRemoval ? "" : again;
    LogLines log;
    VLUPD library(root.path(), false, &log);
    const int result = carryOut(library, again);
    QVERIFY2(result == vlupd::OK || (isRemoval && result == vlupd::NOT_FOUND),
             qPrintable(QString::fromStdString(log.text()) + label));
    fault = promiseFault(root, *m_releases, {target}, start.mine);
    QVERIFY2(fault.isEmpty(), qPrintable(fault + label));
    // A temporary file may belong to somebody until it is an hour old, and what is staged for an
    // update that was undone is kept for 14 days.
    const bool maybeUndone = start.versions.size() > 1 && target != "2.0.0";
    const QString rubbish = root.leftovers();
    QVERIFY2(rubbish.isEmpty() || rubbish.contains(u".vl-tmp") || maybeUndone,
             qPrintable(rubbish + label));
}

void InstallFaultTest::everyOperationFails_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("wanted");
    QTest::addColumn<bool>("dies");
    QTest::addColumn<int>("least");

    // `least`: operations that the change has for certain.
    for (const auto& [from, wanted, least] : {std::tuple("first", "2.0.0", 100),
                                              {"second", "1.0.0", 100},
                                              {"damaged", "1.0.0", 80},
                                              {"first", "remove 1.0.0", 20},
                                              {"half switched", "clean", 40},
                                              {"half undone", "clean", 40},
                                              {"half switched", "3.0.0", 100},
                                              {"half undone", "3.0.0", 100}})
        for (const bool dies : {false, true})
            QTest::addRow("%s, then %s, operations fail %s", from, wanted,
                          dies ? "from one on" : "once")
                << from << wanted << dies << least;
}

// As a database tests itself: the first file operation fails, then the second, and so on, until
// one run meets no failure any more. `dies`: nothing works from then on. By day every third one.
void InstallFaultTest::everyOperationFails()
{
    QFETCH(const QString, from);
    QFETCH(const QString, wanted);
    QFETCH(const bool, dies);
    QFETCH(const int, least);
    const std::string change = wanted.toStdString();
    const Start& start = m_starts.at(from.toStdString());
    const int step = roundsByNight() > 0 ? 1 : 3;
    int failing = QRandomGenerator::global()->bounded(step);
    for (bool met = true; met; failing += step) {
        const auto root = copied(start);
        LogLines log;
        int result = vlupd::OK;
        {
            std::atomic<int> count{0};
            const Faults faults(root->path(), [&](FileOperation) {
                const int before = count++;
                return before == failing || (dies && before > failing);
            });
            VLUPD library(root->path(), false, &log);
            result = carryOut(library, change);
            met = count > failing;
        }
        const QString label = QStringLiteral(" (operation %1, result %2: %3)")
                                  .arg(failing)
                                  .arg(result)
                                  .arg(QString::fromStdString(log.text()));
        // Success is told only of what has happened, and a failure is told in words.
        const std::string target = change.starts_with("remove") ? "" : change;
        QVERIFY2(result != vlupd::OK || change == "clean" || installedIn(*root) == target,
                 qPrintable(label));
        QVERIFY2(result == vlupd::OK || log.text().size() > 30, qPrintable(label));
        keepsPromise(*root, start, change, label);
        if (QTest::currentTestFailed())
            return;
    }
    QVERIFY2(failing > least, qPrintable(QString::number(failing)));
}

// A disk that is full from one operation on, during the next start too: nothing is written any
// more, but names change.
void InstallFaultTest::diskStaysFull()
{
    const Start& start = m_starts.at("first");
    int filling = 0;
    for (bool met = true; met; ++filling) {
        const auto root = copied(start);
        {
            std::atomic<int> count{0};
            const auto isFull = [&](FileOperation now) {
                const bool needsRoom =
                    now == FileOperation::Write || now == FileOperation::Truncate ||
                    now == FileOperation::MakeDirectory || now == FileOperation::FreeSpace;
                return needsRoom && count++ >= filling;
            };
            const Faults faults(root->path(), isFull, ENOSPC);
            LogLines log;
            int result = vlupd::OK;
            {
                VLUPD library(root->path(), false, &log);
                result = library.installVersion("2.0.0", {}, {});
                met = count > filling;
            }
            const QString label = QStringLiteral(" (full from write %1 on, result %2: %3)")
                                      .arg(filling)
                                      .arg(result)
                                      .arg(QString::fromStdString(log.text()));
            QVERIFY2(result == vlupd::OK || log.contains("No space left") ||
                         log.contains("not enough space"),
                     qPrintable(label));
            const std::string expected = result == vlupd::OK ? "2.0.0" : "1.0.0";
            QString fault = promiseFault(*root, *m_releases, {expected}, start.mine);
            QVERIFY2(fault.isEmpty(), qPrintable(fault + label));
            VLUPD library(root->path(), false, &log);
            QVERIFY2(library.removeVersion(expected) == vlupd::OK, qPrintable(label));
            fault = promiseFault(*root, *m_releases, {""}, start.mine);
            QVERIFY2(fault.isEmpty(), qPrintable(fault + label));
        }
        const Start emptied{.root = {}, .mine = start.mine, .versions = {""}};
        keepsPromise(*root, emptied, "2.0.0", QString::number(filling));
        if (QTest::currentTestFailed())
            return;
    }
    QVERIFY2(filling > 15, qPrintable(QString::number(filling)));
}

QStringList InstallFaultTest::childArguments(const Root& root, const std::string& change,
                                             int renames) const
{
    return {QStringLiteral("--child"), QString::fromStdString(root.path().string()),
            QString::fromStdString(change), QString::number(renames)};
}

int InstallFaultTest::runChild(const Root& root, const std::string& change, int renames) const
{
    return QProcess::execute(m_program, childArguments(root, change, renames));
}

void InstallFaultTest::killedAtEachRename_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("wanted");
    QTest::addColumn<int>("least");

    for (const auto& [from, wanted, least] :
         {std::tuple("first", "2.0.0", 15), {"damaged", "1.0.0", 6}, {"half switched", "clean", 8}})
        QTest::addRow("%s, then %s", from, wanted) << from << wanted << least;
}

void InstallFaultTest::killedAtEachRename()
{
    QFETCH(const QString, from);
    QFETCH(const QString, wanted);
    QFETCH(const int, least);
    const Start& start = m_starts.at(from.toStdString());
    int renames = 0;
    for (int code = killedCode; code == killedCode; ++renames) {
        const auto root = copied(start);
        code = runChild(*root, wanted.toStdString(), renames);
        const QString label = QStringLiteral(" (%1 renames, code %2)").arg(renames).arg(code);
        QVERIFY2(code == killedCode || code == vlupd::OK, qPrintable(label));
        keepsPromise(*root, start, wanted.toStdString(), label);
        if (QTest::currentTestFailed())
            return;
    }
    QVERIFY2(renames > least, qPrintable(QString::number(renames)));
}

void InstallFaultTest::killed()
{
    struct Change
    {
        const char* from;
        std::string change;
        qint64 whole = 0; ///< how long it takes, in milliseconds
    };
    std::vector<Change> changes{
        {"empty", "4.0.0"}, {"first", "4.0.0"}, {"damaged", "1.0.0"}, {"many", "remove 4.0.0"}};
    for (Change& change : changes) {
        const auto measured = copied(m_starts.at(change.from));
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(runChild(*measured, change.change), 0);
        change.whole = timer.elapsed();
    }
    const int rounds = roundsByNight() > 0 ? roundsByNight() : 20;
    for (int round = 0; round < rounds; ++round) {
        const auto& [from, change, whole] = changes[static_cast<std::size_t>(round) % 4];
        const Start& start = m_starts.at(from);
        const auto root = copied(start);
        const qint64 moment = QRandomGenerator::global()->bounded(whole + whole / 4 + 1);
        QProcess child;
        child.start(m_program, childArguments(*root, change, INT_MAX));
        QVERIFY(child.waitForStarted());
        child.waitForFinished(static_cast<int>(moment));
        child.kill();
        child.waitForFinished();
        const QString label = QStringLiteral(" (%1, killed after %2 of %3 ms)")
                                  .arg(QString::fromStdString(change))
                                  .arg(moment)
                                  .arg(whole);
        keepsPromise(*root, start, change, label);
        if (QTest::currentTestFailed())
            return;
    }
}

// The journal and what it needs are all below the root: wherever it is, without its times and
// without a repository.
void InstallFaultTest::copiedInMidSwitch()
{
    int copies = 0;
    for (int renames = 0;; ++renames) {
        const Start start = interrupted(renames, 0);
        const bool isBegun = fs::exists(start.root->path() / "switch.json");
        if (!isBegun && copies > 0)
            break;
        const auto copy = copyOf(*start.root, *m_releases, "nowhere");
        const QString fault = faultOf(*copy, start, "clean");
        QVERIFY2(fault.isEmpty(), qPrintable(fault + QString::number(renames)));
        copies += isBegun ? 1 : 0;
        QVERIFY(renames < 100);
    }
    QVERIFY2(copies > 12, qPrintable(QString::number(copies)));
}

void InstallFaultTest::twoProcesses()
{
    const auto root = copied(m_starts.at("first"));
    LogLines log;
    VLUPD library(root->path(), false, &log);
    std::vector<int> codes;
    Recorder recorder;
    recorder.goOn = [&](const Recorder::Report& report) {
        if (codes.empty() && report.stage == 2)
            for (const char* change : {"1.0.0", "remove 1.0.0", "clean"})
                codes.push_back(runChild(*root, change));
        return true;
    };
    QCOMPARE(library.installVersion("2.0.0", recorder.progress(), recorder.stage()), vlupd::OK);
    QCOMPARE(codes, (std::vector<int>{vlupd::SYSTEM_CALL_ERROR, vlupd::SYSTEM_CALL_ERROR,
                                      vlupd::UNKNOWN_ERROR}));
    QCOMPARE(promiseFault(*root, *m_releases, {"2.0.0"}, scenario::besideFirst), QString());

    // While another one only reads, nothing may change under it, and nothing is fetched in vain.
    const auto reader = vl::FolderLock::tryTakeShared(root->path());
    QVERIFY(reader);
    Recorder refused;
    QCOMPARE(library.checkFiles("2.0.0", std::nullopt), vlupd::OK);
    QCOMPARE(library.removeVersion("2.0.0"), vlupd::SYSTEM_CALL_ERROR);
    QCOMPARE(library.installVersion("1.0.0", refused.progress(), refused.stage()),
             vlupd::SYSTEM_CALL_ERROR);
    QVERIFY(refused.stages.empty());
}

void InstallFaultTest::readersDuringSwitches()
{
    const auto root = copied(m_starts.at("first"));
    QProcess reader;
    reader.start(m_program, childArguments(*root, "watch", 0));
    QVERIFY(reader.waitForStarted());
    LogLines log;
    VLUPD library(root->path(), false, &log);
    for (int round = 0; round < 200 && reader.state() == QProcess::Running; ++round) {
        const char* const version = round % 4 < 2 ? "2.0.0" : "1.0.0"; // every other one a repair
        QVERIFY2(library.installVersion(version, {}, {}) == vlupd::OK, log.text().c_str());
        reader.waitForFinished(0);
    }
    writeFile(root->path() / "stop", "");
    QVERIFY(reader.state() == QProcess::NotRunning || reader.waitForFinished());
    QCOMPARE(reader.exitStatus(), QProcess::NormalExit);
    QCOMPARE(reader.exitCode(), 0);
}

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv, argv + argc);
    if (arguments.size() == 5 && arguments[1] == "--child")
        return childMain(arguments);
    const QCoreApplication application(argc, argv);
    InstallFaultTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "installfaulttest.moc"
