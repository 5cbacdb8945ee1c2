#include "ui/mainwindow/progresstexts.h"

namespace {

constexpr std::uint64_t kibibyte = 1024;
constexpr std::uint64_t mebibyte = 1024 * kibibyte;
constexpr std::uint64_t gibibyte = 1024 * mebibyte;

constexpr std::uint64_t secondsPerMinute = 60;
constexpr std::uint64_t secondsPerHour = 60 * secondsPerMinute;
constexpr std::uint64_t secondsPerDay = 24 * secondsPerHour;

QString fixedPoint(double value, int decimals)
{
    return QString::number(value, 'f', decimals);
}

} // namespace

ProgressState progressStateOf(vlupd::UPD_INSTALLATION_STAGE stage)
{
    switch (stage) {
    case vlupd::STAGE_DOWNLOADING:
    case vlupd::STAGE_DOWNLOADING_AGAIN:
        return ProgressState::DOWNLOADING;
    case vlupd::STAGE_UNPACKING:
        return ProgressState::UNPACKING;
    case vlupd::STAGE_APPLYING:
        return ProgressState::APPLYING_CHANGES;
    }
    return ProgressState::OTHER_STAGE;
}

QString progressStateText(ProgressState state)
{
    switch (state) {
    case ProgressState::DOWNLOADING:
        return QStringLiteral("Скачивание новых файлов");
    case ProgressState::UNPACKING:
        return QStringLiteral("Распаковка архивов");
    case ProgressState::CHECKING_FILES:
        return QStringLiteral("Проверка целостности файлов");
    case ProgressState::APPLYING_CHANGES:
        return QStringLiteral("Применение изменений");
    case ProgressState::IDLE:
    case ProgressState::OTHER_STAGE:
        break;
    }
    return QStringLiteral("Нет активных загрузок");
}

QString progressSizeText(std::uint64_t bytesDownloaded, std::uint64_t totalBytes)
{
    const auto exceeds = [=](std::uint64_t limit) {
        return bytesDownloaded > limit || totalBytes > limit;
    };
    const auto text = [=](std::uint64_t unit, int decimals, QStringView name) -> QString {
        return fixedPoint(double(bytesDownloaded) / double(unit), decimals) %
               QStringLiteral("\t/\t") % fixedPoint(double(totalBytes) / double(unit), decimals) %
               u'\t' % name;
    };
    if (exceeds(gibibyte))
        return text(gibibyte, 2, u"ГБ");
    if (exceeds(mebibyte))
        return text(mebibyte, 2, u"МБ");
    if (exceeds(kibibyte))
        return text(kibibyte, 1, u"КБ");
    return QString::number(bytesDownloaded) % QStringLiteral("\t/\t") %
           QString::number(totalBytes) % QStringLiteral("\tбайт");
}

QString progressTimeText(std::uint64_t bytesPerSecond, std::uint64_t bytesDownloaded,
                         std::uint64_t totalBytes)
{
    if (bytesPerSecond == 0 || totalBytes == 0)
        return {};
    const std::uint64_t bytesLeft = bytesDownloaded < totalBytes ? totalBytes - bytesDownloaded : 0;
    const std::uint64_t secondsLeft = bytesLeft / bytesPerSecond;
    const auto text = [](const QString& number, QStringView name) -> QString {
        return QStringLiteral("Осталось примерно\t") % number % name;
    };
    const auto inUnit = [secondsLeft](std::uint64_t unit) {
        return fixedPoint(double(secondsLeft) / double(unit), 0);
    };
    if (secondsLeft > secondsPerDay)
        return text(inUnit(secondsPerDay), u"\tдн");
    if (secondsLeft > secondsPerHour)
        return text(inUnit(secondsPerHour), u"\tч");
    if (secondsLeft > secondsPerMinute)
        return text(inUnit(secondsPerMinute), u"\tмин");
    return text(QString::number(secondsLeft), u"\tсек");
}

double progressPercentage(std::uint64_t bytesDownloaded, std::uint64_t totalBytes)
{
    if (totalBytes == 0)
        return 0.0;
    if (bytesDownloaded >= totalBytes)
        return 100.0;
    return double(bytesDownloaded) / double(totalBytes) * 100.0;
}
