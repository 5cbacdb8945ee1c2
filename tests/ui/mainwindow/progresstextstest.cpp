#include "ui/mainwindow/progresstexts.h"

#include <QTest>

#include <cstdint>
#include <limits>

using vlupd::UPD_INSTALLATION_STAGE;

class ProgressTextsTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void size_data();
    void size();
    void time_data();
    void time();
    void percent_data();
    void percent();
    void stages_data();
    void stages();
};

namespace {

constexpr std::uint64_t kibibyte = 1024;
constexpr std::uint64_t mebibyte = 1024 * kibibyte;
constexpr std::uint64_t gibibyte = 1024 * mebibyte;
constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();

} // namespace

void ProgressTextsTest::size_data()
{
    QTest::addColumn<quint64>("done");
    QTest::addColumn<quint64>("total");
    QTest::addColumn<QString>("text");
    const auto row = [](const char* name, quint64 done, quint64 total, const QString& text) {
        QTest::newRow(name) << done << total << text;
    };
    row("nothing", 0, 0, QStringLiteral("0\t/\t0\tбайт"));
    row("last in bytes", 0, kibibyte, QStringLiteral("0\t/\t1024\tбайт"));
    row("first in KiB", 0, kibibyte + 1, QStringLiteral("0.0\t/\t1.0\tКБ"));
    row("last in KiB", 1536, mebibyte, QStringLiteral("1.5\t/\t1024.0\tКБ"));
    row("first in MiB", 0, mebibyte + 1, QStringLiteral("0.00\t/\t1.00\tМБ"));
    row("last in MiB", 0, gibibyte, QStringLiteral("0.00\t/\t1024.00\tМБ"));
    row("first in GiB", 0, gibibyte + 1, QStringLiteral("0.00\t/\t1.00\tГБ"));
    row("both in GiB", gibibyte * 3 / 2, gibibyte * 17 / 4, QStringLiteral("1.50\t/\t4.25\tГБ"));
    row("unit of what is done", gibibyte + 1, 0, QStringLiteral("1.00\t/\t0.00\tГБ"));
    row("no exponent", largest, largest, QStringLiteral("17179869184.00\t/\t17179869184.00\tГБ"));
}

void ProgressTextsTest::size()
{
    QFETCH(const quint64, done);
    QFETCH(const quint64, total);
    QTEST(progressSizeText(done, total), "text");
}

void ProgressTextsTest::time_data()
{
    QTest::addColumn<quint64>("speed");
    QTest::addColumn<quint64>("done");
    QTest::addColumn<quint64>("total");
    QTest::addColumn<QString>("number");
    const auto row = [](const char* name, quint64 speed, quint64 done, quint64 total,
                        const QString& number) {
        QTest::newRow(name) << speed << done << total << number;
    };
    row("done", 1, 9, 9, QStringLiteral("0\tсек"));
    row("fraction of a second dropped", 10, 0, 19, QStringLiteral("1\tсек"));
    row("last in seconds", 1, 0, 60, QStringLiteral("60\tсек"));
    row("first in minutes", 1, 0, 61, QStringLiteral("1\tмин"));
    row("rounded", 1, 0, 100, QStringLiteral("2\tмин"));
    row("last in minutes", 1, 0, 3600, QStringLiteral("60\tмин"));
    row("first in hours", 1, 0, 3601, QStringLiteral("1\tч"));
    row("last in hours", 1, 0, 86400, QStringLiteral("24\tч"));
    row("first in days", 1, 0, 86401, QStringLiteral("1\tдн"));
    row("days", 1, 0, 90000, QStringLiteral("1\tдн"));
    row("no exponent", 1, 0, largest, QStringLiteral("213503982334601\tдн"));
    row("more than all", 1, 10, 9, QStringLiteral("0\tсек"));
    row("nothing arrives", 0, 1, 9, QString());
    row("nothing arrives and nothing is left", 0, 9, 9, QString());
    row("unknown total", 5, 1, 0, QString());
}

void ProgressTextsTest::time()
{
    QFETCH(const quint64, speed);
    QFETCH(const quint64, done);
    QFETCH(const quint64, total);
    QFETCH(const QString, number);
    const QString expected =
        number.isEmpty() ? QString() : QStringLiteral("Осталось примерно\t") + number;
    QCOMPARE(progressTimeText(speed, done, total), expected);
}

void ProgressTextsTest::percent_data()
{
    QTest::addColumn<quint64>("done");
    QTest::addColumn<quint64>("total");
    QTest::addColumn<int>("shown");
    QTest::newRow("nothing") << quint64(0) << quint64(7) << 0;
    QTest::newRow("truncated") << quint64(999) << quint64(1000) << 99;
    QTest::newRow("done") << quint64(7) << quint64(7) << 100;
    QTest::newRow("more than all") << quint64(largest) << quint64(1) << 100;
    QTest::newRow("unknown total") << quint64(0) << quint64(0) << 0;
    QTest::newRow("bytes of an unknown total") << quint64(5) << quint64(0) << 0;
}

void ProgressTextsTest::percent()
{
    QFETCH(const quint64, done);
    QFETCH(const quint64, total);
    QTEST(int(progressPercentage(done, total)), "shown");
}

void ProgressTextsTest::stages_data()
{
    QTest::addColumn<int>("stage");
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("text");
    const auto row = [](int stage, int state, const QString& text) {
        QTest::addRow("%d", stage) << stage << state << text;
    };
    row(0, 1, QStringLiteral("Скачивание новых файлов"));
    row(1, 1, QStringLiteral("Скачивание новых файлов"));
    row(2, 2, QStringLiteral("Распаковка архивов"));
    row(3, 4, QStringLiteral("Применение изменений"));
    row(4, 5, QStringLiteral("Нет активных загрузок"));
    row(-1, 5, QStringLiteral("Нет активных загрузок"));
}

void ProgressTextsTest::stages()
{
    QFETCH(const int, stage);
    const ProgressState state = progressStateOf(static_cast<UPD_INSTALLATION_STAGE>(stage));
    QTEST(static_cast<int>(state), "state");
    QTEST(progressStateText(state), "text");
    QCOMPARE(progressStateText(ProgressState::CHECKING_FILES),
             QStringLiteral("Проверка целостности файлов"));
    QCOMPARE(progressStateText(ProgressState::IDLE), QStringLiteral("Нет активных загрузок"));
}

QTEST_APPLESS_MAIN(ProgressTextsTest)
#include "progresstextstest.moc"
