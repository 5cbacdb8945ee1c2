#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/hash.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/platform/file.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

namespace vl {

/// The files at the places `files` of the manifest's list, in the order in which a pack's stream
/// brings them.
std::vector<const ManifestFile*> filesInPackOrder(const Manifest& manifest,
                                                  const std::vector<std::size_t>& files);

/// Makes the folders of a version, which must not exist yet, and its files of 0 bytes.
Expected<void> prepareTree(const Manifest& manifest, const std::filesystem::path& tree);
/// Makes one file of a prepared tree; it must not exist.
Expected<File> createFile(const ManifestFile& file, const std::filesystem::path& tree);

/// Turns pieces of a pack's uncompressed stream into the files that the manifest says lie there;
/// what the stream holds between them (archive headers, padding) is passed over unread. Each
/// file's hash is checked as it is written. Used by one thread.
class TreeWriter final
{
public:
    /// `files` in pack order. Both must outlive the writer.
    TreeWriter(const std::vector<const ManifestFile*>& files, const std::filesystem::path& tree);

    /// Goes on at `rawOffset` of the stream. No file may be half written unless this is where the
    /// last write ended.
    void seek(std::uint64_t rawOffset);
    /// Takes the next bytes and returns how many of them belonged to files. BROKEN_OR_MISSING when
    /// a file does not come out as the manifest says.
    Expected<std::uint64_t> write(std::span<const std::byte> bytes);

private:
    Expected<void> writePiece(const ManifestFile& file, std::span<const std::byte> piece);

    const std::vector<const ManifestFile*>& m_files;
    const std::filesystem::path& m_tree;
    std::size_t m_next = 0;       ///< index of the first file that is not complete
    std::uint64_t m_position = 0; ///< in the uncompressed stream
    File m_file;
    std::uint64_t m_writeback = 0; ///< bytes of the open file that are on their way to the disk
    Hasher m_hasher;
};

} // namespace vl
