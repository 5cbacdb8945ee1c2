#include "vl/src/transport/framedownload.h"

#include "vl/src/operation/workers.h"
#include "vl/src/transport/partfile.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace vl {

namespace {

/// Neighbouring frames, `first` up to but not with `end`.
struct Stretch
{
    std::size_t first = 0;
    std::size_t end = 0;
};

std::vector<Stretch> stretchesOf(const std::vector<std::size_t>& frames)
{
    std::vector<Stretch> stretches;
    for (const std::size_t frame : frames) {
        if (stretches.empty() || stretches.back().end != frame)
            stretches.push_back({frame, frame});
        stretches.back().end = frame + 1;
    }
    return stretches;
}

/// What the transfers of one download share.
struct Download
{
    const FrameFile& file;
    PartFile part;
    Operation& operation;
    const FrameReady& frameReady;
};

/// Fetches stretches over one connection, one after the other.
class Transfer final
{
public:
    /// `stop`: asked for when another transfer of the download has failed.
    Transfer(Download& download, Source& source, std::stop_token stop)
        : m_download(download), m_source(source), m_stop(std::move(stop))
    {
    }

    Expected<void> fetch(const Stretch& stretch);

private:
    Expected<void> fetchOnce(std::size_t end);
    Expected<void> take(std::span<const std::byte> bytes);
    Expected<void> finishFrame();
    const Frame& frame() const { return m_download.file.frames[m_frame]; }

    Download& m_download;
    Source& m_source;
    const std::stop_token m_stop;
    std::size_t m_frame = 0;      ///< the first one that is not ready
    std::uint64_t m_position = 0; ///< of the next byte to arrive
    std::uint64_t m_counted = 0;  ///< bytes up to here stand in the progress
    bool m_damaged = false;       ///< the last transfer ended with a damaged frame
    Hasher m_hasher;
};

/// A damaged frame is fetched twice.
Expected<void> Transfer::fetch(const Stretch& stretch)
{
    m_frame = stretch.first;
    m_counted = frame().offset;
    std::optional<std::size_t> fetchedAgain;
    while (m_frame < stretch.end) {
        Expected<void> fetched = fetchOnce(stretch.end);
        if (fetched)
            break;
        if (!m_damaged || fetchedAgain == m_frame)
            return fetched;
        fetchedAgain = m_frame;
        m_download.operation.say("download " + fetched.error().message + "; fetching it once more");
    }
    return {};
}

Expected<void> Transfer::fetchOnce(std::size_t end)
{
    const Frame& last = m_download.file.frames[end - 1];
    m_position = frame().offset;
    m_damaged = false;
    m_hasher = Hasher();
    const ByteRange range{m_position, last.offset + last.size - m_position};
    return m_source.fetchRange(m_download.file.path, m_download.file.size, range,
                               m_download.operation,
                               [this](std::span<const std::byte> bytes) { return take(bytes); });
}

Expected<void> Transfer::take(std::span<const std::byte> bytes)
{
    if (m_stop.stop_requested())
        return tl::unexpected(endedByCaller()); // hidden behind the failure that asked for it
    while (!bytes.empty()) {
        const std::uint64_t missing = frame().offset + frame().size - m_position;
        const std::span piece =
            bytes.first(static_cast<std::size_t>(std::min<std::uint64_t>(missing, bytes.size())));
        if (Expected<void> written = m_download.part.write(m_position, piece); !written)
            return written;
        m_hasher.update(piece);
        m_position += piece.size();
        bytes = bytes.subspan(piece.size());
        // What is fetched again has been counted before.
        if (m_position > m_counted) {
            if (!m_download.part.hadArrived(m_frame))
                m_download.operation.addDone(m_position - m_counted);
            m_counted = m_position;
        }
        if (piece.size() == missing) {
            if (Expected<void> finished = finishFrame(); !finished)
                return finished;
        }
    }
    return {};
}

Expected<void> Transfer::finishFrame()
{
    if (m_hasher.finish() != frame().hash) {
        m_damaged = true;
        return failure(vlupd::BROKEN_OR_MISSING,
                       m_source.describe() + '/' + m_download.file.path + ": the frame of " +
                           std::to_string(frame().size) + " bytes at byte " +
                           std::to_string(frame().offset) + " arrived damaged");
    }
    if (Expected<void> marked = m_download.part.markArrived(m_frame); !marked)
        return marked;
    if (Expected<void> taken = m_download.frameReady(m_frame); !taken)
        return taken;
    ++m_frame;
    return {};
}

/// Hands on the wanted frames that are here and returns the others.
Expected<std::vector<std::size_t>> takePresent(Download& download,
                                               const std::vector<std::size_t>& wanted)
{
    std::vector<std::size_t> missing;
    for (const std::size_t index : wanted) {
        Expected<bool> whole = false;
        if (download.part.hadArrived(index)) {
            whole = download.part.isWhole(index, download.operation);
            if (!whole)
                return failure("download " + download.file.path, whole.error());
            if (!*whole)
                download.operation.say("download " + download.file.path +
                                       ": the part file is damaged in the frame at byte " +
                                       std::to_string(download.file.frames[index].offset) +
                                       ", fetching it again");
        }
        if (!*whole)
            missing.push_back(index);
        else if (Expected<void> taken = download.frameReady(index); !taken)
            return tl::unexpected(std::move(taken).error());
    }
    return missing;
}

Expected<void> fetchScattered(Download& download, const std::vector<Stretch>& stretches,
                              const OpenSource& openSource)
{
    std::atomic<std::size_t> next{0};
    const std::size_t transfers = std::min(maxTransfers, stretches.size());
    Workers workers(transfers, [&](const std::stop_token& stop) -> Expected<void> {
        auto source = openSource(transfers);
        if (!source)
            return tl::unexpected(std::move(source).error());
        Transfer transfer(download, **source, stop);
        for (std::size_t i = next++; i < stretches.size(); i = next++) {
            if (stop.stop_requested())
                break;
            if (auto done = transfer.fetch(stretches[i]); !done)
                return done;
        }
        return {};
    });
    return workers.finish(download.operation);
}

} // namespace

Expected<void> downloadFrames(const OpenSource& openSource, const FrameFile& file,
                              const std::vector<std::size_t>& wanted,
                              const std::filesystem::path& partFile, Operation& operation,
                              const FrameReady& frameReady)
{
    auto part = PartFile::open(partFile, file.frames);
    if (!part)
        return tl::unexpected(std::move(part).error());
    Download download{file, std::move(*part), operation, frameReady};
    const auto missing = takePresent(download, wanted);
    if (!missing)
        return tl::unexpected(missing.error());
    const std::vector<Stretch> stretches = stretchesOf(*missing);
    if (stretches.size() > 1)
        return fetchScattered(download, stretches, openSource);
    if (stretches.empty())
        return {};
    auto source = openSource(1);
    if (!source)
        return tl::unexpected(std::move(source).error());
    return Transfer(download, **source, {}).fetch(stretches.front());
}

} // namespace vl
