#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/frame.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/platform/file.h"

#include <cstddef>
#include <cstdint>
#include <future>
#include <span>
#include <vector>

namespace vl::publish {

/// Writes a pack: an uncompressed stream goes in, is cut into frames where the caller says, and
/// the frames are compressed on all processors. What comes out depends on the stream, the cuts and
/// the level alone. Holds a few frames in memory, never more.
class PackWriter final
{
public:
    /// Writes to `file` from its beginning; it must outlive the writer.
    PackWriter(File& file, int level);

    /// Room for the next `size` bytes of the current frame, to be filled before the next call.
    std::span<std::byte> extend(std::size_t size);
    /// Bytes of the current frame so far.
    std::size_t frameSize() const { return m_raw.size(); }
    /// Bytes of the whole stream so far.
    std::uint64_t rawSize() const { return m_rawCut + m_raw.size(); }
    /// Ends the current frame, if there is anything in it.
    Expected<void> cut();
    /// Ends the pack and tells what it became.
    Expected<Pack> finish();

private:
    struct Compressed
    {
        std::vector<std::byte> bytes;
        Hash hash{};
    };
    /// One frame in the works. The future comes last, so that it is waited for first.
    struct Slot
    {
        FrameEncoder encoder;
        std::vector<std::byte> raw;
        std::future<Expected<Compressed>> result;
    };

    Expected<void> writeOldest();

    File& m_file;
    std::vector<std::byte> m_raw;
    std::uint64_t m_rawCut = 0;
    std::size_t m_started = 0; ///< frames handed to a slot
    std::size_t m_written = 0; ///< frames written
    Hasher m_hasher;
    Pack m_pack;
    std::vector<Slot> m_slots; ///< a ring
};

} // namespace vl::publish
