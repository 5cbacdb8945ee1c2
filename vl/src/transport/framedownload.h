#pragma once

#include "vl/src/formats/manifest.h"
#include "vl/src/operation/operation.h"
#include "vl/src/transport/source.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vl {

/// A file in the repository that is a row of frames: a full pack or a delta pack.
struct FrameFile
{
    std::string path;       ///< relative to the repository's top
    std::uint64_t size = 0; ///< of the whole file, in bytes
    const std::vector<Frame>& frames;
};

/// Makes one more connection to the repository, one of `transfers` that share its speed limit. Any
/// thread.
using OpenSource = std::function<Expected<std::unique_ptr<Source>>(std::size_t transfers)>;
/// Called once per frame when its verified bytes are in the part file, in frame order within a
/// stretch of neighbouring frames. Any thread; a failure ends the download.
using FrameReady = std::function<Expected<void>(std::size_t frameIndex)>;

/// Transfers that run at a time where frames lie scattered; neighbouring frames are one transfer.
inline constexpr std::size_t maxTransfers = 4;

/// Brings the frames `wanted` (ascending) of `file` into `partFile`, going on from what lies there:
/// frames already present are verified, not trusted. Every frame is hashed as it arrives; a damaged
/// one is fetched once more and then fails with BROKEN_OR_MISSING, naming the address and the
/// offset. Counts bytes on `operation` (its stage has begun) but those of the frames that
/// arrivedBytes() has told of. On any failure the verified frames stay. Runs on the calling thread
/// and pumps `operation`.
Expected<void> downloadFrames(const OpenSource& openSource, const FrameFile& file,
                              const std::vector<std::size_t>& wanted,
                              const std::filesystem::path& partFile, Operation& operation,
                              const FrameReady& frameReady);

} // namespace vl
