#include "tools/sample-simulator/horizon.h"

#include <QApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QSettings>

namespace {

/// The version that the release carries beside the program, in the folder that it is started in.
QString releaseVersion()
{
    QFile file(QStringLiteral("version.txt"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return QStringLiteral("без версии");
    return QString::fromUtf8(file.readLine()).trimmed();
}

QString dataSummary()
{
    int files = 0;
    qint64 bytes = 0;
    for (QDirIterator entry(QStringLiteral("data"), QDir::Files, QDirIterator::Subdirectories);
         entry.hasNext();) {
        entry.next();
        ++files;
        bytes += entry.fileInfo().size();
    }
    if (files == 0)
        return QStringLiteral("Данные не найдены в папке ") +
               QDir::toNativeSeparators(QDir::currentPath());
    return QStringLiteral("Данные: файлов %1, %2 МБ. Стрелки — ручка, Esc — выход")
        .arg(files)
        .arg(bytes / 1048576);
}

/// The settings file that the release carries; the simulator only reads it.
void applySettings(Horizon& horizon)
{
    const QSettings settings(QStringLiteral("settings.ini"), QSettings::IniFormat);
    horizon.resize(settings.value(QStringLiteral("window/width"), horizon.width()).toInt(),
                   settings.value(QStringLiteral("window/height"), horizon.height()).toInt());
    horizon.setPitchInverted(settings.value(QStringLiteral("stick/invertPitch")).toBool());
}

} // namespace

int main(int argc, char* argv[])
{
    QApplication application(argc, argv);
    const QString caption = QStringLiteral("Учебный симулятор ") + releaseVersion();
    Horizon horizon(caption, dataSummary());
    horizon.setWindowTitle(caption);
    applySettings(horizon);
    horizon.show();
    return QApplication::exec();
}
