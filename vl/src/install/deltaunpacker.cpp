#include "vl/src/install/deltaunpacker.h"

#include "vl/src/install/treewriter.h"
#include "vl/src/platform/file.h"

#include <algorithm>
#include <utility>

namespace vl {

namespace {

// Two frames with their bases, and no more, keep the memory bounded.
constexpr std::size_t deltaThreads = 2;
constexpr std::size_t hashPieceSize = 1U << 20U;

Expected<Hash> hashOfFile(const File& file, std::uint64_t size)
{
    std::vector<std::byte> piece(
        static_cast<std::size_t>(std::clamp<std::uint64_t>(size, 1, hashPieceSize)));
    Hasher hasher;
    for (std::uint64_t done = 0; done < size;) {
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), size - done));
        const auto bytes = std::span(piece).first(wanted);
        const auto got = file.readAt(done, bytes);
        if (!got)
            return tl::unexpected(got.error());
        if (*got != wanted)
            break;
        hasher.update(bytes);
        done += wanted;
    }
    return hasher.finish();
}

} // namespace

struct DeltaUnpacker::Buffers
{
    DeltaDecoder decoder;
    std::vector<std::byte> compressed;
    std::vector<std::byte> base;
    std::vector<std::byte> raw;
    File file; ///< the file of the older version that was read last, and its place there
    std::optional<std::size_t> place;
};

DeltaUnpacker::DeltaUnpacker(const DeltaIndex& index, const Manifest& target,
                             const std::vector<std::size_t>& files, const FilePlace& base,
                             const std::filesystem::path& partFile,
                             const std::filesystem::path& tree)
    : m_index(index), m_target(target), m_base(base), m_partFile(partFile), m_tree(tree),
      m_ready(index.frames.size())
{
    for (const std::size_t file : files)
        m_making[file].missing = target.files[file].size;
    for (std::size_t i = 0; i < index.parts.size(); ++i)
        if (std::ranges::any_of(index.parts[i].target,
                                [&](const FilePart& part) { return m_making.contains(part.file); }))
            m_frames.push_back(i);
    m_endOfFrames = m_frames.size();
}

void DeltaUnpacker::start()
{
    m_workers.emplace(deltaThreads, [this](const std::stop_token& stop) { return work(stop); });
}

Expected<void> DeltaUnpacker::frameReady(std::size_t index)
{
    {
        const std::lock_guard lock(m_mutex);
        m_ready[index] = true;
    }
    m_arrived.notify_all();
    return m_workers->state();
}

void DeltaUnpacker::endOfFrames()
{
    {
        const std::lock_guard lock(m_mutex);
        m_ended = true;
    }
    m_arrived.notify_all();
}

Expected<void> DeltaUnpacker::finish(Operation& operation)
{
    if (auto finished = m_workers->finish(operation); !finished)
        return finished;
    for (auto& [file, making] : m_making) {
        making.file.reset();
        if (making.done)
            continue;
        if (auto removed = removeFile(m_tree / fromUtf8(m_target.files[file].path)); !removed)
            return removed;
    }
    return {};
}

std::vector<std::size_t> DeltaUnpacker::made() const
{
    std::vector<std::size_t> files;
    for (const auto& [file, making] : m_making)
        if (making.done)
            files.push_back(file);
    return files;
}

Expected<void> DeltaUnpacker::work(const std::stop_token& stop)
{
    Buffers buffers;
    bool fromEnd = false;
    {
        const std::lock_guard lock(m_mutex);
        fromEnd = std::exchange(m_hasFirst, true);
    }
    while (const auto index = takeFrame(fromEnd)) {
        if (!waitForFrame(*index, stop)) {
            if (stop.stop_requested())
                return {};
            giveUp(*index);
            continue;
        }
        // A base that cannot be read or is not what it was, or a frame that does not fit it.
        if (!readFrame(*index, buffers)) {
            giveUp(*index);
            continue;
        }
        if (auto written = writeFrame(*index, buffers); !written)
            return written;
    }
    return {};
}

// One thread goes on from the first frame and the other back from the last, once that is there:
// two that write the same large file wait for one another.
std::optional<std::size_t> DeltaUnpacker::takeFrame(bool fromEnd)
{
    const std::lock_guard lock(m_mutex);
    if (m_nextFrame == m_endOfFrames)
        return std::nullopt;
    if (fromEnd && m_ready[m_frames[m_endOfFrames - 1]])
        return m_frames[--m_endOfFrames];
    return m_frames[m_nextFrame++];
}

bool DeltaUnpacker::waitForFrame(std::size_t index, const std::stop_token& stop)
{
    std::unique_lock lock(m_mutex);
    m_arrived.wait(lock, stop, [&] { return m_ready[index] || m_ended; });
    return m_ready[index] && !stop.stop_requested();
}

Expected<void> DeltaUnpacker::readFrame(std::size_t index, Buffers& buffers)
{
    const auto fill = [](const File& file, std::uint64_t offset,
                         std::span<std::byte> bytes) -> Expected<void> {
        const auto got = file.readAt(offset, bytes);
        if (!got)
            return tl::unexpected(got.error());
        if (*got != bytes.size())
            return failure(vlupd::BROKEN_OR_MISSING, "a file is too short");
        return {};
    };
    const Frame& frame = m_index.frames[index];
    buffers.compressed.resize(static_cast<std::size_t>(frame.size));
    const auto pack = File::open(m_partFile, File::Mode::Read);
    if (!pack)
        return tl::unexpected(pack.error());
    if (auto read = fill(*pack, frame.offset, buffers.compressed); !read)
        return read;
    std::size_t baseSize = 0;
    for (const FilePart& part : m_index.parts[index].base)
        baseSize += static_cast<std::size_t>(part.size);
    buffers.base.resize(baseSize);
    std::span<std::byte> rest(buffers.base);
    for (const FilePart& part : m_index.parts[index].base) {
        const auto bytes = rest.first(static_cast<std::size_t>(part.size));
        // Frames of a large file follow one another.
        if (buffers.place != part.file) {
            buffers.place.reset();
            auto opened = File::open(m_base(part.file), File::Mode::Read);
            if (!opened)
                return tl::unexpected(std::move(opened).error());
            buffers.file = std::move(*opened);
            buffers.place = part.file;
        }
        if (auto read = fill(buffers.file, part.offset, bytes); !read)
            return read;
        rest = rest.subspan(bytes.size());
    }
    buffers.raw.resize(static_cast<std::size_t>(frame.rawSize));
    return buffers.decoder.decode(buffers.compressed, buffers.base, buffers.raw);
}

Expected<void> DeltaUnpacker::writeFrame(std::size_t index, const Buffers& buffers)
{
    std::span<const std::byte> rest(buffers.raw);
    for (const FilePart& part : m_index.parts[index].target) {
        const auto bytes = rest.first(static_cast<std::size_t>(part.size));
        rest = rest.subspan(bytes.size());
        const auto file = fileToMake(part.file);
        if (!file)
            return tl::unexpected(file.error());
        if (*file == nullptr)
            continue;
        if (auto written = (*file)->writeAt(part.offset, bytes); !written)
            return written;
        if (auto settled = settle(part.file, bytes.size()); !settled)
            return settled;
    }
    return {};
}

// Null for a file that is not wanted or has failed.
Expected<std::shared_ptr<File>> DeltaUnpacker::fileToMake(std::size_t file)
{
    const std::lock_guard lock(m_mutex);
    const auto making = m_making.find(file);
    if (making == m_making.end() || making->second.failed)
        return nullptr;
    if (making->second.file == nullptr) {
        auto created = createFile(m_target.files[file], m_tree);
        if (!created)
            return tl::unexpected(std::move(created).error());
        if (m_target.files[file].size > maxDeltaRawSize)
            created->allowHoles(); // its end may be written first
        making->second.file = std::make_shared<File>(std::move(*created));
    }
    return making->second.file;
}

// Bytes of a file have been written. With the last of them it is judged.
Expected<void> DeltaUnpacker::settle(std::size_t file, std::uint64_t bytes)
{
    std::shared_ptr<File> complete;
    {
        const std::lock_guard lock(m_mutex);
        Making& making = m_making[file];
        making.missing -= bytes;
        if (making.missing == 0)
            complete = std::exchange(making.file, nullptr);
    }
    if (complete == nullptr)
        return {};
    const auto hash = hashOfFile(*complete, m_target.files[file].size);
    if (!hash)
        return tl::unexpected(hash.error());
    complete->startWriteback(0, m_target.files[file].size);
    const std::lock_guard lock(m_mutex);
    m_making[file].done = *hash == m_target.files[file].hash;
    m_making[file].failed = !m_making[file].done;
    return {};
}

// What frame `index` makes cannot be made.
void DeltaUnpacker::giveUp(std::size_t index)
{
    const std::lock_guard lock(m_mutex);
    for (const FilePart& part : m_index.parts[index].target) {
        const auto making = m_making.find(part.file);
        if (making == m_making.end())
            continue;
        making->second.failed = true;
        making->second.file.reset(); // there may be more of them than can be open
    }
}

} // namespace vl
