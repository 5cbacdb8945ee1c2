#include "vl/src/install/framebuilder.h"

#include "vl/src/install/filehasher.h"

#include <algorithm>
#include <string>
#include <utility>

namespace vl {

namespace {

// Delta frames are decoded whole, each with its base beside it: no more than this many at a time
// keep the memory bounded.
constexpr std::ptrdiff_t deltaFramesAtOnce = 2;
// Large files begin their way to the disk while the rest of them arrives.
constexpr std::uint64_t writebackStep = 8U << 20U;

/// Holds a place among the delta frames that are decoded.
class Room final
{
public:
    explicit Room(std::counting_semaphore<>& room) : m_room(room) { m_room.acquire(); }
    ~Room() { m_room.release(); }
    Room(const Room&) = delete;
    Room& operator=(const Room&) = delete;

private:
    std::counting_semaphore<>& m_room;
};

} // namespace

FrameBuilder::FrameBuilder(const Manifest& target, const std::vector<Frame>& frames,
                           const BuildPlan& plan, const Folder& staged, FileFinisher& finisher,
                           std::atomic<std::uint64_t>& written)
    : m_target(target), m_frames(frames), m_plan(plan), m_staged(staged), m_finisher(finisher),
      m_written(written), m_deltaRoom(deltaFramesAtOnce)
{
}

void FrameBuilder::useBase(const DeltaIndex& delta, OpenBaseFile base)
{
    m_delta = &delta;
    m_base = std::move(base);
}

Expected<void> FrameBuilder::take(std::size_t transfer, std::size_t frame,
                                  std::span<const std::byte> bytes)
{
    Bench& bench = m_benches.at(transfer);
    return m_delta != nullptr ? takeDeltaFrame(bench, frame, bytes)
                              : takePackFrame(bench, frame, bytes);
}

void FrameBuilder::close()
{
    for (Bench& bench : m_benches)
        bench.files.clear();
}

Expected<void> FrameBuilder::takePackFrame(Bench& bench, std::size_t frame,
                                           std::span<const std::byte> bytes)
{
    const std::vector<FramePart>& parts = m_plan.parts.at(frame);
    auto part = parts.begin();
    std::uint64_t position = 0;
    const auto sort = [&](std::span<const std::byte> raw) -> Expected<void> {
        const std::uint64_t end = position + raw.size();
        for (; part != parts.end() && part->rawOffset < end; ++part) {
            const std::uint64_t from = std::max(position, part->rawOffset);
            const std::uint64_t to = std::min(end, part->rawOffset + part->size);
            const auto piece = raw.subspan(static_cast<std::size_t>(from - position),
                                           static_cast<std::size_t>(to - from));
            if (auto written = write(bench, *part, from - part->rawOffset, piece); !written)
                return written;
            if (to < part->rawOffset + part->size)
                break;
        }
        position = end;
        return {};
    };
    bench.decoder.begin(m_frames[frame].rawSize);
    auto done = bench.decoder.feed(bytes, sort);
    if (done)
        done = bench.decoder.end();
    return done ? done
                : failure("unpack the frame at byte " + std::to_string(m_frames[frame].offset),
                          std::move(done).error());
}

Expected<void> FrameBuilder::takeDeltaFrame(Bench& bench, std::size_t frame,
                                            std::span<const std::byte> bytes)
{
    const Room room(m_deltaRoom);
    bench.raw.resize(static_cast<std::size_t>(m_frames[frame].rawSize));
    auto decoded = readBase(bench, frame);
    if (decoded)
        decoded = bench.deltaDecoder.decode(bytes, bench.base, bench.raw);
    for (const FramePart& part : m_plan.parts.at(frame)) {
        // A base that cannot be read or is not what it was: its files come by another way.
        auto done =
            decoded ? write(bench, part, 0,
                            std::span(bench.raw).subspan(static_cast<std::size_t>(part.rawOffset),
                                                         static_cast<std::size_t>(part.size)))
                    : fail(bench, part.file);
        if (!done)
            return done;
    }
    return {};
}

Expected<void> FrameBuilder::readBase(Bench& bench, std::size_t frame) const
{
    const std::vector<FilePart>& parts = m_delta->parts[frame].base;
    std::size_t size = 0;
    for (const FilePart& part : parts)
        size += static_cast<std::size_t>(part.size);
    bench.base.resize(size);
    std::span<std::byte> rest(bench.base);
    for (const FilePart& part : parts) {
        const auto file = m_base(part.file);
        if (!file)
            return tl::unexpected(file.error());
        const auto bytes = rest.first(static_cast<std::size_t>(part.size));
        const auto got = file->readAt(part.offset, bytes);
        if (!got)
            return tl::unexpected(got.error());
        if (*got != bytes.size())
            return failure(vlupd::BROKEN_OR_MISSING, "a file of the older version is too short");
        rest = rest.subspan(bytes.size());
    }
    return {};
}

// `skip`: bytes of the part that were written before.
Expected<void> FrameBuilder::write(Bench& bench, const FramePart& part, std::uint64_t skip,
                                   std::span<const std::byte> bytes)
{
    auto building = bench.files.find(part.file);
    if (building == bench.files.end()) {
        {
            const std::lock_guard lock(m_mutex);
            if (m_failed.contains(part.file))
                return {};
        }
        const auto begun = begin(bench, part);
        if (!begun)
            return tl::unexpected(begun.error());
        if (*begun == nullptr)
            return fail(bench, part.file);
        building = bench.files.find(part.file);
    }
    Building& file = building->second;
    if (file.size != part.fileOffset + skip)
        return failure(vlupd::BROKEN_OR_MISSING,
                       m_target.files[part.file].path + ": its parts do not come in order");
    if (auto written = file.file.writeAt(file.size, bytes); !written)
        return written;
    file.hasher.update(bytes);
    file.size += bytes.size();
    m_written += bytes.size();
    const std::uint64_t whole = m_target.files[part.file].size;
    if (file.size == whole || file.size - file.writeback >= writebackStep) {
        file.file.startWriteback(file.writeback, file.size - file.writeback);
        file.writeback = file.size;
    }
    return file.size == whole ? finish(bench, part.file) : Expected<void>();
}

// Null when what was there of a cut file is shorter than it was.
Expected<FrameBuilder::Building*> FrameBuilder::begin(Bench& bench, const FramePart& part)
{
    const std::string name = std::to_string(part.file);
    const bool isNew = part.fileOffset == 0;
    const auto open = [&] {
        return m_staged.openFile(name, isNew ? File::Mode::Create : File::Mode::ReadWrite,
                                 m_target.files[part.file].mode);
    };
    auto file = open();
    if (!file && isNew) { // what was cut may be there
        auto removed = m_staged.removeFile(name);
        file = removed ? open() : tl::unexpected(std::move(removed).error());
    }
    if (!file)
        return tl::unexpected(std::move(file).error());
    Building building;
    building.file = std::move(*file);
    building.size = part.fileOffset;
    if (!isNew) {
        auto whole = hashBytes(building.file, part.fileOffset, building.hasher);
        if (!whole)
            return tl::unexpected(std::move(whole).error());
        if (!*whole)
            return nullptr;
        if (auto cut = building.file.truncate(part.fileOffset); !cut)
            return tl::unexpected(std::move(cut).error());
        m_written += part.fileOffset;
    }
    building.writeback = building.size;
    return &bench.files.emplace(part.file, std::move(building)).first->second;
}

Expected<void> FrameBuilder::finish(Bench& bench, FileNumber file)
{
    Building building = std::move(bench.files.at(file));
    bench.files.erase(file);
    if (building.hasher.finish() != m_target.files[file].hash) {
        building.file = File();
        return fail(bench, file);
    }
    {
        const std::lock_guard lock(m_mutex);
        m_made.insert(file);
    }
    return m_finisher.finish(std::move(building.file));
}

Expected<void> FrameBuilder::fail(Bench& bench, FileNumber file)
{
    bench.files.erase(file);
    {
        const std::lock_guard lock(m_mutex);
        if (!m_failed.insert(file).second)
            return {};
    }
    return m_staged.removeFile(std::to_string(file));
}

} // namespace vl
