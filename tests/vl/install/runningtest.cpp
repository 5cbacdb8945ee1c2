#include "tests/vl/install/installfixture.h"
#include "vl/src/platform/file.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTest>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vl::FileOperation;

/// Versions are replaced and removed while programs of them run. Windows has a test of its own.
class RunningTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup() { vl::setFileFault({}); }
    void waitsForTheEnd_data();
    void waitsForTheEnd();
    void endedWhileWaiting();
    void startedAtTheLastMoment();

private:
    std::unique_ptr<Releases> m_releases;
};

namespace {

/// A running program of the version in `root`, killed at the end.
struct Simulator
{
    explicit Simulator(const Root& root)
    {
        process.start(QString::fromStdString(root.tree() / "bin/simulator"),
                      {QStringLiteral("60")});
        if (!process.waitForStarted())
            throw std::runtime_error("the simulator cannot be started");
    }
    ~Simulator() { end(); }
    void end()
    {
        process.kill();
        process.waitForFinished();
    }
    std::string number() const { return std::to_string(process.processId()); }

    QProcess process;
};

} // namespace

void RunningTest::initTestCase()
{
    QFile sleep(QStringLiteral("/bin/sleep"));
    QVERIFY(sleep.open(QIODevice::ReadOnly));
    const std::string program = sleep.readAll().toStdString();
    m_releases = std::make_unique<Releases>(true);
    m_releases->publish("1.0.0", {{"bin/simulator", program}, {"a", "old"}});
    m_releases->publish("1.1.0", {{"bin/simulator", "#!/bin/sh\nread line\n"}, {"a", "old"}});
    m_releases->publish(
        "1.2.0",
        {{"bin/simulator", "#!/bin/sh\nexec \"${0%/*}/engine\" 60\n"}, {"bin/engine", program}}, {},
        {"bin/simulator", "bin/engine"});
    m_releases->publish("2.0.0", {{"bin/simulator", program}, {"a", "new"}});
}

void RunningTest::waitsForTheEnd_data()
{
    QTest::addColumn<std::string>("version");
    QTest::addColumn<std::string>("program");
    QTest::newRow("program") << std::string("1.0.0") << std::string("bin/simulator");
    QTest::newRow("script") << std::string("1.1.0") << std::string("bin/simulator");
    QTest::newRow("program of a script") << std::string("1.2.0") << std::string("bin/engine");
}

void RunningTest::waitsForTheEnd()
{
    QFETCH(std::string, version);
    QFETCH(std::string, program);
    Installed it(*m_releases, version);
    Simulator simulator(it.root);
    const std::string words = program + " (process " + simulator.number() + ")";
    QTRY_VERIFY((it.library.removeVersion(version) == vlupd::SYSTEM_CALL_ERROR &&
                 it.log.contains(words + " is running")));

    QElapsedTimer sinceReport;
    qint64 longest = 0;
    int waiting = 0;
    bool whole = true;
    Recorder recorder;
    recorder.goOn = [&](const Recorder::Report& report) {
        if (sinceReport.isValid())
            longest = std::max(longest, sinceReport.elapsed());
        sinceReport.start();
        if (waiting == 10 || !it.log.contains("waiting for " + words))
            return true;
        whole = whole && report.stage == vlupd::STAGE_APPLYING &&
                filesIn(it.root.tree()) == m_releases->files(version);
        if (++waiting == 10)
            simulator.end();
        return true;
    };
    QCOMPARE(it.library.installVersion("2.0.0", recorder.progress(), recorder.stage()), vlupd::OK);
    QVERIFY2(waiting == 10 && whole, it.log.text().c_str());
    QVERIFY2(longest < 1000, qPrintable(QString::number(longest)));
    QCOMPARE(recorder.fault(), QString());
    QVERIFY(it.library.cleanDownloads(0min));
    QCOMPARE(promiseFault(it.root, *m_releases, {"2.0.0"}), QString());
    QCOMPARE(it.root.leftovers(), QString());
}

void RunningTest::endedWhileWaiting()
{
    Installed it(*m_releases);
    writeFile(it.root.tree() / "mine", "mine");
    const Files before = filesIn(it.root.tree());
    const Simulator simulator(it.root);
    QElapsedTimer sinceEnd;
    Recorder recorder;
    recorder.goOn = [&](const Recorder::Report&) {
        if (it.log.contains("waiting for"))
            sinceEnd.start();
        return !sinceEnd.isValid();
    };
    QCOMPARE(it.library.installVersion("2.0.0", recorder.progress(), recorder.stage()),
             vlupd::UNKNOWN_ERROR);
    QVERIFY(sinceEnd.isValid() && sinceEnd.elapsed() < 1000);
    QVERIFY(filesIn(it.root.tree()) == before);
    QVERIFY(!fs::exists(it.root.path() / "switch.json"));
    QVERIFY(it.library.getAppExecutablePath("1.0.0", "default_exec"));
    QCOMPARE(promiseFault(it.root, *m_releases, {"1.0.0"}, {{"mine", "mine"}}), QString());
}

void RunningTest::startedAtTheLastMoment()
{
    std::atomic<qint64> started = 0;
    Installed it(*m_releases);
    const QString program = QString::fromStdString(it.root.tree() / "bin/simulator");
    vl::setFileFault([&](FileOperation operation, const fs::path& path) -> std::optional<int> {
        if (operation == FileOperation::Rename && path.parent_path().filename() == "aside" &&
            started == 0) {
            qint64 process = 0;
            QProcess::startDetached(program, {QStringLiteral("60")}, {}, &process);
            started = process;
        }
        return std::nullopt;
    });
    bool wentBack = false;
    bool ended = false;
    Recorder recorder;
    recorder.goOn = [&](const Recorder::Report&) {
        if (!ended && it.log.contains("waiting for bin/simulator (process")) {
            wentBack = filesIn(it.root.tree()) == m_releases->files("1.0.0");
            ended = ::kill(static_cast<pid_t>(started), SIGKILL) == 0;
        }
        return true;
    };
    QCOMPARE(it.library.installVersion("2.0.0", recorder.progress(), recorder.stage()), vlupd::OK);
    QVERIFY2(it.log.contains("was started meanwhile") && wentBack, it.log.text().c_str());
    QVERIFY(it.library.cleanDownloads(0min));
    QCOMPARE(promiseFault(it.root, *m_releases, {"2.0.0"}), QString());
    QCOMPARE(it.root.leftovers(), QString());
}

QTEST_GUILESS_MAIN(RunningTest)
#include "runningtest.moc"
