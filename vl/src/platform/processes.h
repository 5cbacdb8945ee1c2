#pragma once

#include "vl/src/error.h"
#include "vl/src/platform/folder.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace vl {

/// The files of which a running program is looked for.
struct ProgramFiles
{
    /// The folder that they lie in, with all links resolved.
    std::filesystem::path folder;
    /// By what identifies a file: the path relative to the folder. Filled where listings tell ids.
    std::map<FileId, std::string> byId;
    /// By pathKey() of the path relative to the folder: the path. Filled where they do not.
    std::map<std::string, std::string> byPath;
};

struct RunningProgram
{
    std::string path; ///< of the listed file, relative to the folder
    std::uint64_t process = 0;
};

/// A process that runs one of `files`: its executable is one of them, or it is the interpreter that
/// one of them names in its first line ("#!", on Windows the command processor of a batch file) and
/// runs that script. A viewer with such a file, or a process that merely works in the folder, does
/// not count. Processes that may not be looked at are passed over. Nothing when none runs.
std::optional<RunningProgram> findRunning(const ProgramFiles& files);

/// The programs that have `path` open, for log lines ("scanner.exe (process 123)"); empty where the
/// system does not tell.
std::string holdersOf(const std::filesystem::path& path);

} // namespace vl
