#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/listing.h"
#include "vl/src/install/records.h"
#include "vl/src/platform/processes.h"

#include <string>
#include <vector>

namespace vl {

/// The files of a version, by what findRunning() looks for.
ProgramFiles programFilesOf(const Manifest& manifest, const Folder& folder,
                            const FolderListing& listing);

/// The same for files that have left for the folder `aside`, by their numbers. Nothing where files
/// are known by their ids, which they keep.
ProgramFiles programFilesIn(const std::filesystem::path& aside, const Manifest& manifest,
                            const std::vector<FileNumber>& programs,
                            const std::vector<FileNumber>& out);

/// "bin/simulator (process 123)".
std::string describe(const RunningProgram& program);

} // namespace vl
