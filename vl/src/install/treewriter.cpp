#include "vl/src/install/treewriter.h"

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>

namespace vl {

namespace {

// Large files begin their way to the disk while the rest of them arrives.
constexpr std::uint64_t writebackStep = 8U << 20U;

tl::unexpected<Error> wrongContents(const ManifestFile& file)
{
    return failure(vlupd::BROKEN_OR_MISSING,
                   file.path + " differs from the manifest after unpacking");
}

} // namespace

std::vector<const ManifestFile*> filesInPackOrder(const Manifest& manifest,
                                                  const std::vector<std::size_t>& files)
{
    std::vector<const ManifestFile*> ordered;
    ordered.reserve(files.size());
    for (const std::size_t file : files)
        ordered.push_back(&manifest.files[file]);
    std::ranges::sort(ordered, {}, [](const ManifestFile* file) { return file->rawOffset; });
    return ordered;
}

// Exclusive creation in a folder that was made for this installation: nothing that an archive or
// another program put there, a link least of all, is ever written through.
Expected<File> createFile(const ManifestFile& file, const std::filesystem::path& tree)
{
    return File::open(tree / fromUtf8(file.path), File::Mode::Create, file.mode);
}

Expected<void> prepareTree(const Manifest& manifest, const std::filesystem::path& tree)
{
    const auto existing = fileInfo(tree);
    if (!existing)
        return tl::unexpected(existing.error());
    if (*existing)
        return failure(vlupd::CREATE_DIR_ERROR, "cannot make " + toUtf8(tree) + ": it exists");
    std::set<std::string_view> folders{{}};
    for (const ManifestFile& file : manifest.files)
        if (const std::size_t slash = file.path.rfind('/'); slash != std::string::npos)
            folders.insert(std::string_view(file.path).substr(0, slash));
    for (const std::string_view folder : folders)
        if (auto made = makeDirectories(tree / fromUtf8(folder)); !made)
            return made;
    for (const ManifestFile& file : manifest.files) {
        if (file.size > 0)
            continue;
        if (file.hash != hashOf(std::string_view()))
            return wrongContents(file);
        if (auto created = createFile(file, tree); !created)
            return tl::unexpected(std::move(created).error());
    }
    return {};
}

TreeWriter::TreeWriter(const std::vector<const ManifestFile*>& files,
                       const std::filesystem::path& tree)
    : m_files(files), m_tree(tree)
{
}

void TreeWriter::seek(std::uint64_t rawOffset)
{
    if (rawOffset == m_position && m_file.isOpen())
        return;
    m_position = rawOffset;
    const auto first = std::ranges::partition_point(m_files, [&](const ManifestFile* file) {
        return file->rawOffset + file->size <= rawOffset;
    });
    m_next = static_cast<std::size_t>(first - m_files.begin());
    m_file = File();
}

Expected<std::uint64_t> TreeWriter::write(std::span<const std::byte> bytes)
{
    std::uint64_t written = 0;
    while (!bytes.empty() && m_next < m_files.size()) {
        const ManifestFile& file = *m_files[m_next];
        if (m_position < file.rawOffset) {
            const auto gap = std::min<std::uint64_t>(file.rawOffset - m_position, bytes.size());
            m_position += gap;
            bytes = bytes.subspan(static_cast<std::size_t>(gap));
            continue;
        }
        const std::uint64_t missing = file.rawOffset + file.size - m_position;
        const auto piece =
            bytes.first(static_cast<std::size_t>(std::min<std::uint64_t>(missing, bytes.size())));
        if (auto done = writePiece(file, piece); !done)
            return tl::unexpected(std::move(done).error());
        m_position += piece.size();
        written += piece.size();
        bytes = bytes.subspan(piece.size());
    }
    m_position += bytes.size();
    return written;
}

Expected<void> TreeWriter::writePiece(const ManifestFile& file, std::span<const std::byte> piece)
{
    const std::uint64_t offset = m_position - file.rawOffset;
    if (offset == 0) {
        auto created = createFile(file, m_tree);
        if (!created)
            return tl::unexpected(std::move(created).error());
        m_file = std::move(*created);
        m_hasher = Hasher();
        m_writeback = 0;
    }
    if (auto done = m_file.writeAt(offset, piece); !done)
        return done;
    m_hasher.update(piece);
    const std::uint64_t end = offset + piece.size();
    if (end == file.size || end - m_writeback >= writebackStep) {
        m_file.startWriteback(m_writeback, end - m_writeback);
        m_writeback = end;
    }
    if (end < file.size)
        return {};
    m_file = File();
    ++m_next;
    return m_hasher.finish() == file.hash ? Expected<void>() : wrongContents(file);
}

} // namespace vl
