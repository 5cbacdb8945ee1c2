#pragma once

#include "vl/src/error.h"
#include "vl/src/platform/file.h"

#include <filesystem>
#include <functional>
#include <string>

// Shared by the Windows sources of this folder only.
namespace vl {

/// The number of GetLastError(); 0 means success here.
using SystemError = unsigned long;

/// `path` as it is handed to the system: absolute, normalised and with the prefix that lifts the
/// limit of 260 characters and takes every name literally.
std::wstring systemPath(const std::filesystem::path& path);

/// "cannot what path: reason".
tl::unexpected<Error> systemFailure(const char* what, const std::filesystem::path& path,
                                    SystemError error,
                                    vlupd::UPD_RESULT code = vlupd::SYSTEM_CALL_ERROR);

/// Whether `error` says that there is nothing by that name.
bool isMissing(SystemError error);

/// Takes the attribute "read-only" away from the file or folder by that name, if it has it.
void allowWriting(const std::wstring& systemPath);

/// Whether a reparse point leads elsewhere (a symbolic link, a junction) and is not to be followed.
/// The others stand for compressed files, files of a cloud folder and the like.
bool isLink(unsigned long attributes, unsigned long tag);

/// Whether `error` means that another program (a virus scanner) has the file to itself, or still
/// has it open after it was removed. Such a program goes away again; a right that is lacking does
/// not come.
bool isShut(SystemError error);

/// Whether `error` means that another program (a running simulator, a virus scanner) has the file
/// open. Lack of a right looks the same where something is renamed or removed.
bool isHeld(SystemError error);

/// Repeats `call` with growing pauses, as long as `patience` says, until it gives an error that
/// `passes` does not know, or 0, and returns that. The patience `None` makes one call.
SystemError retriedWhile(bool (*passes)(SystemError), Patience patience,
                         const std::function<SystemError()>& call);

} // namespace vl
