#pragma once

#include "tools/vl-publish/publisher.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace vl::publish {

struct ReleaseFile
{
    std::string path; ///< relative to the folder, "/" separators
    std::uint64_t size = 0;
    std::uint32_t mode = 0644;
};

/// The files of a release in byte order of their paths. Symbolic links, special files and paths
/// that a client would refuse are failures that name them; empty folders are noted.
Expected<std::vector<ReleaseFile>> scanReleaseFolder(const std::filesystem::path& folder,
                                                     Progress& progress);

} // namespace vl::publish
