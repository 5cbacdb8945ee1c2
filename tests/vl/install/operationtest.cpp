#include "vl/src/operation/operation.h"

#include "tests/vl/install/installfixture.h"
#include "vl/src/install/layout.h"
#include "vl/src/install/workers.h"
#include "vl/src/operation/progressmeter.h"

#include <QTest>

#include <array>
#include <thread>

using namespace std::chrono_literals;
using vl::ProgressMeter;

class OperationTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void speedIsAnAverageOfTheLastSecond();
    void doneNeverFallsNorExceedsTheTotal();
    void linesFromManyThreadsStayWhole();
    void reportsAreFewAndOnTheCallingThread();
    void failingWorkersStopTheOthers();
    void folderNames_data();
    void folderNames();
};

void OperationTest::speedIsAnAverageOfTheLastSecond()
{
    ProgressMeter meter;
    const auto start = ProgressMeter::Clock::now();
    meter.begin(5000, 100000, start);
    QCOMPARE(meter.take(start).bytesPerSecond, 0U);
    meter.add(1);
    QVERIFY(meter.take(start).bytesPerSecond > 0);
    // 1000 bytes in each 100 ms, then a pause, then a trickle.
    auto now = start;
    std::uint64_t speed = 0;
    for (int i = 0; i < 30; ++i) {
        now += 100ms;
        meter.add(1000);
        speed = meter.take(now).bytesPerSecond;
    }
    QVERIFY2(speed > 9000 && speed < 11000, std::to_string(speed).c_str());
    for (int i = 0; i < 12; ++i)
        speed = meter.take(now += 100ms).bytesPerSecond;
    QCOMPARE(speed, 0U);
    meter.add(1);
    QCOMPARE(meter.take(now += 20s).bytesPerSecond, 1U);
}

void OperationTest::doneNeverFallsNorExceedsTheTotal()
{
    ProgressMeter meter;
    const auto now = ProgressMeter::Clock::now();
    meter.begin(700, 500, now);
    QCOMPARE(meter.take(now).done, 500U);
    meter.begin(0, 1000, now);
    meter.add(600);
    meter.restate(100, 300);
    QCOMPARE(meter.take(now).done, 600U);
    QCOMPARE(meter.take(now).total, 600U);
    meter.restate(800, 2000);
    meter.add(UINT64_MAX);
    QCOMPARE(meter.take(now).done, 2000U);
}

void OperationTest::linesFromManyThreadsStayWhole()
{
    vl::Log log;
    LogLines lines;
    log.setBuffer(&lines);
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < 4; ++thread)
            threads.emplace_back([&log] {
                for (int i = 0; i < 100; ++i)
                    log.write("a whole line");
            });
        for (int i = 0; i < 50; ++i)
            log.deliver();
    }
    log.deliver();
    QCOMPARE(lines.lines.size(), 400U);
    QVERIFY(std::ranges::count(lines.lines, "a whole line") == 400);
}

void OperationTest::reportsAreFewAndOnTheCallingThread()
{
    vl::Log log;
    const auto caller = std::this_thread::get_id();
    std::vector<ProgressMeter::Clock::time_point> times;
    std::uint64_t last = 0;
    vl::Operation operation(log, [&](std::uint64_t, std::uint64_t done, std::uint64_t) {
        times.push_back(ProgressMeter::Clock::now());
        last = done;
        return std::this_thread::get_id() == caller;
    });
    QVERIFY(operation.pump());
    QVERIFY(times.empty());
    constexpr std::uint64_t total = 200'000;
    for (const auto stage : {vlupd::STAGE_DOWNLOADING, vlupd::STAGE_UNPACKING}) {
        operation.beginStage(stage, 0, total);
        vl::Workers workers(2, [&](const std::stop_token&) -> vl::Expected<void> {
            for (std::uint64_t i = 0; i < total / 2; ++i)
                operation.addDone(1);
            return {};
        });
        while (!workers.waitFor(1ms))
            QVERIFY(operation.pump());
        QVERIFY(workers.finish(operation));
        operation.endStage();
        QCOMPARE(last, total);
    }
    for (std::size_t i = 20; i < times.size(); ++i)
        QVERIFY(times[i] - times[i - 20] >= 1s);
}

void OperationTest::failingWorkersStopTheOthers()
{
    vl::Log log;
    vl::Operation operation(log);
    std::atomic<int> turn{0};
    vl::Workers workers(2, [&](const std::stop_token& stop) -> vl::Expected<void> {
        if (turn++ == 0)
            throw std::bad_alloc();
        while (!stop.stop_requested())
            std::this_thread::yield();
        return {};
    });
    const auto result = workers.finish(operation);
    QVERIFY(!result);
    QCOMPARE(result.error().code, vlupd::UNKNOWN_ERROR);
    QVERIFY(!operation.cancelled());
}

void OperationTest::folderNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("valid");
    for (const char* name : {"1.2.0.g7", "1.0.g2.g3", "x.g18446744073709551615", "версия.g1"})
        QTest::newRow(name) << QString::fromUtf8(name) << true;
    for (const char* name : {"", "1.2.0", "1.2.0.g", "1.2.0.g07", "1.2.0.g-1", "1.2.0.g1x", ".g1",
                             "...g1", "x.g18446744073709551616"})
        QTest::addRow("'%s'", name) << QString::fromUtf8(name) << false;
}

void OperationTest::folderNames()
{
    QFETCH(QString, name);
    QFETCH(bool, valid);
    const auto id = vl::TreeId::fromFolderName(name.toStdString());
    QCOMPARE(id.has_value(), valid);
    if (id)
        QCOMPARE(QString::fromStdString(id->folderName()), name);
}

QTEST_GUILESS_MAIN(OperationTest)
#include "operationtest.moc"
