#pragma once

#include "vl/src/formats/manifest.h"
#include "vl/src/operation/operation.h"
#include "vl/src/transport/source.h"

#include <cstddef>
#include <filesystem>
#include <functional>

namespace vl {

/// Called in frame order, once per frame, when the frame's verified bytes are in the part file.
/// Runs on the calling thread; a failure ends the download.
using FrameReady = std::function<Expected<void>(std::size_t frameIndex)>;

/// Bytes of `pack` that `partFile` already holds as whole frames; verifies nothing. 0 when there
/// is no such file.
std::uint64_t resumableBytes(const std::filesystem::path& partFile, const Pack& pack);

/// Brings the whole pack into `partFile` (downloads/<hash>.tar.zst.part), going on from what
/// lies there: frames already present are verified, not trusted. Every frame is hashed as it
/// arrives; a damaged one is fetched once more and then fails with BROKEN_OR_MISSING, naming the
/// address and the offset. Counts bytes on `operation` (its stage has begun); bytes found on the
/// disk are counted by whoever began the stage. On any failure the verified frames stay.
Expected<void> downloadPack(Source& source, const Pack& pack, const std::filesystem::path& partFile,
                            Operation& operation, const FrameReady& frameReady);

} // namespace vl
