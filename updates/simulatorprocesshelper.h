#pragma once

#include <QProcess>

#include <filesystem>

class QDir;

/// The process of a simulator that is being started.
class SimulatorProcessHelper final : public QProcess
{
    Q_OBJECT

public:
    using QProcess::QProcess;
};

/// Starts the simulator's `executable` in `workingDirectory` as a process of its own. Before that
/// the file loses its write permissions. A relative path counts from the current directory.
/// Failures are ignored: nobody watches the started process.
void startSimulator(const std::filesystem::path& executable, const QDir& workingDirectory);
