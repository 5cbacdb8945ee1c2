#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/filefinisher.h"
#include "vl/src/install/filesources.h"
#include "vl/src/install/framebuilder.h"
#include "vl/src/operation/operation.h"

#include <atomic>
#include <cstdint>
#include <vector>

namespace vl {

/// Copies files into `staged` (named by number), sharing the blocks where the volume can. Every
/// copy is hashed; one whose source cannot be read or is not what `target` says is removed again
/// and returned, ascending, because its bytes can come from elsewhere. Fails when a copy cannot be
/// written. `source`: opens the source of a copy. Counts the bytes on `written`.
Expected<std::vector<FileNumber>>
copyFiles(const Manifest& target, const std::vector<FileCopy>& copies, const OpenBaseFile& source,
          const Folder& staged, FileFinisher& finisher, std::atomic<std::uint64_t>& written,
          Operation& operation);

} // namespace vl
