#include "vl/src/install/filecopier.h"

#include "vl/src/operation/workers.h"

#include <algorithm>
#include <mutex>
#include <span>
#include <string>
#include <utility>

namespace vl {

namespace {

constexpr std::size_t copyThreads = 2;
constexpr std::size_t pieceSize = 1U << 20U;

// False when the source does not hold what the new file should.
Expected<bool> copyOne(const ManifestFile& file, const File& source, File& copy,
                       std::vector<std::byte>& piece, std::atomic<std::uint64_t>& written,
                       const std::stop_token& stop)
{
    const bool cloned = copy.cloneFrom(source);
    Hasher hasher;
    std::uint64_t done = 0;
    // One byte more than the file has shows one that has grown.
    while (done <= file.size && !stop.stop_requested()) {
        const auto got = (cloned ? copy : source).readAt(done, piece);
        if (!got)
            return false;
        if (*got == 0)
            break;
        const auto bytes = std::span(piece).first(*got);
        hasher.update(bytes);
        if (!cloned)
            if (auto put = copy.writeAt(done, bytes); !put)
                return tl::unexpected(std::move(put).error());
        done += *got;
        written += *got;
    }
    if (done != file.size || hasher.finish() != file.hash)
        return false;
    copy.startWriteback(0, file.size);
    return true;
}

} // namespace

Expected<std::vector<FileNumber>>
copyFiles(const Manifest& target, const std::vector<FileCopy>& copies, const OpenBaseFile& source,
          const Folder& staged, FileFinisher& finisher, std::atomic<std::uint64_t>& written,
          Operation& operation)
{
    std::vector<FileNumber> failed;
    if (copies.empty())
        return failed;
    std::mutex mutex;
    std::atomic<std::size_t> next{0};
    Workers workers(copyThreads, [&](const std::stop_token& stop) -> Expected<void> {
        std::vector<std::byte> piece(pieceSize);
        for (std::size_t i = next++; i < copies.size() && !stop.stop_requested(); i = next++) {
            const FileNumber number = copies[i].target;
            const ManifestFile& file = target.files[number];
            const std::string name = std::to_string(number);
            bool good = false;
            if (const auto from = source(copies[i].source)) {
                if (auto removed = staged.removeFile(name); !removed)
                    return removed;
                auto copy = staged.openFile(name, File::Mode::Create, file.mode);
                if (!copy)
                    return tl::unexpected(std::move(copy).error());
                const auto copied = copyOne(file, *from, *copy, piece, written, stop);
                if (!copied)
                    return tl::unexpected(copied.error());
                good = *copied;
                if (good)
                    if (auto finished = finisher.finish(std::move(*copy)); !finished)
                        return finished;
            }
            if (good || stop.stop_requested())
                continue;
            if (auto removed = staged.removeFile(name); !removed)
                return removed;
            const std::lock_guard lock(mutex);
            failed.push_back(number);
        }
        return {};
    });
    if (auto finished = workers.finish(operation); !finished)
        return tl::unexpected(std::move(finished).error());
    std::ranges::sort(failed);
    return failed;
}

} // namespace vl
