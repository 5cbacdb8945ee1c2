#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/config.h"
#include "vl/src/operation/operation.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stop_token>
#include <string>

namespace vl {

/// A piece of a file in the repository.
struct ByteRange
{
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

/// How hard a small document is tried for.
struct DocumentRequest
{
    std::string path;          ///< relative to the repository's top, "/" separators
    std::uint64_t maxSize = 0; ///< bytes; a longer document is refused as soon as it is known
    bool uncached = false;     ///< ask caches on the way to go back to the origin
    int retries = 3;
    std::optional<std::chrono::steady_clock::time_point> deadline{};
    std::function<bool()> cancelled{}; ///< asked often, from the thread of the call; may be empty
};

/// Patience of the transport. Tests shorten it.
struct SourceOptions
{
    std::chrono::milliseconds connectTimeout{15000};
    /// A transfer that brings less than 1 byte/s for this long is broken off and tried again.
    std::chrono::seconds stallTimeout{30};
    /// Pause before the first new attempt; it doubles from attempt to attempt.
    std::chrono::milliseconds firstPause{500};
    /// No pause is longer, whatever a Retry-After header asks for.
    std::chrono::milliseconds longestPause{30000};
    /// New attempts of fetchRange in a row that bring next to nothing.
    int rangeRetries = 5;
    /// File with the certificate authorities to trust (PEM); empty: the system's.
    std::string certificateAuthorities{};
};

/// A release repository, wherever it lies: an http(s) or file address or a plain folder.
///
/// Failures: RSYNC_ERROR when the transfer failed (after the retries that its cause deserves) or
/// there is no such file, CONTENT_LEN_ERROR for a wrong length, UPDATER_DATA_ERROR when something
/// other than a repository answers, UNKNOWN_ERROR when the caller ended it. Messages name the
/// address, without user name and password, and the cause. Used by one thread at a time.
class Source
{
public:
    /// Takes the next bytes of a range. A failure ends the transfer and is what fetchRange returns.
    using Sink = std::function<Expected<void>(std::span<const std::byte>)>;

    virtual ~Source() = default;

    /// A whole small document.
    virtual Expected<std::string> fetchDocument(const DocumentRequest& request) = 0;

    /// The bytes of `range` of the file at `path`, in order, each exactly once, however often the
    /// connection has to be made anew. `fileSize` is the signed size of the whole file: a server
    /// that tells another one is refused. Runs on the calling thread and pumps `operation`. A
    /// request of `stop` ends it as soon as the end of the operation does.
    virtual Expected<void> fetchRange(const std::string& path, std::uint64_t fileSize,
                                      ByteRange range, Operation& operation, const Sink& sink,
                                      const std::stop_token& stop) = 0;

    /// The address or folder, for log lines.
    virtual std::string describe() const = 0;
};

/// Opens what `config.repository` names; a relative folder lies below `root`. The speed limit of
/// the configuration holds for ranges, not for documents. UPDATER_DATA_ERROR for an address that
/// cannot be read or has another scheme.
Expected<std::unique_ptr<Source>> openSource(const Config& config,
                                             const std::filesystem::path& root,
                                             const SourceOptions& options = {});

} // namespace vl
