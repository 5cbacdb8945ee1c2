#include "vl/src/formats/delta.h"
#include "vl/src/formats/frame.h"

#include <zstd.h>

#include <algorithm>
#include <bit>
#include <string>

namespace vl {
namespace {

/// A window that spans the largest frame and the largest base before it.
constexpr int windowLog = std::bit_width(maxDeltaRawSize + maxDeltaBaseSize - 1);
constexpr int indexLevel = 19;
/// From here on zstd looks for the best matches instead of quick ones.
constexpr int optimalLevel = 16;

std::string zstdWords(std::size_t code)
{
    return ZSTD_getErrorName(code);
}

} // namespace

struct DeltaEncoder::Context
{
    struct Free
    {
        void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
    };
    std::unique_ptr<ZSTD_CCtx, Free> zstd{ZSTD_createCCtx()};
};

DeltaEncoder::DeltaEncoder(int level) : m_context(std::make_unique<Context>())
{
    ZSTD_CCtx* zstd = m_context->zstd.get();
    ZSTD_CCtx_setParameter(zstd, ZSTD_c_compressionLevel, level);
    ZSTD_CCtx_setParameter(zstd, ZSTD_c_windowLog, windowLog);
    ZSTD_CCtx_setParameter(zstd, ZSTD_c_enableLongDistanceMatching, 1);
    if (level >= optimalLevel) {
        // The search reaches over the whole base, and long matches are worth looking for.
        ZSTD_CCtx_setParameter(zstd, ZSTD_c_chainLog, windowLog);
        ZSTD_CCtx_setParameter(zstd, ZSTD_c_hashLog, windowLog - 2);
        ZSTD_CCtx_setParameter(zstd, ZSTD_c_targetLength, 4096);
    }
    // A wrong base is noticed by nothing but the checksum.
    ZSTD_CCtx_setParameter(zstd, ZSTD_c_checksumFlag, 1);
    ZSTD_CCtx_setParameter(zstd, ZSTD_c_contentSizeFlag, 1);
}

DeltaEncoder::~DeltaEncoder() = default;
DeltaEncoder::DeltaEncoder(DeltaEncoder&&) noexcept = default;

Expected<std::vector<std::byte>> DeltaEncoder::encode(std::span<const std::byte> raw,
                                                      std::span<const std::byte> base)
{
    ZSTD_CCtx* zstd = m_context->zstd.get();
    std::vector<std::byte> frame(ZSTD_compressBound(raw.size()));
    std::size_t size = ZSTD_CCtx_refPrefix(zstd, base.data(), base.size());
    if (ZSTD_isError(size) == 0)
        size = ZSTD_compress2(zstd, frame.data(), frame.size(), raw.data(), raw.size());
    if (ZSTD_isError(size) != 0)
        return failure(vlupd::SYSTEM_CALL_ERROR, "compressing a delta frame: " + zstdWords(size));
    frame.resize(size);
    return frame;
}

struct DeltaDecoder::Context
{
    struct Free
    {
        void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
    };
    std::unique_ptr<ZSTD_DCtx, Free> zstd{ZSTD_createDCtx()};
};

DeltaDecoder::DeltaDecoder() : m_context(std::make_unique<Context>())
{
    ZSTD_DCtx_setParameter(m_context->zstd.get(), ZSTD_d_windowLogMax, windowLog);
}

DeltaDecoder::~DeltaDecoder() = default;
DeltaDecoder::DeltaDecoder(DeltaDecoder&&) noexcept = default;

Expected<void> DeltaDecoder::decode(std::span<const std::byte> compressed,
                                    std::span<const std::byte> base, std::span<std::byte> raw)
{
    ZSTD_DCtx* zstd = m_context->zstd.get();
    if (ZSTD_findFrameCompressedSize(compressed.data(), compressed.size()) != compressed.size())
        return failure(vlupd::BROKEN_OR_MISSING, "delta frame is incomplete or holds other bytes");
    std::size_t size = ZSTD_DCtx_refPrefix(zstd, base.data(), base.size());
    if (ZSTD_isError(size) == 0)
        size =
            ZSTD_decompressDCtx(zstd, raw.data(), raw.size(), compressed.data(), compressed.size());
    if (ZSTD_isError(size) != 0)
        return failure(vlupd::BROKEN_OR_MISSING,
                       "delta frame or the files below it are damaged: " + zstdWords(size));
    if (size != raw.size())
        return failure(vlupd::BROKEN_OR_MISSING, "delta frame holds fewer bytes than agreed");
    return {};
}

Expected<std::vector<std::byte>> compressDeltaIndex(std::string_view text)
{
    return FrameEncoder(indexLevel).encode(std::as_bytes(std::span(text)));
}

Expected<std::string> expandDeltaIndex(std::span<const std::byte> compressed)
{
    const unsigned long long size = ZSTD_getFrameContentSize(compressed.data(), compressed.size());
    if (size > maxDeltaIndexSize) // the codes for "unknown" and "error" are larger still
        return failure(vlupd::BROKEN_OR_MISSING, "delta index is damaged or too large");
    std::string text(static_cast<std::size_t>(size), '\0');
    FrameDecoder decoder;
    decoder.begin(size);
    std::size_t position = 0;
    auto done = decoder.feed(compressed, [&](std::span<const std::byte> raw) -> Expected<void> {
        std::ranges::copy(raw, std::as_writable_bytes(std::span(text)).begin() +
                                   static_cast<std::ptrdiff_t>(position));
        position += raw.size();
        return {};
    });
    if (done)
        done = decoder.end();
    if (!done)
        return failure("delta index", std::move(done).error());
    return text;
}

} // namespace vl
