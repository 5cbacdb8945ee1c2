#pragma once

#include "vl/src/platform/ntfiles.h"

#include <filesystem>
#include <vector>

// Other processes. Shared by the Windows sources of this folder only.
namespace vl {

/// A handle for imageOf(); null when the process has ended or may not be looked at.
SystemHandle openProcess(DWORD id);
/// The path of the executable; empty when it is not told. `form`: 0 for the path that it has now,
/// PROCESS_NAME_NATIVE for the one, as of VOLUME_NAME_NT, that it had when the process began.
std::filesystem::path imageOf(HANDLE process, DWORD form = 0);
/// The words of the command line, the program first, without the quotes around each and around
/// several, as in `cmd.exe /c ""C:\a folder\start.bat" 1"`. Empty when it is not told.
std::vector<std::filesystem::path> argumentsOf(DWORD process);

} // namespace vl
