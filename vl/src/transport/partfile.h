#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/operation/operation.h"
#include "vl/src/platform/file.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

namespace vl {

/// What has arrived of a row of frames so far: each frame's bytes at their place in a file, and
/// beside it ("<name>.have") one byte for each frame that has arrived whole. Neither is trusted:
/// who goes on with a part file checks the frames' hashes. Frames are written from any thread, each
/// by one at a time.
class PartFile final
{
public:
    /// Opens or makes the pair for `frames`, which must outlive it.
    static Expected<PartFile> open(const std::filesystem::path& path,
                                   const std::vector<Frame>& frames);

    /// Whether frame `index` had arrived when the file was opened.
    bool hadArrived(std::size_t index) const { return m_arrived[index]; }
    /// Whether the bytes of frame `index` have its hash. UNKNOWN_ERROR when the operation ends.
    Expected<bool> isWhole(std::size_t index, Operation& operation) const;
    Expected<void> write(std::uint64_t position, std::span<const std::byte> bytes);
    /// Frame `index` has been written and verified.
    Expected<void> markArrived(std::size_t index);

private:
    const std::vector<Frame>* m_frames = nullptr;
    std::vector<bool> m_arrived;
    File m_file;
    File m_have;
};

/// Bytes of those of the `wanted` frames that the part file at `path` says it holds; verifies
/// nothing. 0 when there is no such file.
std::uint64_t arrivedBytes(const std::filesystem::path& path, const std::vector<Frame>& frames,
                           std::span<const std::size_t> wanted);

/// The file that lies beside the part file at `path`.
std::filesystem::path haveFile(const std::filesystem::path& path);

} // namespace vl
