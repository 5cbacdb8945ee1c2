#include "vl/src/transport/foldersource.h"

#include "vl/src/platform/file.h"

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

namespace vl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t pieceSize = 256U << 10U;
constexpr std::chrono::milliseconds longestSleep{20};

// A repository that cannot be read is a failed transfer, whatever the system's reason.
tl::unexpected<Error> transferFailure(const Error& error)
{
    return failure(vlupd::RSYNC_ERROR, error.message);
}

// Waits until `bytes` since `start` are no faster than the limit. False when the operation ends.
bool keepLimit(Clock::time_point start, std::uint64_t bytes, std::uint64_t bytesPerSecond,
               const std::function<bool()>& goOn)
{
    if (bytesPerSecond == 0)
        return goOn();
    const std::chrono::duration<double> least(static_cast<double>(bytes) /
                                              static_cast<double>(bytesPerSecond));
    const auto due = start + std::chrono::duration_cast<Clock::duration>(least);
    bool goesOn = goOn();
    for (auto now = Clock::now(); goesOn && now < due; now = Clock::now()) {
        std::this_thread::sleep_for(std::min<Clock::duration>(due - now, longestSleep));
        goesOn = goOn();
    }
    return goesOn;
}

} // namespace

FolderSource::FolderSource(std::filesystem::path folder, std::uint64_t maxBytesPerSecond)
    : m_folder(std::move(folder)), m_maxBytesPerSecond(maxBytesPerSecond)
{
}

Expected<std::string> FolderSource::fetchDocument(const DocumentRequest& request)
{
    if (request.cancelled && request.cancelled())
        return failure(vlupd::UNKNOWN_ERROR, "ended by the caller");
    const std::filesystem::path path = fileAt(request.path);
    const Expected<File> file = File::open(path, File::Mode::Read);
    if (!file)
        return transferFailure(file.error());
    const Expected<std::uint64_t> size = file->size();
    if (!size)
        return transferFailure(size.error());
    if (*size > request.maxSize) {
        return failure(vlupd::CONTENT_LEN_ERROR,
                       toUtf8(path) + ": " + std::to_string(*size) + " bytes, at most " +
                           std::to_string(request.maxSize) + " were expected");
    }
    std::string text(static_cast<std::size_t>(*size), '\0');
    const Expected<std::size_t> got = file->readAt(0, std::as_writable_bytes(std::span(text)));
    if (!got)
        return transferFailure(got.error());
    text.resize(*got);
    return text;
}

Expected<void> FolderSource::fetchRange(const std::string& path, std::uint64_t fileSize,
                                        ByteRange range, Operation& operation, const Sink& sink,
                                        const std::stop_token& stop)
{
    const std::filesystem::path name = fileAt(path);
    const Expected<File> file = File::open(name, File::Mode::Read);
    if (!file)
        return transferFailure(file.error());
    const Expected<std::uint64_t> size = file->size();
    if (!size)
        return transferFailure(size.error());
    if (*size != fileSize) {
        return failure(vlupd::CONTENT_LEN_ERROR, toUtf8(name) + ": " + std::to_string(*size) +
                                                     " bytes, " + std::to_string(fileSize) +
                                                     " were expected");
    }
    // Small pieces under a limit, so that progress moves evenly.
    const std::uint64_t step =
        m_maxBytesPerSecond == 0
            ? pieceSize
            : std::clamp<std::uint64_t>(m_maxBytesPerSecond / 20, 1024, pieceSize);
    std::vector<std::byte> piece(static_cast<std::size_t>(step));
    const auto goOn = [&] { return !stop.stop_requested() && operation.pump(); };
    const auto start = Clock::now();
    for (std::uint64_t done = 0; done < range.size;) {
        const auto wanted = static_cast<std::size_t>(std::min(step, range.size - done));
        const std::span bytes = std::span(piece).first(wanted);
        const Expected<std::size_t> got = file->readAt(range.offset + done, bytes);
        if (!got)
            return transferFailure(got.error());
        if (*got != wanted) {
            return failure(vlupd::RSYNC_ERROR, toUtf8(name) + ": ends at byte " +
                                                   std::to_string(range.offset + done + *got));
        }
        if (Expected<void> taken = sink(bytes); !taken)
            return taken;
        done += wanted;
        if (!keepLimit(start, done, m_maxBytesPerSecond, goOn))
            return failure(vlupd::UNKNOWN_ERROR, toUtf8(name) + ": ended by the caller");
    }
    return {};
}

std::string FolderSource::describe() const
{
    return toUtf8(m_folder);
}

std::filesystem::path FolderSource::fileAt(const std::string& path) const
{
    return m_folder / fromUtf8(path);
}

} // namespace vl
