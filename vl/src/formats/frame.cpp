#include "vl/src/formats/frame.h"

#include <zstd.h>

#include <string>
#include <utility>

namespace vl {
namespace {

/// Frames that need a larger window (2^26 bytes = 64 MiB) are refused.
constexpr int maxWindowLog = 26;

tl::unexpected<Error> damaged(const std::string& what)
{
    return failure(vlupd::BROKEN_OR_MISSING, "frame " + what);
}

} // namespace

struct FrameEncoder::Context
{
    struct Free
    {
        void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
    };
    std::unique_ptr<ZSTD_CCtx, Free> zstd{ZSTD_createCCtx()};
};

FrameEncoder::FrameEncoder(int level) : m_context(std::make_unique<Context>())
{
    ZSTD_CCtx* zstd = m_context->zstd.get();
    ZSTD_CCtx_setParameter(zstd, ZSTD_c_compressionLevel, level);
    ZSTD_CCtx_setParameter(zstd, ZSTD_c_contentSizeFlag, 1);
    ZSTD_CCtx_setParameter(zstd, ZSTD_c_checksumFlag, 1);
}

FrameEncoder::~FrameEncoder() = default;
FrameEncoder::FrameEncoder(FrameEncoder&&) noexcept = default;

Expected<std::vector<std::byte>> FrameEncoder::encode(std::span<const std::byte> raw)
{
    std::vector<std::byte> frame(ZSTD_compressBound(raw.size()));
    const std::size_t size =
        ZSTD_compress2(m_context->zstd.get(), frame.data(), frame.size(), raw.data(), raw.size());
    if (ZSTD_isError(size) != 0)
        return failure(vlupd::SYSTEM_CALL_ERROR,
                       std::string("compressing a frame: ") + ZSTD_getErrorName(size));
    frame.resize(size);
    return frame;
}

struct FrameDecoder::Context
{
    struct Free
    {
        void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
    };
    std::unique_ptr<ZSTD_DCtx, Free> zstd{ZSTD_createDCtx()};
    std::vector<std::byte> output = std::vector<std::byte>(ZSTD_DStreamOutSize());
    std::uint64_t rawLeft = 0;
    bool complete = false;
};

FrameDecoder::FrameDecoder() : m_context(std::make_unique<Context>())
{
    ZSTD_DCtx_setParameter(m_context->zstd.get(), ZSTD_d_windowLogMax, maxWindowLog);
}

FrameDecoder::~FrameDecoder() = default;
FrameDecoder::FrameDecoder(FrameDecoder&&) noexcept = default;

void FrameDecoder::begin(std::uint64_t rawSize)
{
    ZSTD_DCtx_reset(m_context->zstd.get(), ZSTD_reset_session_only);
    m_context->rawLeft = rawSize;
    m_context->complete = false;
}

Expected<void> FrameDecoder::feed(std::span<const std::byte> compressed, const Sink& sink)
{
    Context& context = *m_context;
    ZSTD_inBuffer in{compressed.data(), compressed.size(), 0};
    bool outputFull = false; // then more may come of the bytes already taken in
    while (in.pos < in.size || outputFull) {
        if (context.complete)
            return damaged("is followed by other bytes");
        ZSTD_outBuffer out{context.output.data(), context.output.size(), 0};
        const std::size_t result = ZSTD_decompressStream(context.zstd.get(), &out, &in);
        if (ZSTD_isError(result) != 0)
            return damaged(std::string("is damaged: ") + ZSTD_getErrorName(result));
        if (out.pos > context.rawLeft)
            return damaged("holds more bytes than the manifest says");
        context.rawLeft -= out.pos;
        context.complete = result == 0;
        outputFull = !context.complete && out.pos == out.size;
        if (out.pos > 0) {
            if (auto taken = sink(std::span(context.output).first(out.pos)); !taken)
                return taken;
        }
    }
    return {};
}

Expected<void> FrameDecoder::end()
{
    if (!m_context->complete)
        return damaged("is incomplete");
    if (m_context->rawLeft != 0)
        return damaged("holds fewer bytes than the manifest says");
    return {};
}

} // namespace vl
