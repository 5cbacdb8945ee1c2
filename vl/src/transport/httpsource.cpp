#include "vl/src/transport/httpsource.h"

#include "vl/src/transport/address.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace vl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds longestSleep{20};
// An attempt that brings less than this counts as fruitless.
constexpr std::uint64_t fruit = 64U << 10U;

Error pageFault()
{
    return {vlupd::UPDATER_DATA_ERROR, "the server answered a page, not a repository"};
}

tl::unexpected<Error> lengthFailure(std::uint64_t told, std::uint64_t expected)
{
    return failure(vlupd::CONTENT_LEN_ERROR, "the server tells a length of " +
                                                 std::to_string(told) + " bytes, " +
                                                 std::to_string(expected) + " were expected");
}

/// Puts a range together from as many answers as it takes.
class RangeAssembly final
{
public:
    RangeAssembly(std::uint64_t fileSize, ByteRange range, const Source::Sink& sink)
        : m_fileSize(fileSize), m_position(range.offset), m_end(range.offset + range.size),
          m_sink(sink)
    {
    }

    std::uint64_t position() const { return m_position; }
    bool isComplete() const { return m_position == m_end; }
    const std::string& entityTag() const { return m_entityTag; }
    bool changed() const { return m_changed; }

    /// What is still missing, or nothing when that is the whole file.
    std::optional<ByteRange> missing() const
    {
        if (m_position == 0 && m_end == m_fileSize)
            return std::nullopt;
        return ByteRange{m_position, m_end - m_position};
    }

    Expected<void> takeHead(const ResponseHead& head)
    {
        if (head.isPage)
            return tl::unexpected(pageFault());
        m_wholeFile = head.status == 200;
        m_skip = m_wholeFile ? m_position : 0;
        const std::uint64_t length = m_wholeFile ? m_fileSize : m_end - m_position;
        if (!m_wholeFile) {
            if (!head.range || head.range->first != m_position || head.range->last != m_end - 1 ||
                !missing()) {
                return failure(vlupd::RSYNC_ERROR,
                               "the server sent other bytes than those asked for");
            }
            if (head.range->total.value_or(m_fileSize) != m_fileSize)
                return lengthFailure(*head.range->total, m_fileSize);
        }
        if (head.length.value_or(length) != length)
            return lengthFailure(*head.length, length);
        // Only a strong tag promises equal bytes (RFC 9110, 8.8.1).
        const std::string tag = head.entityTag.starts_with('"') ? head.entityTag : std::string();
        m_changed = !m_entityTag.empty() && tag != m_entityTag;
        m_entityTag = tag;
        return {};
    }

    /// False when the rest of the answer is of no use.
    Expected<bool> takeBody(std::span<const std::byte> bytes)
    {
        const auto skipped =
            static_cast<std::size_t>(std::min<std::uint64_t>(m_skip, bytes.size()));
        m_skip -= skipped;
        bytes = bytes.subspan(skipped);
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), m_end - m_position));
        if (wanted > 0) {
            if (Expected<void> taken = m_sink(bytes.first(wanted)); !taken)
                return tl::unexpected(std::move(taken.error()));
            m_position += wanted;
        }
        if (m_wholeFile && m_end < m_fileSize)
            return !isComplete();
        if (bytes.size() > wanted) {
            return failure(vlupd::CONTENT_LEN_ERROR, "the server sends more than the " +
                                                         std::to_string(m_fileSize) +
                                                         " bytes of the file");
        }
        return true;
    }

private:
    std::uint64_t m_fileSize;
    std::uint64_t m_position; ///< of the next byte for the sink
    std::uint64_t m_end;
    const Source::Sink& m_sink;
    std::uint64_t m_skip = 0; ///< bytes of the answer that lie before the position
    bool m_wholeFile = false;
    bool m_changed = false;
    std::string m_entityTag;
};

} // namespace

HttpSource::HttpSource(const Config& config, const SourceOptions& options)
    : m_options(options), m_address(config.repository),
      m_maxBytesPerSecond(config.maxBytesPerSecond), m_client(options, config.proxy)
{
    while (m_address.ends_with('/'))
        m_address.pop_back();
}

Expected<std::string> HttpSource::fetchDocument(const DocumentRequest& request)
{
    const HttpRequest question{.address = addressOf(request.path), .uncached = request.uncached};
    const auto pump = [&request]() -> Expected<void> {
        if (request.cancelled && request.cancelled())
            return failure(vlupd::UNKNOWN_ERROR, "ended by the caller");
        if (request.deadline && Clock::now() >= *request.deadline)
            return failure(vlupd::RSYNC_ERROR, "not done within the time given");
        return {};
    };
    std::string text;
    const HttpHandler handler{
        .head = [&](const ResponseHead& head) -> Expected<void> {
            text.clear();
            if (head.isPage)
                return tl::unexpected(pageFault());
            if (head.status != 200)
                return failure(vlupd::RSYNC_ERROR, "the server sent a part instead of the whole");
            if (head.length.value_or(0) > request.maxSize)
                return lengthFailure(*head.length, request.maxSize);
            text.reserve(static_cast<std::size_t>(head.length.value_or(0)));
            return {};
        },
        .body = [&](std::span<const std::byte> bytes) -> Expected<bool> {
            if (bytes.size() > request.maxSize - text.size())
                return failure(vlupd::CONTENT_LEN_ERROR, "longer than the " +
                                                             std::to_string(request.maxSize) +
                                                             " bytes that were expected");
            text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
            return true;
        },
        .pump = pump,
    };
    for (int attempt = 1;; ++attempt) {
        const auto fetched = m_client.get(question, handler);
        if (fetched)
            break;
        if (!fetched.error().transient || attempt > request.retries)
            return tl::unexpected(fetched.error().error);
        if (Expected<void> waited = pause(attempt, fetched.error(), pump); !waited)
            return failure(withoutCredentials(question.address), std::move(waited.error()));
    }
    // No document of a repository begins with markup, whatever type the server gives it.
    const std::size_t start = text.find_first_not_of(" \t\r\n");
    if (start != std::string::npos && text[start] == '<')
        return failure(withoutCredentials(question.address), pageFault());
    return text;
}

Expected<void> HttpSource::fetchRange(const std::string& path, std::uint64_t fileSize,
                                      ByteRange range, Operation& operation, const Sink& sink,
                                      const std::stop_token& stop)
{
    if (range.offset > fileSize || range.size > fileSize - range.offset)
        return failure(vlupd::UPDATER_DATA_ERROR, path + ": a range beyond the end of the file");
    HttpRequest question{.address = addressOf(path), .maxBytesPerSecond = m_maxBytesPerSecond};
    const std::string shown = withoutCredentials(question.address);
    const auto pump = [&]() -> Expected<void> {
        if (stop.stop_requested() || !operation.pump())
            return failure(vlupd::UNKNOWN_ERROR, "ended by the caller");
        return {};
    };
    RangeAssembly assembly(fileSize, range, sink);
    const HttpHandler handler{
        .head = [&](const ResponseHead& head) -> Expected<void> {
            Expected<void> taken = assembly.takeHead(head);
            if (taken && assembly.changed()) {
                // The caller's hashes tell whether it is another file or only another copy.
                operation.say("fetch " + shown + ": the file changed on the server");
            }
            return taken;
        },
        .body = [&](std::span<const std::byte> bytes) { return assembly.takeBody(bytes); },
        .pump = pump,
    };
    std::uint64_t start = assembly.position();
    for (int attempt = 1; !assembly.isComplete(); ++attempt) {
        question.range = assembly.missing();
        question.ifRange = question.range ? assembly.entityTag() : std::string();
        const auto fetched = m_client.get(question, handler);
        HttpFailure failed;
        if (!fetched) {
            failed = fetched.error();
            if (assembly.isComplete() && failed.transient)
                break;
        } else if (!assembly.isComplete()) {
            failed = {{vlupd::RSYNC_ERROR, shown + ": the server sent too little"}, true};
        } else {
            break;
        }
        if (assembly.position() - start >= fruit)
            attempt = 1;
        start = assembly.position();
        if (!failed.transient || attempt > m_options.rangeRetries)
            return tl::unexpected(failed.error);
        operation.say("fetch " + failed.error.message + "; going on at byte " +
                      std::to_string(start) + ", new attempt " + std::to_string(attempt) + " of " +
                      std::to_string(m_options.rangeRetries));
        if (Expected<void> waited = pause(attempt, failed, pump); !waited)
            return failure(shown, std::move(waited.error()));
    }
    return {};
}

std::string HttpSource::describe() const
{
    return withoutCredentials(m_address);
}

std::string HttpSource::addressOf(const std::string& path) const
{
    return m_address + '/' + path;
}

Expected<void> HttpSource::pause(int attempt, const HttpFailure& failed,
                                 const std::function<Expected<void>()>& pump) const
{
    const std::chrono::milliseconds growing =
        m_options.firstPause * (1LL << std::min(attempt - 1, 16));
    const std::chrono::milliseconds asked = failed.retryAfter;
    const auto end = Clock::now() + std::min(std::max(growing, asked), m_options.longestPause);
    for (auto now = Clock::now(); now < end; now = Clock::now()) {
        if (Expected<void> goesOn = pump(); !goesOn)
            return goesOn;
        std::this_thread::sleep_for(std::min<Clock::duration>(end - now, longestSleep));
    }
    return pump();
}

} // namespace vl
