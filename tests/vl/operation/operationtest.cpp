#include "vl/src/operation/log.h"
#include "vl/src/operation/progressmeter.h"

#include <QTest>

#include <sstream>

using namespace std::chrono_literals;

class OperationTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void reportsAreFewAndTellTheLastSecond();
    void linesWaitForABuffer();
};

void OperationTest::reportsAreFewAndTellTheLastSecond()
{
    vl::ProgressMeter meter;
    auto now = vl::ProgressMeter::Clock::now();
    std::vector<vl::ProgressMeter::Clock::time_point> times;
    const auto report = [&] {
        times.push_back(now);
        return meter.take(now);
    };
    // Stages as an installation has them, the shortest way: 1000 bytes arrive in each 100 ms.
    for (const auto length : {20ms, 30ms, 40ms, 3000ms}) {
        meter.begin(5000, 100'000, now);
        const auto first = report();
        QVERIFY(first.done == 5000 && first.bytesPerSecond == 0); // nothing has arrived yet
        std::uint64_t speed = 10'000;
        for (const auto end = now + length; now < end; now += 1ms) {
            meter.add(10);
            if (meter.due(now))
                speed = report().bytesPerSecond;
            QVERIFY2(speed > 9000 && speed < 11'000, std::to_string(speed).c_str());
        }
        meter.complete();
        QCOMPARE(report().done, 100'000U);
    }
    for (std::size_t i = 20; i < times.size(); ++i)
        QVERIFY2(times[i] - times[i - 20] >= 1s, std::to_string(i).c_str());
    // A pause is told as one, a trickle is more than nothing.
    QCOMPARE(meter.take(now += 2s).bytesPerSecond, 0U);
    meter.add(1);
    QCOMPARE(meter.take(now += 20s).bytesPerSecond, 1U);
    QCOMPARE(meter.take(now).done, 100'000U);
}

void OperationTest::linesWaitForABuffer()
{
    std::stringbuf lines;
    vl::Log log;
    log.write("early|");
    log.deliver();
    log.setBuffer(&lines);
    log.write(std::string("a\nname\0of\tothers\r", 17));
    log.deliver();
    log.setBuffer(nullptr);
    log.write("late");
    log.deliver();
    QCOMPARE(lines.str(), std::string("early|a name of others "));
}

QTEST_APPLESS_MAIN(OperationTest)
#include "operationtest.moc"
