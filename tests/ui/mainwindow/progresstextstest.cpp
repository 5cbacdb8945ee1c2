#include "ui/mainwindow/progresstexts.h"

#include <QTest>

#include <cstdint>
#include <limits>

/// The texts beside the progress bar, at the limits of their units.
class ProgressTextsTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void size();
    void time();
    void percent();
    void stages();
};

namespace {

constexpr std::uint64_t kibibyte = 1024;
constexpr std::uint64_t mebibyte = 1024 * kibibyte;
constexpr std::uint64_t gibibyte = 1024 * mebibyte;
constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();

} // namespace

void ProgressTextsTest::size()
{
    QCOMPARE(progressSizeText(0, kibibyte), QStringLiteral("0\t/\t1024\tбайт"));
    QCOMPARE(progressSizeText(0, kibibyte + 1), QStringLiteral("0.0\t/\t1.0\tКБ"));
    QCOMPARE(progressSizeText(1536, mebibyte), QStringLiteral("1.5\t/\t1024.0\tКБ"));
    QCOMPARE(progressSizeText(0, mebibyte + 1), QStringLiteral("0.00\t/\t1.00\tМБ"));
    QCOMPARE(progressSizeText(0, gibibyte), QStringLiteral("0.00\t/\t1024.00\tМБ"));
    QCOMPARE(progressSizeText(gibibyte + 1, 0), QStringLiteral("1.00\t/\t0.00\tГБ"));
    QCOMPARE(progressSizeText(largest, largest),
             QStringLiteral("17179869184.00\t/\t17179869184.00\tГБ"));
}

void ProgressTextsTest::time()
{
    const QString left = QStringLiteral("Осталось примерно\t");
    QCOMPARE(progressTimeText(1, 0, 60), left + QStringLiteral("60\tсек"));
    QCOMPARE(progressTimeText(1, 0, 61), left + QStringLiteral("1\tмин"));
    QCOMPARE(progressTimeText(1, 0, 100), left + QStringLiteral("2\tмин"));
    QCOMPARE(progressTimeText(1, 0, 3600), left + QStringLiteral("60\tмин"));
    QCOMPARE(progressTimeText(1, 0, 3601), left + QStringLiteral("1\tч"));
    QCOMPARE(progressTimeText(1, 0, 86400), left + QStringLiteral("24\tч"));
    QCOMPARE(progressTimeText(1, 0, 86401), left + QStringLiteral("1\tдн"));
    QCOMPARE(progressTimeText(1, 0, largest), left + QStringLiteral("213503982334601\tдн"));
    QCOMPARE(progressTimeText(1, 10, 9), left + QStringLiteral("0\tсек"));
    QCOMPARE(progressTimeText(0, 1, 9), QString()); // nothing arrives
    QCOMPARE(progressTimeText(5, 1, 0), QString()); // unknown total
}

void ProgressTextsTest::percent()
{
    QCOMPARE(int(progressPercentage(999, 1000)), 99);
    QCOMPARE(int(progressPercentage(largest, 1)), 100);
    QCOMPARE(int(progressPercentage(5, 0)), 0);
}

void ProgressTextsTest::stages()
{
    const auto textOf = [](int stage) {
        return progressStateText(
            progressStateOf(static_cast<vlupd::UPD_INSTALLATION_STAGE>(stage)));
    };
    QCOMPARE(textOf(0), QStringLiteral("Скачивание новых файлов"));
    QCOMPARE(textOf(1), QStringLiteral("Скачивание новых файлов"));
    QCOMPARE(textOf(2), QStringLiteral("Распаковка архивов"));
    QCOMPARE(textOf(3), QStringLiteral("Применение изменений"));
    QCOMPARE(textOf(17), QStringLiteral("Нет активных загрузок"));
    QCOMPARE(progressStateText(ProgressState::CHECKING_FILES),
             QStringLiteral("Проверка целостности файлов"));
}

QTEST_APPLESS_MAIN(ProgressTextsTest)
#include "progresstextstest.moc"
