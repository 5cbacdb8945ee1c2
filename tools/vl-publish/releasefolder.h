#pragma once

#include "tools/vl-publish/publisher.h"
#include "vl/src/formats/manifest.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace vl::publish {

struct ReleaseFile
{
    std::string path; ///< relative to the folder, "/" separators
    std::uint64_t size = 0;
    std::uint32_t mode = 0644;
    FileRole role = FileRole::Ordinary;
};

/// The files of a release in byte order of their paths. Symbolic links, special files and paths
/// that a client would refuse are failures that name them; empty folders are noted.
Expected<std::vector<ReleaseFile>> scanReleaseFolder(const std::filesystem::path& folder,
                                                     Progress& progress);

/// Gives the files of `executables` (key -> path) the mode of programs, whatever the folder's file
/// system says. APP_DEFINITION_ERROR for a path that is not among `files`.
Expected<void> markExecutables(const std::map<std::string, std::string>& executables,
                               std::vector<ReleaseFile>& files);

/// Makes settings files of those that any of `globs` (glob.h) matches. A glob that matches no file
/// or one of `executables` is a failure that names it.
Expected<void> markSettings(const std::vector<std::string>& globs,
                            const std::map<std::string, std::string>& executables,
                            std::vector<ReleaseFile>& files);

} // namespace vl::publish
