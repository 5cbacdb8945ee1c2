#pragma once

#include "vl/src/formats/config.h"
#include "vl/src/error.h"
#include "vl/src/operation/operation.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace vl
{

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
    std::optional<std::chrono::steady_clock::time_point> deadline;
    std::function<bool()> cancelled; ///< asked often, from the thread of the call; may be empty
};

/// A release repository, wherever it lies: an http(s) or file address or a plain folder.
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
    /// that tells another one is refused. Runs on the calling thread and pumps `operation`.
    virtual Expected<void> fetchRange(const std::string& path, std::uint64_t fileSize,
                                      ByteRange range, Operation& operation, const Sink& sink) = 0;

    /// The address or folder, for log lines.
    virtual std::string describe() const = 0;
};

/// Opens what `config.repository` names; a relative folder lies below `root`.
Expected<std::unique_ptr<Source>> openSource(const Config& config,
                                             const std::filesystem::path& root);

} // namespace vl
