#pragma once

#include <QByteArray>
#include <QDir>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <map>
#include <string>

/// Scenarios that need fresh process-wide objects, or end the process, run in a child: a copy of
/// the test program in a new folder with a Cyrillic name, that child's application directory.
class ChildProgram final
{
public:
    ChildProgram();

    QDir folder() const { return QDir(m_folder.path()); }
    /// Runs `scenario` to its end. Returns what it wrote to its standard output; a failure to
    /// start, a crash and an exit code other than 0 are told in its place.
    QByteArray run(const QString& scenario, const QStringList& arguments = {}) const;

private:
    QTemporaryDir m_folder;
    QString m_program;
};

/// What the child does in place of the test, and its exit code. Gets the program's arguments: the
/// scenario's own stand from the third on.
using Scenario = int (*)(int& argc, char** argv);

/// The test program's main: runs a scenario when it was started as a child, `test` otherwise.
int runScenarioOr(int (*test)(int, char**), const std::map<std::string, Scenario>& scenarios,
                  int argc, char** argv);
