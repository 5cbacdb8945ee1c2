#include "app/paths.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QFileInfo>
#include <QStringList>

#include <chrono>
#include <future>
#include <mutex>
#include <optional>
#include <utility>

namespace {

qint64 totalSize(const QStringList& files)
{
    qint64 size = 0;
    for (const QString& file : files)
        size += QFileInfo(file).size();
    return size;
}

} // namespace

QDir applicationDirectory()
{
    // The lock is never held while Qt is called: Qt may log, and the log asks for this directory.
    static std::mutex mutex;
    static std::optional<QDir> cached;

    std::optional<QDir> directory;
    {
        const std::lock_guard lock(mutex);
        directory = cached;
    }
    if (directory && hasEntries(*directory))
        return *directory;

    directory = QDir(QCoreApplication::applicationDirPath());
    using enum QFileDevice::Permission;
    directory->mkdir(directory->absolutePath(), ReadOwner | WriteOwner | ReadUser | WriteUser |
                                                    ReadGroup | WriteGroup | ReadOther |
                                                    WriteOther);
    const std::lock_guard lock(mutex);
    cached = directory;
    return *directory;
}

bool hasEntries(const QDir& directory)
{
    return !directory.isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System |
                              QDir::NoDotAndDotDot);
}

qint64 directorySize(const QString& path)
{
    if (!QDir(path).exists())
        return -1;
    // Asking for sizes takes most of the time, so a second thread takes its share; this one never
    // waits for it while there is something to do.
    constexpr qsizetype batchSize = 1024;
    qint64 size = 0;
    QStringList batch;
    std::future<qint64> helper;
    QDirIterator entries(path, QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        const QString entry = entries.next();
        if (entries.fileInfo().isFile())
            batch.append(entry);
        if (batch.size() < batchSize)
            continue;
        if (helper.valid() && helper.wait_for(std::chrono::seconds(0)) == std::future_status::ready)
            size += helper.get();
        if (helper.valid())
            size += totalSize(std::exchange(batch, {}));
        else
            helper = std::async(totalSize, std::exchange(batch, {}));
    }
    size += totalSize(batch);
    if (helper.valid())
        size += helper.get();
    return size;
}

QString humanReadableSize(qulonglong bytes)
{
    constexpr qulonglong kibibyte = 1024;
    constexpr qulonglong mebibyte = 1024 * kibibyte;
    constexpr qulonglong gibibyte = 1024 * mebibyte;
    const auto inUnit = [bytes](qulonglong unit, int decimals) {
        return QString::number(static_cast<double>(bytes) / static_cast<double>(unit), 'f',
                               decimals);
    };

    if (bytes <= kibibyte)
        return QString::number(bytes) % u" байт";
    if (bytes <= mebibyte)
        return inUnit(kibibyte, 1) % u" КБ";
    if (bytes <= gibibyte)
        return inUnit(mebibyte, 2) % u" МБ";
    return inUnit(gibibyte, 2) % u" ГБ";
}
