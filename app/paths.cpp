#include "app/paths.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QFileInfo>

#include <mutex>
#include <optional>

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
    if (directory && directory->exists() && !directory->isEmpty())
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

qint64 directorySize(const QString& path)
{
    if (!QDir(path).exists())
        return -1;
    qint64 size = 0;
    QDirIterator entries(path, QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        entries.next();
        const QFileInfo entry = entries.fileInfo();
        if (entry.isFile())
            size += entry.size();
    }
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
