#pragma once

#include "vl/src/error.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

namespace vl {

/// Compresses frames. Each result is one complete zstd frame with content size and checksum.
class FrameEncoder final
{
public:
    /// `level`: zstd's compression level.
    explicit FrameEncoder(int level);
    ~FrameEncoder();
    FrameEncoder(FrameEncoder&&) noexcept;
    Expected<std::vector<std::byte>> encode(std::span<const std::byte> raw);

private:
    struct Context;
    std::unique_ptr<Context> m_context;
};

/// Decodes frames one at a time, in pieces, so that memory stays at the window's size. One decoder
/// per thread; the context is reused from frame to frame.
class FrameDecoder final
{
public:
    using Sink = std::function<Expected<void>(std::span<const std::byte> raw)>;

    FrameDecoder();
    ~FrameDecoder();
    FrameDecoder(FrameDecoder&&) noexcept;

    /// Starts a frame that must decode to exactly `rawSize` bytes.
    void begin(std::uint64_t rawSize);
    /// Takes the next compressed bytes and hands the decoded ones to `sink`, whose failure ends the
    /// call. BROKEN_OR_MISSING when the frame is damaged, needs a window above 64 MiB, holds more
    /// than the agreed bytes or is followed by anything.
    Expected<void> feed(std::span<const std::byte> compressed, const Sink& sink);
    /// BROKEN_OR_MISSING when the frame is incomplete or held fewer bytes than agreed.
    Expected<void> end();

private:
    struct Context;
    std::unique_ptr<Context> m_context;
};

} // namespace vl
