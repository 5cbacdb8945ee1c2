#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/operation/operation.h"
#include "vl/src/platform/file.h"

#include <filesystem>

namespace vl {

/// Moves the files that lie in `from` and that `manifest`, of the version in `from`, does not list
/// to the same places below `to`; they belong to the user. Where the new version has something of
/// that name, the user's file stands beside it as "<name>.user". Empty folders stay behind.
Expected<void> carryUserFiles(const std::filesystem::path& from, const Manifest& manifest,
                              const std::filesystem::path& to, Patience patience,
                              Operation& operation);

} // namespace vl
