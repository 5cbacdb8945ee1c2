#pragma once

#include "tools/vl-publish/publisher.h"
#include "vl/src/error.h"
#include "vl/src/formats/delta.h"
#include "vl/src/formats/manifest.h"

#include <filesystem>
#include <optional>

namespace vl::publish {

/// A version and the folder in which its files lie: by their paths, or flat by their numbers.
struct VersionFolder
{
    const Manifest& manifest;
    std::filesystem::path folder;
    bool isNumbered = false;

    std::filesystem::path file(std::size_t number) const;
};

struct DeltaRequest
{
    std::filesystem::path repository;
    VersionFolder base;
    Hash baseManifest{};
    VersionFolder target;
    int level = defaultDeltaLevel; ///< zstd's compression level
};

/// Writes the delta pack between two versions and its index into the repository. Nothing when the
/// newer one needs no bytes that the older one has not, or when the delta would save less than a
/// fifth of the full pack. Depends on the files alone; holds one frame and its base in memory for
/// each processor, never more.
Expected<std::optional<DeltaReference>> writeDelta(const DeltaRequest& request, Progress& progress);

} // namespace vl::publish
