#include "tests/support/childprogram.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

namespace {

constexpr const char* scenarioOption = "--scenario";

} // namespace

ChildProgram::ChildProgram()
    : m_folder(QDir::temp().filePath(QStringLiteral("папка XXXXXX"))),
      m_program(m_folder.filePath(QFileInfo(QCoreApplication::applicationFilePath()).fileName()))
{
    QFile::copy(QCoreApplication::applicationFilePath(), m_program);
}

QByteArray ChildProgram::run(const QString& scenario, const QStringList& arguments) const
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setWorkingDirectory(m_folder.path());
    process.start(m_program, QStringList{QLatin1String(scenarioOption), scenario} + arguments);
    if (!process.waitForFinished(-1))
        return "not started: " + process.errorString().toUtf8();
    if (process.exitStatus() == QProcess::CrashExit)
        return "crashed";
    if (process.exitCode() != 0)
        return "exit code " + QByteArray::number(process.exitCode());
    return process.readAllStandardOutput();
}

int runScenarioOr(int (*test)(int, char**), const std::map<std::string, Scenario>& scenarios,
                  int argc, char** argv)
{
    if (argc < 3 || std::string(argv[1]) != scenarioOption)
        return test(argc, argv);
    return scenarios.at(argv[2])(argc, argv);
}
