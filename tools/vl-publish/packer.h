#pragma once

#include "tools/vl-publish/publisher.h"
#include "tools/vl-publish/releasefolder.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/platform/file.h"

#include <filesystem>
#include <vector>

namespace vl::publish {

/// Writes `files` of `folder` as a tar stream into `pack` and returns the manifest's pack and
/// files. A file smaller than a frame lies in one frame; a larger one begins a frame of its own
/// and is cut at multiples of the frame size. No file is held in memory whole.
Expected<Manifest> packRelease(const std::filesystem::path& folder,
                               const std::vector<ReleaseFile>& files, int level, File& pack,
                               Progress& progress);

} // namespace vl::publish
