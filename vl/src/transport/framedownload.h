#pragma once

#include "vl/src/formats/manifest.h"
#include "vl/src/operation/operation.h"
#include "vl/src/transport/source.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
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

/// Frames that one thread has to take one after the other, ascending: files run across their
/// borders.
using FrameChain = std::vector<std::size_t>;

/// Takes the verified bytes of a frame. Called on the thread of connection `transfer` (0 ...
/// maxTransfers - 1), for the frames of a chain in order. A failure ends the download.
using FrameSink = std::function<Expected<void>(std::size_t transfer, std::size_t frame,
                                               std::span<const std::byte> bytes)>;

/// Connections that run at a time.
inline constexpr std::size_t maxTransfers = 4;

/// Fetches the frames of `chains` (ascending) over several connections, each frame whole into
/// memory, where it is verified by its hash before `sink` takes it. Neighbouring frames are one
/// request as far as they can be. A damaged frame is fetched once more and then fails with
/// BROKEN_OR_MISSING, naming the address and the offset. Counts the bytes on `operation`, which is
/// pumped on the calling thread.
Expected<void> downloadFrames(const OpenSource& openSource, const FrameFile& file,
                              const std::vector<FrameChain>& chains, Operation& operation,
                              const FrameSink& sink);

} // namespace vl
