#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/operation/operation.h"

#include <filesystem>
#include <string>
#include <vector>

namespace vl {

/// Compares the files of `manifest` below `subfolder` (empty: all) with what lies in `tree`:
/// existence, type, size and hash, never permissions, which starting a version changes. Files that
/// the manifest does not list are no damage. Returns one line per damaged file, sorted by path;
/// a failure when the comparison could not be made. NOT_FOUND when nothing lies below `subfolder`.
Expected<std::vector<std::string>> findDamage(const Manifest& manifest,
                                              const std::filesystem::path& tree,
                                              const std::string& subfolder, Operation& operation);

/// Brings the files of `manifest` in `tree` to the disk, counting their bytes on `operation`.
/// Durable after syncVolume().
Expected<void> flushTree(const Manifest& manifest, const std::filesystem::path& tree,
                         Operation& operation);

} // namespace vl
