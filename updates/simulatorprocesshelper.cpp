#include "updates/simulatorprocesshelper.h"

#include <QDir>
#include <QFile>

#include <string>

void startSimulator(const std::filesystem::path& executable, const QDir& workingDirectory)
{
    // Not through wstring(): that conversion depends on the locale and throws for "C".
    const std::u8string path = executable.u8string();
    const QString program =
        QDir(QString::fromUtf8(path.data(), static_cast<qsizetype>(path.size()))).absolutePath();
    // Nobody may write to a program that runs; a failure does not keep it from starting.
    using enum QFileDevice::Permission;
    QFile::setPermissions(program, ReadOwner | ExeOwner | ReadUser | ExeUser | ReadGroup |
                                       ExeGroup | ReadOther | ExeOther);

    SimulatorProcessHelper simulator;
    simulator.setProgram(program);
    simulator.setWorkingDirectory(workingDirectory.absolutePath());
    simulator.startDetached();
}
