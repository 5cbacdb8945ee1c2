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

/// The program's exit code when it runs as another process on `root`.
int runChild(const QStringList& arguments)
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), arguments);
    return child.waitForFinished(60000) && child.exitStatus() == QProcess::NormalExit
               ? child.exitCode()
               : -1;
}

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
    void fullDisk_data();
    void fullDisk();
    void everyOperationFailsOnce_data();
    void everyOperationFailsOnce();
    void killed();
    void twoProcesses();

private:
    /// A root with 1.0.0 installed.
    std::unique_ptr<Root> oldRoot() const;

    std::unique_ptr<Releases> m_releases;
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
}

std::unique_ptr<Root> InstallFaultTest::oldRoot() const
{
    auto root = std::make_unique<Root>(*m_releases, "", true);
    VLUPD library(root->path(), false, nullptr);
    return library.installVersion("1.0.0", {}, {}) == vlupd::OK ? std::move(root) : nullptr;
}

void InstallFaultTest::fullDisk_data()
{
    QTest::addColumn<FileOperation>("operation");
    QTest::addColumn<QString>("place");
    QTest::addColumn<QString>("words");
    QTest::addColumn<bool>("partStays");
    const auto row = [](const char* name, FileOperation operation, const char* place,
                        const char* words, bool partStays) {
        QTest::newRow(name) << operation << QString::fromLatin1(place) << QString::fromLatin1(words)
                            << partStays;
    };
    row("before it begins", FileOperation::FreeSpace, "", "bytes needed, 0 free", false);
    row("journal", FileOperation::Write, "journal.json", "journal.json", false);
    row("download", FileOperation::Write, ".part", ".part: No space left on device", true);
    row("bytes of a file", FileOperation::Write, "2.0.0.g2/b/c", "2.0.0.g2/b/c: No space", true);
    row("flushing the volume", FileOperation::Sync, "/versions", "cannot flush", true);
    row("state's rename", FileOperation::Rename, "installed.json", "installed.json", true);
}

void InstallFaultTest::fullDisk()
{
    QFETCH(FileOperation, operation);
    QFETCH(QString, place);
    QFETCH(QString, words);
    QFETCH(bool, partStays);
    const auto root = oldRoot();
    QVERIFY(root);
    LogLines log;
    VLUPD library(root->path(), false, &log);
    vl::setFileFault([&](FileOperation now, const fs::path& path) {
        const bool here = path.string().find(place.toStdString()) != std::string::npos;
        return now == operation && here ? std::optional(ENOSPC) : std::nullopt;
    });
    const int result = library.installVersion("2.0.0", {}, {});
    vl::setFileFault({});
    QVERIFY2(result == vlupd::SYSTEM_CALL_ERROR, log.text().c_str());
    QVERIFY2(log.contains("installVersion 2.0.0: ") && log.contains(words.toStdString()),
             log.text().c_str());
    QVERIFY(!fs::exists(root->path() / "versions/2.0.0.g2"));
    QCOMPARE(!root->partFiles().empty(), partStays);
    QCOMPARE(promiseFault(*root, *m_releases, {"1.0.0"}), QString());
    QCOMPARE(library.installVersion("2.0.0", {}, {}), vlupd::OK);
    QCOMPARE(promiseFault(*root, *m_releases, {"2.0.0"}), QString());
    QCOMPARE(root->leftovers(), QString());
}

void InstallFaultTest::everyOperationFailsOnce_data()
{
    QTest::addColumn<bool>("removal");
    QTest::addColumn<bool>("dies");
    QTest::newRow("update, one failure") << false << false;
    QTest::newRow("update, nothing works from then on") << false << true;
    QTest::newRow("removal, one failure") << true << false;
    QTest::newRow("removal, nothing works from then on") << true << true;
}

// As a database tests itself: the first file operation fails, then the second, and so on, until
// one run meets no failure any more.
void InstallFaultTest::everyOperationFailsOnce()
{
    QFETCH(bool, removal);
    QFETCH(bool, dies);
    const auto original = oldRoot();
    QVERIFY(original);
    const std::string target = removal ? "" : "2.0.0";
    int failing = 0;
    for (bool met = true; met; ++failing) {
        const Root root(*m_releases, "", true);
        fs::copy(original->path(), root.path(),
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        std::atomic<int> count{0};
        vl::setFileFault([&](FileOperation, const fs::path& path) -> std::optional<int> {
            if (path.string().starts_with(m_releases->folder().string()))
                return std::nullopt;
            const int now = count++;
            return now == failing || (dies && now > failing) ? std::optional(EIO) : std::nullopt;
        });
        LogLines log;
        int result = vlupd::OK;
        {
            VLUPD library(root.path(), false, &log);
            result =
                removal ? library.removeVersion("1.0.0") : library.installVersion("2.0.0", {}, {});
        }
        met = count > failing;
        vl::setFileFault({});
        const QString label = QStringLiteral("operation %1, result %2: ").arg(failing).arg(result) +
                              QString::fromStdString(log.text());
        const QString fault = promiseFault(root, *m_releases, {"1.0.0", target});
        QVERIFY2(fault.isEmpty(), qPrintable(fault + label));
        // Success is told only of what has happened, and a failure is told in words.
        const auto installed = VLUPD(root.path(), true, nullptr).getInstalledVersions();
        const std::string now = installed.empty() ? "" : installed.begin()->first;
        QVERIFY2(result != vlupd::OK || now == target, qPrintable(label));
        QVERIFY2(result == vlupd::OK || log.text().size() > 30, qPrintable(label));
        VLUPD library(root.path(), false, &log);
        const int again =
            removal ? library.removeVersion("1.0.0") : library.installVersion("2.0.0", {}, {});
        QVERIFY2(again == vlupd::OK || now == target, qPrintable(label));
        QVERIFY(library.cleanDownloads(std::chrono::minutes(0)));
        const QString rubbish = root.leftovers();
        QVERIFY2(promiseFault(root, *m_releases, {target}).isEmpty(), qPrintable(label));
        // A temporary file may belong to somebody until it is an hour old.
        QVERIFY2(rubbish.isEmpty() || (dies && rubbish.contains(u".vl-tmp")),
                 qPrintable(rubbish + label));
    }
    QVERIFY2(failing > (removal ? 8 : 40), qPrintable(QString::number(failing)));
}

void InstallFaultTest::killed()
{
    const auto original = oldRoot();
    QVERIFY(original);
    const auto copy = [&] {
        auto root = std::make_unique<Root>(*m_releases, "", true);
        fs::copy(original->path(), root->path(),
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        return root;
    };
    const auto measured = copy();
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(runChild(childArguments(*measured, "install", "3.0.0")), 0);
    const qint64 whole = timer.elapsed();

    for (int round = 0; round < 12; ++round) {
        const auto root = copy();
        const qint64 moment = QRandomGenerator::global()->bounded(whole + whole / 4 + 1);
        QProcess child;
        child.start(QCoreApplication::applicationFilePath(),
                    childArguments(*root, "install", "3.0.0"));
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
    const auto root = oldRoot();
    QVERIFY(root);
    std::vector<int> codes;
    Recorder recorder;
    recorder.goOn = [&](const Recorder::Report& report) {
        if (codes.empty() && report.stage == 2)
            for (const char* operation : {"install", "remove", "list"})
                codes.push_back(runChild(childArguments(*root, operation, "1.0.0")));
        return true;
    };
    VLUPD library(root->path(), false, nullptr);
    QCOMPARE(library.installVersion("2.0.0", recorder.progress(), recorder.stage()), vlupd::OK);
    QCOMPARE(codes, (std::vector<int>{vlupd::SYSTEM_CALL_ERROR, vlupd::SYSTEM_CALL_ERROR, 0}));
    QCOMPARE(promiseFault(*root, *m_releases, {"2.0.0"}), QString());

    // While another one only reads, nothing may change under it.
    const auto reader = vl::RootLock::tryTakeShared(root->path());
    QVERIFY(reader);
    QCOMPARE(library.checkFiles("2.0.0", std::nullopt), vlupd::OK);
    QCOMPARE(library.removeVersion("2.0.0"), vlupd::SYSTEM_CALL_ERROR);
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
