#include "vl/src/transport/partfile.h"

#include "vl/src/operation/workers.h"

#include <algorithm>
#include <utility>

namespace vl {

namespace {

constexpr std::size_t pieceSize = 256U << 10U;
constexpr std::byte arrivedMark{'1'};

std::vector<bool> marksOf(const File& have, std::size_t count)
{
    std::vector<std::byte> marks(count);
    const auto got = have.readAt(0, marks);
    std::vector<bool> arrived(count);
    for (std::size_t i = 0; i < got.value_or(0); ++i)
        arrived[i] = marks[i] == arrivedMark;
    return arrived;
}

} // namespace

Expected<PartFile> PartFile::open(const std::filesystem::path& path,
                                  const std::vector<Frame>& frames)
{
    if (auto made = makeDirectories(path.parent_path()); !made)
        return tl::unexpected(std::move(made).error());
    PartFile part;
    part.m_frames = &frames;
    auto file = File::open(path, File::Mode::ReadWrite);
    if (!file)
        return tl::unexpected(std::move(file).error());
    auto have = File::open(haveFile(path), File::Mode::ReadWrite);
    if (!have)
        return tl::unexpected(std::move(have).error());
    part.m_file = std::move(*file);
    part.m_file.allowHoles(); // frames lie at their places in the pack, however few are wanted
    part.m_have = std::move(*have);
    part.m_arrived = marksOf(part.m_have, frames.size());
    return part;
}

Expected<bool> PartFile::isWhole(std::size_t index, Operation& operation) const
{
    const Frame& frame = (*m_frames)[index];
    std::vector<std::byte> piece(pieceSize);
    Hasher hasher;
    for (std::uint64_t done = 0; done < frame.size;) {
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(pieceSize, frame.size - done));
        const std::span bytes = std::span(piece).first(wanted);
        const Expected<std::size_t> got = m_file.readAt(frame.offset + done, bytes);
        if (!got)
            return tl::unexpected(got.error());
        if (*got != wanted)
            return false;
        hasher.update(bytes);
        done += wanted;
        if (!operation.pump())
            return tl::unexpected(endedByCaller());
    }
    return hasher.finish() == frame.hash;
}

Expected<void> PartFile::write(std::uint64_t position, std::span<const std::byte> bytes)
{
    return m_file.writeAt(position, bytes);
}

Expected<void> PartFile::markArrived(std::size_t index)
{
    return m_have.writeAt(index, std::span(&arrivedMark, 1));
}

std::uint64_t arrivedBytes(const std::filesystem::path& path, const std::vector<Frame>& frames,
                           std::span<const std::size_t> wanted)
{
    const auto have = File::open(haveFile(path), File::Mode::Read);
    if (!have)
        return 0;
    const std::vector<bool> arrived = marksOf(*have, frames.size());
    std::uint64_t bytes = 0;
    for (const std::size_t index : wanted)
        bytes += arrived[index] ? frames[index].size : 0;
    return bytes;
}

std::filesystem::path haveFile(const std::filesystem::path& path)
{
    std::filesystem::path have = path;
    have += ".have";
    return have;
}

} // namespace vl
