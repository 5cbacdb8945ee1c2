#pragma once

#include "vl/src/error.h"
#include "vl/src/platform/file.h"

#include <filesystem>
#include <optional>
#include <string>

// Shared by the sources of this folder only.
namespace vl {

/// The error number that the test seam wants `operation` on `path` to fail with.
std::optional<int> fileFault(FileOperation operation, const std::filesystem::path& path);

/// The system's English words for an error number, whatever the locale.
std::string systemReason(int error);

/// "what path: reason".
tl::unexpected<Error> fileFailure(const char* what, const std::filesystem::path& path, int error,
                                  vlupd::UPD_RESULT code = vlupd::SYSTEM_CALL_ERROR);

} // namespace vl
