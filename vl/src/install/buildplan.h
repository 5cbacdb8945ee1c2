#pragma once

#include "vl/src/formats/delta.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/records.h"
#include "vl/src/transport/framedownload.h"

#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace vl {

/// A part of a frame's uncompressed bytes, and the place in a new file where it belongs.
struct FramePart
{
    std::uint64_t rawOffset = 0; ///< in the frame
    std::uint64_t size = 0;
    FileNumber file = 0;
    std::uint64_t fileOffset = 0;
};

/// The frames that make wanted files, and what each brings. The parts of a file come in order.
struct BuildPlan
{
    std::map<std::size_t, std::vector<FramePart>> parts; ///< by frame, in order of rawOffset
    std::vector<FrameChain> chains;                      ///< all frames of `parts`

    /// Compressed bytes of the frames.
    std::uint64_t size(std::span<const Frame> frames) const;
};

/// Bytes that lie there already, by file: the beginning of each.
using CutFiles = std::map<FileNumber, std::uint64_t>;

/// Makes `files` (none empty, no two with the same place in the pack) out of the full pack.
BuildPlan planFromPack(const Manifest& manifest, std::span<const FileNumber> files,
                       const CutFiles& cut);
/// Makes those of `files` that the delta makes.
BuildPlan planFromDelta(const DeltaIndex& index, std::span<const FileNumber> files,
                        const CutFiles& cut);

} // namespace vl
