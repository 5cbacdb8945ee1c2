#include "vl/src/transport/packdownload.h"

#include "vl/src/platform/file.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace vl {

namespace {

constexpr std::size_t pieceSize = 256U << 10U;

Error endedByCaller()
{
    return {vlupd::UNKNOWN_ERROR, "ended by the caller"};
}

/// Number of leading frames that fit into `bytes`, and where they end.
std::pair<std::size_t, std::uint64_t> wholeFrames(const Pack& pack, std::uint64_t bytes)
{
    std::size_t count = 0;
    std::uint64_t end = 0;
    for (const Frame& frame : pack.frames) {
        if (frame.size > bytes - end)
            break;
        end += frame.size;
        ++count;
    }
    return {count, end};
}

/// One download: the part file, the frame that is being filled and what has been counted.
class Download final
{
public:
    Download(Source& source, const Pack& pack, File file, Operation& operation,
             const FrameReady& frameReady)
        : m_source(source), m_pack(pack), m_path(packPath(pack.hash)), m_file(std::move(file)),
          m_operation(operation), m_frameReady(frameReady)
    {
    }

    Expected<void> run();

private:
    Expected<bool> isWhole(const Frame& frame);
    Expected<void> fetch(std::size_t endFrame);
    Expected<void> fetchOnce(std::size_t endFrame);
    Expected<void> take(std::span<const std::byte> bytes);
    Expected<void> finishFrame();

    Source& m_source;
    const Pack& m_pack;
    const std::string m_path;
    File m_file;
    Operation& m_operation;
    const FrameReady& m_frameReady;
    std::size_t m_present = 0;    ///< frames in the part file at the start
    std::size_t m_frame = 0;      ///< the first one that is not ready
    std::uint64_t m_position = 0; ///< of the next byte to arrive
    std::uint64_t m_counted = 0;  ///< bytes up to here stand in the progress
    bool m_damaged = false;       ///< the last transfer ended with a damaged frame
    Hasher m_hasher;
};

Expected<void> Download::run()
{
    const Expected<std::uint64_t> size = m_file.size();
    if (!size)
        return tl::unexpected(size.error());
    const auto [present, end] = wholeFrames(m_pack, *size);
    m_present = present;
    m_counted = end;
    if (*size > end) {
        if (Expected<void> cut = m_file.truncate(end); !cut)
            return cut;
    }
    while (m_frame < m_present) {
        const Frame& frame = m_pack.frames[m_frame];
        const Expected<bool> whole = isWhole(frame);
        if (!whole)
            return tl::unexpected(whole.error());
        if (*whole) {
            if (Expected<void> taken = m_frameReady(m_frame); !taken)
                return taken;
            ++m_frame;
            continue;
        }
        m_operation.say("download " + m_path + ": the part file is damaged in the frame at byte " +
                        std::to_string(frame.offset) + ", fetching it again");
        if (Expected<void> fetched = fetch(m_frame + 1); !fetched)
            return fetched;
    }
    return fetch(m_pack.frames.size());
}

Expected<bool> Download::isWhole(const Frame& frame)
{
    std::vector<std::byte> piece(pieceSize);
    m_hasher = Hasher();
    for (std::uint64_t done = 0; done < frame.size;) {
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(pieceSize, frame.size - done));
        const std::span bytes = std::span(piece).first(wanted);
        const Expected<std::size_t> got = m_file.readAt(frame.offset + done, bytes);
        if (!got)
            return tl::unexpected(got.error());
        m_hasher.update(bytes.first(*got));
        if (*got != wanted)
            return false;
        done += wanted;
        if (!m_operation.pump())
            return failure("download " + m_path, endedByCaller());
    }
    return m_hasher.finish() == frame.hash;
}

/// Fetches from the first frame that is not ready up to `endFrame`, a damaged frame twice.
Expected<void> Download::fetch(std::size_t endFrame)
{
    std::optional<std::size_t> fetchedAgain;
    while (m_frame < endFrame) {
        Expected<void> fetched = fetchOnce(endFrame);
        if (fetched)
            break;
        if (!m_damaged || fetchedAgain == m_frame)
            return fetched;
        fetchedAgain = m_frame;
        m_operation.say("download " + fetched.error().message + "; fetching it once more");
    }
    return {};
}

Expected<void> Download::fetchOnce(std::size_t endFrame)
{
    const Frame& first = m_pack.frames[m_frame];
    const Frame& last = m_pack.frames[endFrame - 1];
    m_position = first.offset;
    m_damaged = false;
    m_hasher = Hasher();
    const ByteRange range{first.offset, last.offset + last.size - first.offset};
    return m_source.fetchRange(m_path, m_pack.size, range, m_operation,
                               [this](std::span<const std::byte> bytes) { return take(bytes); });
}

Expected<void> Download::take(std::span<const std::byte> bytes)
{
    while (!bytes.empty()) {
        const Frame& frame = m_pack.frames[m_frame];
        const std::uint64_t missing = frame.offset + frame.size - m_position;
        const std::span piece =
            bytes.first(static_cast<std::size_t>(std::min<std::uint64_t>(missing, bytes.size())));
        if (Expected<void> written = m_file.writeAt(m_position, piece); !written)
            return written;
        m_hasher.update(piece);
        m_position += piece.size();
        bytes = bytes.subspan(piece.size());
        // What is fetched again has been counted before.
        if (m_position > m_counted) {
            m_operation.addDone(m_position - m_counted);
            m_counted = m_position;
        }
        if (piece.size() == missing) {
            if (Expected<void> finished = finishFrame(); !finished)
                return finished;
        }
    }
    return {};
}

Expected<void> Download::finishFrame()
{
    const Frame& frame = m_pack.frames[m_frame];
    if (m_hasher.finish() != frame.hash) {
        m_damaged = true;
        // What lies there next time should count for what it is worth.
        if (m_frame >= m_present) {
            if (Expected<void> cut = m_file.truncate(frame.offset); !cut)
                return cut;
        }
        return failure(vlupd::BROKEN_OR_MISSING,
                       m_source.describe() + '/' + m_path + ": the frame of " +
                           std::to_string(frame.size) + " bytes at byte " +
                           std::to_string(frame.offset) + " arrived damaged");
    }
    if (Expected<void> taken = m_frameReady(m_frame); !taken)
        return taken;
    ++m_frame;
    return {};
}

} // namespace

std::uint64_t resumableBytes(const std::filesystem::path& partFile, const Pack& pack)
{
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(partFile, error);
    return error ? 0 : wholeFrames(pack, size).second;
}

Expected<void> downloadPack(Source& source, const Pack& pack, const std::filesystem::path& partFile,
                            Operation& operation, const FrameReady& frameReady)
{
    if (Expected<void> made = makeDirectories(partFile.parent_path()); !made)
        return made;
    Expected<File> file = File::open(partFile, File::Mode::ReadWrite);
    if (!file)
        return tl::unexpected(std::move(file.error()));
    return Download(source, pack, std::move(*file), operation, frameReady).run();
}

} // namespace vl
