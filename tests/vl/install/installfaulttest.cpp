#include "tests/vl/install/installfixture.h"
#include "vl/src/platform/file.h"
#include "vl/src/platform/lock.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QTest>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <memory>

namespace fs = std::filesystem;
using vl::FileOperation;
using vlupd::VLUPD;

namespace {

const Files oldFiles{{"bin/simulator", "the simulator"}, {"a", "old"}, {"gone", "only here"}};
const Files newFiles{{"bin/simulator", "a newer simulator"}, {"a", "new"}, {"b/c", "nested"}};

QStringList childArguments(const Root& root, const char* operation, const char* version)
{
    return {QStringLiteral("--child"), QString::fromStdString(root.path().string()),
            QString::fromLatin1(operation), QString::fromLatin1(version)};
}

int childMain(const std::vector<std::string>& arguments)
{
    VLUPD library(arguments[2], false, nullptr);
    if (arguments[3] == "install")
        return library.installVersion(arguments[4], {}, {});
    if (arguments[3] == "remove")
        return library.removeVersion(arguments[4]);
    return library.getInstalledVersions().contains(arguments[4]) ? 0 : 1;
}

} // namespace

class InstallFaultTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup() { vl::setFileFault({}); }
    void fullDisk();
    void everyOperationOfAnUpdateFailsOnce() { failOneByOne("2.0.0", false); }
    void everyOperationOfAnUpdateIsOnceTheLast() { failOneByOne("2.0.0", true); }
    void everyOperationOfARemovalFailsOnce() { failOneByOne("", false); }
    void everyOperationOfARemovalIsOnceTheLast() { failOneByOne("", true); }
    void killed();
    void twoProcesses();

private:
    void failOneByOne(const std::string& target, bool dies);
    /// A copy of a root with 1.0.0 installed.
    std::unique_ptr<Root> oldRoot() const
    {
        auto root = std::make_unique<Root>(*m_releases, "", true);
        // MinGW takes whatever exists already for the thing that is copied.
        for (const auto& entry : fs::directory_iterator(m_original->root.path()))
            if (const fs::path name = entry.path().filename(); name != "vl.json")
                fs::copy(entry.path(), root->path() / name, fs::copy_options::recursive);
        return root;
    }

    const QString m_program = QCoreApplication::applicationFilePath();
    std::unique_ptr<Releases> m_releases;
    std::unique_ptr<Installed> m_original;
};

void InstallFaultTest::initTestCase()
{
    m_releases = std::make_unique<Releases>(true);
    m_releases->publish("1.0.0", oldFiles);
    m_releases->publish("2.0.0", newFiles);
    Files many = newFiles;
    for (int i = 0; i < 40; ++i)
        many["data/" + std::to_string(i)] =
            someBytes(i == 0 ? 18U << 20U : 200'000U, static_cast<unsigned>(i));
    m_releases->publish("3.0.0", many);
    m_original = std::make_unique<Installed>(*m_releases);
}

// What has been downloaded stays, what has been unpacked goes, and the log tells how much room
// there is.
void InstallFaultTest::fullDisk()
{
    for (const bool atOnce : {true, false}) {
        Installed it(*m_releases);
        vl::setFileFault([&](FileOperation now, const fs::path& path) {
            const bool full = atOnce ? now == FileOperation::FreeSpace
                                     : now == FileOperation::Write && path.filename() == "c";
            return full ? std::optional(ENOSPC) : std::nullopt;
        });
        QCOMPARE(it.library.installVersion("2.0.0", {}, {}), vlupd::SYSTEM_CALL_ERROR);
        cleanup();
        QVERIFY2(it.log.contains(atOnce ? "bytes needed, 0 free" : "b/c: No space left on device"),
                 it.log.text().c_str());
        QVERIFY(!fs::exists(it.root.path() / "versions/2.0.0.g2"));
        QCOMPARE(it.root.partFiles().empty(), atOnce);
        QCOMPARE(promiseFault(it.root, *m_releases, {"1.0.0"}), QString());
        QCOMPARE(it.library.installVersion("2.0.0", {}, {}), vlupd::OK);
        QCOMPARE(promiseFault(it.root, *m_releases, {"2.0.0"}), QString());
        QCOMPARE(it.root.leftovers(), QString());
    }
}

// As a database tests itself: the first file operation fails, then the second, and so on, until
// one run meets no failure any more. `dies`: nothing works from then on.
void InstallFaultTest::failOneByOne(const std::string& target, bool dies)
{
    const bool removal = target.empty();
    const auto change = [removal](VLUPD& library) -> int {
        return removal ? library.removeVersion("1.0.0") : library.installVersion("2.0.0", {}, {});
    };
    int failing = 0;
    for (bool met = true; met; ++failing) {
        const auto root = oldRoot();
        std::atomic<int> count{0};
        vl::setFileFault([&](FileOperation, const fs::path& path) -> std::optional<int> {
            if (path.string().starts_with(m_releases->folder().string()))
                return std::nullopt;
            const int now = count++;
            return now == failing || (dies && now > failing) ? std::optional(EIO) : std::nullopt;
        });
        LogLines log;
        const int result = change(*std::make_unique<VLUPD>(root->path(), false, &log));
        met = count > failing;
        cleanup();
        const QString label = QStringLiteral("operation %1, result %2: ").arg(failing).arg(result) +
                              QString::fromStdString(log.text());
        const QString fault = promiseFault(*root, *m_releases, {"1.0.0", target});
        QVERIFY2(fault.isEmpty(), qPrintable(fault + label));
        // Success is told only of what has happened, and a failure is told in words.
        const auto installed = VLUPD(root->path(), true, nullptr).getInstalledVersions();
        const std::string now = installed.empty() ? "" : installed.begin()->first;
        QVERIFY2(result != vlupd::OK || now == target, qPrintable(label));
        QVERIFY2(result == vlupd::OK || log.text().size() > 30, qPrintable(label));
        VLUPD library(root->path(), false, &log);
        QVERIFY2(change(library) == vlupd::OK || now == target, qPrintable(label));
        QVERIFY(library.cleanDownloads(std::chrono::minutes(0)));
        const QString rubbish = root->leftovers();
        QVERIFY2(promiseFault(*root, *m_releases, {target}).isEmpty(), qPrintable(label));
        // A temporary file may belong to somebody until it is an hour old.
        QVERIFY2(rubbish.isEmpty() || (dies && rubbish.contains(u".vl-tmp")),
                 qPrintable(rubbish + label));
    }
    QVERIFY2(failing > (removal ? 8 : 40), qPrintable(QString::number(failing)));
}

void InstallFaultTest::killed()
{
    const auto measured = oldRoot();
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(QProcess::execute(m_program, childArguments(*measured, "install", "3.0.0")), 0);
    const qint64 whole = timer.elapsed();

    // More by night: VARNEL_CRASH_ROUNDS=200.
    const int asked = qEnvironmentVariableIntValue("VARNEL_CRASH_ROUNDS");
    for (int round = 0; round < (asked > 0 ? asked : 20); ++round) {
        const auto root = oldRoot();
        const qint64 moment = QRandomGenerator::global()->bounded(whole + whole / 4 + 1);
        QProcess child;
        child.start(m_program, childArguments(*root, "install", "3.0.0"));
        QVERIFY(child.waitForStarted());
        child.waitForFinished(static_cast<int>(moment));
        child.kill();
        child.waitForFinished();
        const QString label = QStringLiteral(" (killed after %1 of %2 ms)").arg(moment).arg(whole);
        const QString fault = promiseFault(*root, *m_releases, {"1.0.0", "3.0.0"});
        QVERIFY2(fault.isEmpty(), qPrintable(fault + label));
        LogLines log;
        VLUPD library(root->path(), false, &log);
        const int result = library.installVersion("3.0.0", {}, {});
        QVERIFY2(result == vlupd::OK || result == vlupd::FOUND_LOCALLY, log.text().c_str());
        QCOMPARE(promiseFault(*root, *m_releases, {"3.0.0"}), QString());
        const QString rubbish = root->leftovers();
        QVERIFY2(rubbish.isEmpty() || rubbish.contains(u".vl-tmp"), qPrintable(rubbish + label));
    }
}

void InstallFaultTest::twoProcesses()
{
    Installed it(*m_releases);
    std::vector<int> codes;
    Recorder recorder;
    recorder.goOn = [&](const Recorder::Report& report) {
        if (codes.empty() && report.stage == 2)
            for (const char* operation : {"install", "remove", "list"})
                codes.push_back(
                    QProcess::execute(m_program, childArguments(it.root, operation, "1.0.0")));
        return true;
    };
    QCOMPARE(it.library.installVersion("2.0.0", recorder.progress(), recorder.stage()), vlupd::OK);
    QCOMPARE(codes, (std::vector<int>{vlupd::SYSTEM_CALL_ERROR, vlupd::SYSTEM_CALL_ERROR, 0}));
    QCOMPARE(promiseFault(it.root, *m_releases, {"2.0.0"}), QString());

    // While another one only reads, nothing may change under it.
    const auto reader = vl::FolderLock::tryTakeShared(it.root.path());
    QVERIFY(reader);
    QCOMPARE(it.library.checkFiles("2.0.0", std::nullopt), vlupd::OK);
    QCOMPARE(it.library.removeVersion("2.0.0"), vlupd::SYSTEM_CALL_ERROR);
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
