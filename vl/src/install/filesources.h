#pragma once

#include "vl/src/formats/manifest.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

// Where the bytes of a version's files may come from. Files are named by their places in the lists
// of manifests.
namespace vl {

/// A file whose bytes lie in another one.
struct FileCopy
{
    std::size_t target = 0;
    std::size_t source = 0;
};

struct FileSources
{
    std::vector<FileCopy> kept;       ///< from files of the older version
    std::vector<std::size_t> missing; ///< to be fetched; no two have the same contents
    std::vector<FileCopy> twins;      ///< from files of the same version, once these are there
};

/// Sorts the files of `target` that hold bytes. `base`: the older version, or null; `usable` tells
/// of one of its files whether it may be taken. Names do not matter, only sizes and hashes: renamed
/// and moved files are found.
FileSources findSources(const Manifest& target, const Manifest* base,
                        const std::function<bool(std::size_t baseFile)>& usable);

/// The frames of the full pack that hold bytes of `files`, ascending.
std::vector<std::size_t> framesOf(const Manifest& manifest, std::span<const std::size_t> files);

/// Compressed bytes of frames.
std::uint64_t sizeOf(std::span<const Frame> frames, std::span<const std::size_t> wanted);

} // namespace vl
