#include "vl/src/transport/framedownload.h"

#include "vl/src/operation/workers.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <utility>

namespace vl {

namespace {

// A row of neighbouring frames is cut into this many requests at most, none of them smaller than
// this many bytes: connections that are as fast as each other then end at about the same time.
constexpr std::uint64_t requestsPerDownload = 16;
constexpr std::uint64_t smallestRequest = 32U << 20U;
// Frames that arrive lie in memory, and are lost if the process ends: this many bytes at the most.
constexpr std::uint64_t bytesOnTheWay = 32U << 20U;

/// Neighbouring frames, `first` up to but not with `end`.
struct Stretch
{
    std::size_t first = 0;
    std::size_t end = 0;
};

/// Whole chains that one connection fetches.
using Job = std::vector<Stretch>;

std::vector<Job> jobsOf(const FrameFile& file, const std::vector<FrameChain>& chains)
{
    std::uint64_t all = 0;
    for (const FrameChain& chain : chains)
        for (const std::size_t frame : chain)
            all += file.frames[frame].size;
    const std::uint64_t enough = std::max(all / requestsPerDownload, smallestRequest);
    std::vector<Job> jobs;
    std::uint64_t bytes = 0;
    for (const FrameChain& chain : chains) {
        const bool isNeighbour = !jobs.empty() && jobs.back().back().end == chain.front();
        if (!isNeighbour || bytes >= enough) {
            jobs.emplace_back();
            bytes = 0;
        }
        for (const std::size_t frame : chain) {
            Job& job = jobs.back();
            if (job.empty() || job.back().end != frame)
                job.push_back({frame, frame});
            job.back().end = frame + 1;
            bytes += file.frames[frame].size;
        }
    }
    return jobs;
}

std::uint64_t largestFrame(const FrameFile& file, const std::vector<FrameChain>& chains)
{
    std::uint64_t largest = 1;
    for (const FrameChain& chain : chains)
        for (const std::size_t frame : chain)
            largest = std::max(largest, file.frames[frame].size);
    return largest;
}

/// Fetches stretches over one connection, one after the other.
class Transfer final
{
public:
    /// `largest`: bytes of the largest frame. `take`: takes a verified frame. `stop`: asked for
    /// when another transfer has failed.
    Transfer(const FrameFile& file, std::uint64_t largest, Source& source, Operation& operation,
             std::stop_token stop,
             std::function<Expected<void>(std::size_t, std::span<const std::byte>)> take)
        : m_file(file), m_source(source), m_operation(operation), m_stop(std::move(stop)),
          m_take(std::move(take))
    {
        m_bytes.reserve(static_cast<std::size_t>(largest)); // once: pieces of memory add up
    }

    Expected<void> fetch(const Stretch& stretch);

private:
    Expected<void> fetchOnce(std::size_t end);
    Expected<void> receive(std::span<const std::byte> bytes);
    Expected<void> finishFrame();
    const Frame& frame() const { return m_file.frames[m_frame]; }

    const FrameFile& m_file;
    Source& m_source;
    Operation& m_operation;
    const std::stop_token m_stop;
    const std::function<Expected<void>(std::size_t, std::span<const std::byte>)> m_take;
    std::size_t m_frame = 0;        ///< the one that arrives
    std::vector<std::byte> m_bytes; ///< of it, so far
    std::uint64_t m_counted = 0;    ///< bytes up to here stand in the progress
    bool m_damaged = false;         ///< the last transfer ended with a damaged frame
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
        m_operation.say("download " + fetched.error().message + "; fetching it once more");
    }
    return {};
}

Expected<void> Transfer::fetchOnce(std::size_t end)
{
    const Frame& last = m_file.frames[end - 1];
    m_bytes.clear();
    m_damaged = false;
    const ByteRange range{frame().offset, last.offset + last.size - frame().offset};
    return m_source.fetchRange(
        m_file.path, m_file.size, range, m_operation,
        [this](std::span<const std::byte> bytes) { return receive(bytes); }, m_stop);
}

Expected<void> Transfer::receive(std::span<const std::byte> bytes)
{
    while (!bytes.empty()) {
        if (m_stop.stop_requested())
            return tl::unexpected(endedByCaller()); // hidden behind the failure that asked for it
        const std::uint64_t missing = frame().size - m_bytes.size();
        const std::span piece =
            bytes.first(static_cast<std::size_t>(std::min<std::uint64_t>(missing, bytes.size())));
        m_bytes.insert(m_bytes.end(), piece.begin(), piece.end());
        bytes = bytes.subspan(piece.size());
        // What is fetched again has been counted before.
        const std::uint64_t position = frame().offset + m_bytes.size();
        if (position > m_counted) {
            m_operation.addDone(position - m_counted);
            m_counted = position;
        }
        if (piece.size() == missing)
            if (Expected<void> finished = finishFrame(); !finished)
                return finished;
    }
    return {};
}

Expected<void> Transfer::finishFrame()
{
    if (hashOf(m_bytes) != frame().hash) {
        m_damaged = true;
        return failure(vlupd::BROKEN_OR_MISSING,
                       m_source.describe() + '/' + m_file.path + ": the frame of " +
                           std::to_string(frame().size) + " bytes at byte " +
                           std::to_string(frame().offset) + " arrived damaged");
    }
    if (Expected<void> taken = m_take(m_frame, m_bytes); !taken)
        return taken;
    m_bytes.clear();
    ++m_frame;
    return {};
}

} // namespace

Expected<void> downloadFrames(const OpenSource& openSource, const FrameFile& file,
                              const std::vector<FrameChain>& chains, Operation& operation,
                              const FrameSink& sink)
{
    const std::vector<Job> jobs = jobsOf(file, chains);
    if (jobs.empty())
        return {};
    std::atomic<std::size_t> nextJob{0};
    std::atomic<std::size_t> nextTransfer{0};
    const std::uint64_t largest = largestFrame(file, chains);
    const auto bounded = static_cast<std::size_t>(
        std::clamp<std::uint64_t>(bytesOnTheWay / largest, 1, maxTransfers));
    const std::size_t transfers = std::min(bounded, jobs.size());
    Workers workers(transfers, [&](const std::stop_token& stop) -> Expected<void> {
        const std::size_t number = nextTransfer++;
        auto source = openSource(transfers);
        if (!source)
            return tl::unexpected(std::move(source).error());
        Transfer transfer(file, largest, **source, operation, stop,
                          [&sink, number](std::size_t frame, std::span<const std::byte> bytes) {
                              return sink(number, frame, bytes);
                          });
        for (std::size_t i = nextJob++; i < jobs.size() && !stop.stop_requested(); i = nextJob++)
            for (const Stretch& stretch : jobs[i])
                if (auto done = transfer.fetch(stretch); !done)
                    return done;
        return {};
    });
    return workers.finish(operation);
}

} // namespace vl
