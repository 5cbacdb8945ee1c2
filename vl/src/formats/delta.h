#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/hash.h"
#include "vl/src/formats/manifest.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Delta packs: what makes the files of a newer version out of those of an older one. A delta pack
// is a row of zstd frames, each compressed against bytes of the older version ("patch-from"); its
// index tells for each frame which bytes these are and which files its own bytes belong to.
namespace vl {

inline constexpr std::uint64_t deltaFormat = 1;
/// Largest uncompressed delta frame and largest base of one, in bytes: both are held in memory.
inline constexpr std::uint64_t maxDeltaRawSize = 16U << 20U;
inline constexpr std::uint64_t maxDeltaBaseSize = 32U << 20U;
/// Largest uncompressed index, in bytes.
inline constexpr std::uint64_t maxDeltaIndexSize = 64U << 20U;

/// A part of a file, which is named by its place in a manifest's list of files.
struct FilePart
{
    std::size_t file = 0;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

/// What a delta frame is made from and what it makes.
struct DeltaFrame
{
    std::vector<FilePart> target; ///< of the newer version, one behind the other
    std::vector<FilePart> base;   ///< of the older version, one behind the other
};

struct DeltaIndex
{
    std::vector<Frame> frames;     ///< rawOffset counts the bytes of all frames before
    std::vector<DeltaFrame> parts; ///< of the frame at the same place
};

/// Reads and validates an uncompressed index against the two manifests it stands between.
/// UPDATER_DATA_ERROR for anything malformed: unknown format version, parts outside of files, files
/// whose parts do not come in order and in full, frames that are too large or do not fill the pack.
Expected<DeltaIndex> readDeltaIndex(std::string_view text, const DeltaReference& reference,
                                    const Manifest& base, const Manifest& target);
/// The index's text; equal indexes give equal bytes.
std::string writeDeltaIndex(const DeltaIndex& index);

/// The index as it lies in the repository: one zstd frame. Decoding fails with BROKEN_OR_MISSING
/// when it is damaged or larger than maxDeltaIndexSize.
Expected<std::vector<std::byte>> compressDeltaIndex(std::string_view text);
Expected<std::string> expandDeltaIndex(std::span<const std::byte> compressed);

/// Compresses delta frames. One encoder per thread.
class DeltaEncoder final
{
public:
    /// `level`: zstd's compression level.
    explicit DeltaEncoder(int level);
    ~DeltaEncoder();
    DeltaEncoder(DeltaEncoder&&) noexcept;

    Expected<std::vector<std::byte>> encode(std::span<const std::byte> raw,
                                            std::span<const std::byte> base);

private:
    struct Context;
    std::unique_ptr<Context> m_context;
};

/// Decodes delta frames. One decoder per thread.
class DeltaDecoder final
{
public:
    DeltaDecoder();
    ~DeltaDecoder();
    DeltaDecoder(DeltaDecoder&&) noexcept;

    /// Fills `raw`. BROKEN_OR_MISSING when the frame is damaged, `base` is not the one that it was
    /// made with, or it holds another number of bytes.
    Expected<void> decode(std::span<const std::byte> compressed, std::span<const std::byte> base,
                          std::span<std::byte> raw);

private:
    struct Context;
    std::unique_ptr<Context> m_context;
};

/// Where the repository keeps them, relative to its top.
std::string deltaPath(const Hash& deltaHash);      ///< deltas/<hash>.zst
std::string deltaIndexPath(const Hash& indexHash); ///< deltas/<hash>.index.zst

} // namespace vl
