#include "tools/vl-publish/packer.h"

#include "tools/vl-publish/packwriter.h"
#include "tools/vl-publish/tarheader.h"

#include <algorithm>
#include <cstring>

namespace vl::publish {
namespace fs = std::filesystem;
namespace {

class Packer final
{
public:
    Packer(int level, File& pack, std::uint64_t totalSize, Progress& progress)
        : m_writer(pack, level), m_totalSize(totalSize), m_progress(progress)
    {
    }

    Expected<ManifestFile> add(const fs::path& path, const ReleaseFile& file)
    {
        auto source = File::open(path, File::Mode::Read);
        if (!source)
            return tl::unexpected(std::move(source).error());
        const std::string header = tarHeader(file.path, file.size, file.mode);
        const std::uint64_t entrySize = header.size() + file.size + tarPadding(file.size);
        const bool large = file.size >= frameRawSize;
        if (!large && m_writer.frameSize() + entrySize > frameRawSize) {
            if (auto done = m_writer.cut(); !done)
                return tl::unexpected(std::move(done).error());
        }
        std::memcpy(m_writer.extend(header.size()).data(), header.data(), header.size());
        if (large) {
            if (auto done = m_writer.cut(); !done)
                return tl::unexpected(std::move(done).error());
        }
        ManifestFile packed{.path = file.path,
                            .size = file.size,
                            .mode = file.mode,
                            .hash = {},
                            .rawOffset = m_writer.rawSize(),
                            .role = file.role};
        Hasher hasher;
        if (auto done = copy(*source, file, hasher); !done)
            return tl::unexpected(std::move(done).error());
        packed.hash = hasher.finish();
        fillZero(tarPadding(file.size));
        return packed;
    }

    Expected<Pack> finish()
    {
        fillZero(2 * tarBlockSize); // the end of a tar stream
        return m_writer.finish();
    }

private:
    Expected<void> copy(const File& source, const ReleaseFile& file, Hasher& hasher)
    {
        for (std::uint64_t offset = 0; offset < file.size;) {
            const auto size = static_cast<std::size_t>(std::min(frameRawSize, file.size - offset));
            const std::span<std::byte> bytes = m_writer.extend(size);
            const auto read = source.readAt(offset, bytes);
            if (!read)
                return tl::unexpected(read.error());
            if (*read != size)
                return changed(file);
            hasher.update(bytes);
            offset += size;
            m_packedSize += size;
            m_progress.update("packing", m_packedSize, m_totalSize);
            if (size == frameRawSize) {
                if (auto done = m_writer.cut(); !done)
                    return done;
            }
        }
        const auto size = source.size();
        if (!size)
            return tl::unexpected(size.error());
        if (*size != file.size)
            return changed(file);
        return {};
    }

    static tl::unexpected<Error> changed(const ReleaseFile& file)
    {
        return failure(vlupd::SYSTEM_CALL_ERROR,
                       "the file \"" + file.path + "\" changed while it was read");
    }

    void fillZero(std::size_t size)
    {
        const std::span<std::byte> room = m_writer.extend(size);
        std::fill(room.begin(), room.end(), std::byte{0});
    }

    PackWriter m_writer;
    std::uint64_t m_packedSize = 0;
    std::uint64_t m_totalSize;
    Progress& m_progress;
};

} // namespace

Expected<Manifest> packRelease(const fs::path& folder, const std::vector<ReleaseFile>& files,
                               int level, File& pack, Progress& progress)
{
    std::uint64_t totalSize = 0;
    for (const ReleaseFile& file : files)
        totalSize += file.size;
    Packer packer(level, pack, totalSize, progress);
    Manifest manifest;
    for (const ReleaseFile& file : files) {
        auto packed = packer.add(folder / fromUtf8(file.path), file);
        if (!packed)
            return tl::unexpected(std::move(packed).error());
        manifest.files.push_back(std::move(*packed));
    }
    auto finished = packer.finish();
    if (!finished)
        return tl::unexpected(std::move(finished).error());
    manifest.pack = std::move(*finished);
    return manifest;
}

} // namespace vl::publish
