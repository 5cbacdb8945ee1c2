#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/hash.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vl {

/// Format version that this library writes and the only one it accepts.
inline constexpr std::uint64_t manifestFormat = 1;
/// Largest manifest that is fetched or read, in bytes.
inline constexpr std::uint64_t maxManifestSize = 32U << 20U;
/// Largest uncompressed frame that is accepted, in bytes; what vl-publish writes is smaller.
inline constexpr std::uint64_t maxFrameRawSize = 64U << 20U;
/// Aimed size of an uncompressed frame, in bytes. A file smaller than it never crosses a frame.
inline constexpr std::uint64_t frameRawSize = 16U << 20U;

/// One independent zstd frame of a pack.
struct Frame
{
    std::uint64_t offset = 0;    ///< of the first compressed byte in the pack
    std::uint64_t size = 0;      ///< compressed bytes
    std::uint64_t rawOffset = 0; ///< of the first byte in the uncompressed tar stream (derived)
    std::uint64_t rawSize = 0;   ///< uncompressed bytes
    Hash hash{};                 ///< of the compressed bytes, checked before decoding
};

/// A full pack: a .tar.zst made of independent frames that lie one behind the other.
struct Pack
{
    std::uint64_t size = 0; ///< bytes of the whole pack, the sum of its frames
    Hash hash{};            ///< of the whole pack; names it: packs/<hash>.tar.zst
    std::vector<Frame> frames;
};

/// The owner of a file once it is installed: the version (Ordinary), or the user, who may change it
/// (Settings).
enum class FileRole : std::uint8_t { Ordinary, Settings };

/// One file of a version. Its bytes lie at `rawOffset` of the pack's uncompressed stream.
struct ManifestFile
{
    std::string path; ///< relative, "/" separators, UTF-8
    std::uint64_t size = 0;
    std::uint32_t mode = 0644; ///< permission bits, 0644 or 0755
    Hash hash{};
    std::uint64_t rawOffset = 0;
    FileRole role = FileRole::Ordinary;
};

/// A delta pack that makes this version out of an older one (delta.h).
struct DeltaReference
{
    std::string from;            ///< key of the older version
    Hash fromManifest{};         ///< which files that key stood for
    std::uint64_t size = 0;      ///< bytes of the delta pack
    Hash hash{};                 ///< of the delta pack; names it
    std::uint64_t indexSize = 0; ///< bytes of its compressed index
    Hash indexHash{};            ///< of the compressed index; names it
};

/// Everything about one version that is needed to fetch, install, start and check it.
struct Manifest
{
    std::string version;
    std::map<std::string, std::string> executables; ///< key -> path of a listed file
    Pack pack;
    std::vector<DeltaReference> deltas;
    std::vector<ManifestFile> files; ///< sorted by path, byte order

    /// Bytes of all files.
    std::uint64_t installedSize() const;
    /// The listed file, or null.
    const ManifestFile* find(std::string_view path) const;
};

/// Reads and validates a manifest, event by event. UPDATER_DATA_ERROR for anything malformed:
/// wrong types, unknown format version, hostile or colliding paths (pathrules.h), sizes that
/// overflow, frames that overlap or leave gaps, files outside the frames, a version other than
/// `expectedVersion`. APP_DEFINITION_ERROR for an executable that is not listed or is a settings
/// file.
Expected<Manifest> readManifest(std::string_view text, std::string_view expectedVersion);

/// The manifest's text; equal manifests give equal bytes.
std::string writeManifest(const Manifest& manifest);

/// Where the repository keeps them, relative to its top, "/" separators.
std::string manifestPath(const Hash& manifestHash); ///< manifests/<hash>.json
std::string packPath(const Hash& packHash);         ///< packs/<hash>.tar.zst

} // namespace vl
