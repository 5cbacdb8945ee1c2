#include "updates/simulatorprocesshelper.h"

#include <QDir>
#include <QFile>

void startSimulator(const std::filesystem::path& executable, const QDir& workingDirectory)
{
    const QString program = QDir(executable).absolutePath();
    // Nobody may write to a program that runs; a failure does not keep it from starting.
    using enum QFileDevice::Permission;
    QFile::setPermissions(program, ReadOwner | ExeOwner | ReadUser | ExeUser | ReadGroup |
                                       ExeGroup | ReadOther | ExeOther);

    SimulatorProcessHelper simulator;
    simulator.setProgram(program);
    simulator.setWorkingDirectory(workingDirectory.absolutePath());
    simulator.startDetached();
}
