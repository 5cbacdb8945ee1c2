#include "vl/src/install/filehasher.h"

#include "vl/src/install/folderwalker.h"
#include "vl/src/operation/workers.h"

#include <algorithm>
#include <atomic>
#include <numeric>
#include <span>
#include <thread>

namespace vl {

namespace {

constexpr std::size_t readSize = 1U << 20U;
// Below this, files are taken together in the order of their paths, which opens folders once.
constexpr std::uint64_t largeFile = 4U << 20U;
constexpr std::size_t smallFilesAtOnce = 64;

HashResult hashOne(FolderWalker& folders, const HashJob& job, std::vector<std::byte>& piece,
                   Operation& operation, const std::stop_token& stop)
{
    const auto folder = folders.parentOf(job.path);
    if (!folder)
        return {{}, folder.error()};
    const auto file = (*folder)->openFile(nameOf(job.path), File::Mode::Read);
    if (!file)
        return {{}, file.error()};
    Hasher hasher;
    std::uint64_t done = 0;
    // One byte more than the file should have shows one that has grown.
    while (done <= job.size && !stop.stop_requested()) {
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), job.size - done + 1));
        const auto got = file->readAt(done, std::span(piece).first(wanted));
        if (!got)
            return {{}, got.error()};
        hasher.update(std::span(piece).first(*got));
        operation.addDone(*got);
        done += *got;
        if (*got < wanted)
            break;
    }
    return done == job.size ? HashResult{hasher.finish(), {}} : HashResult{};
}

} // namespace

Expected<std::vector<HashResult>> hashFiles(const Folder& top, const std::vector<HashJob>& jobs,
                                            Operation& operation)
{
    // The large ones first: one that is begun last would keep one processor busy alone.
    std::vector<std::size_t> order(jobs.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    const auto small = std::stable_partition(
        order.begin(), order.end(), [&](std::size_t job) { return jobs[job].size >= largeFile; });
    std::sort(order.begin(), small,
              [&](std::size_t a, std::size_t b) { return jobs[a].size > jobs[b].size; });
    const auto largeCount = static_cast<std::size_t>(small - order.begin());

    std::vector<HashResult> results(jobs.size());
    if (jobs.empty())
        return results;
    std::atomic<std::size_t> next{0};
    const std::size_t threads = std::clamp<std::size_t>(std::thread::hardware_concurrency(), 2, 8);
    Workers workers(threads, [&](const std::stop_token& stop) -> Expected<void> {
        FolderWalker folders(top);
        std::vector<std::byte> piece(readSize);
        for (;;) {
            std::size_t first = next.load();
            std::size_t count = 0;
            do
                count = first < largeCount ? 1 : smallFilesAtOnce;
            while (!next.compare_exchange_weak(first, first + count));
            if (first >= order.size() || stop.stop_requested())
                return {};
            for (std::size_t i = first; i < std::min(first + count, order.size()); ++i)
                results[order[i]] = hashOne(folders, jobs[order[i]], piece, operation, stop);
        }
    });
    if (auto finished = workers.finish(operation); !finished)
        return tl::unexpected(std::move(finished).error());
    return results;
}

Expected<bool> hashBytes(const File& file, std::uint64_t size, Hasher& hasher)
{
    std::vector<std::byte> piece(
        static_cast<std::size_t>(std::clamp<std::uint64_t>(size, 1, readSize)));
    for (std::uint64_t done = 0; done < size;) {
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), size - done));
        const auto bytes = std::span(piece).first(wanted);
        const auto got = file.readAt(done, bytes);
        if (!got)
            return tl::unexpected(got.error());
        if (*got != wanted)
            return false;
        hasher.update(bytes);
        done += wanted;
    }
    return true;
}

} // namespace vl
