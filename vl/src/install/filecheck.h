#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/operation/operation.h"
#include "vl/src/platform/folder.h"

#include <string>
#include <vector>

namespace vl {

/// Compares the files of `manifest` below `subfolder` (empty: all) with what lies in `folder`
/// (null: the folder is gone): existence, type, size and hash, never permissions, which starting a
/// version changes. Settings files are the user's and are passed over. Files that the manifest does
/// not list are no damage. Returns one line per damaged file, sorted by path; a failure when the
/// comparison could not be made. NOT_FOUND when nothing is listed below `subfolder`.
Expected<std::vector<std::string>> findDamage(const Manifest& manifest, const Folder* folder,
                                              const std::string& subfolder, Operation& operation);

} // namespace vl
