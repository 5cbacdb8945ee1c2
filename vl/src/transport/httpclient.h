#pragma once

#include "vl/src/platform/systemproxy.h"
#include "vl/src/transport/source.h"

#include <tl/expected.hpp>

#include <string>

namespace vl {

/// What a Content-Range header says: "bytes first-last/total".
struct ContentRange
{
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::optional<std::uint64_t> total{}; ///< nothing for "*"
};

/// Nothing for anything but a satisfied range in bytes.
std::optional<ContentRange> parseContentRange(std::string_view text);

/// What a server says before the body.
struct ResponseHead
{
    long status = 0;
    std::optional<std::uint64_t> length{}; ///< Content-Length
    std::optional<ContentRange> range{};   ///< Content-Range
    std::string entityTag{};
    bool isPage = false; ///< an HTML page
};

struct HttpRequest
{
    std::string address;
    std::optional<ByteRange> range{};
    std::string ifRange{}; ///< entity tag of the bytes that came before
    bool uncached = false;
    std::uint64_t maxBytesPerSecond = 0;
};

/// Who takes an answer. All are called on the thread of HttpClient::get.
struct HttpHandler
{
    /// Once for a good answer (200 or 206), before its body. A failure refuses the answer.
    std::function<Expected<void>(const ResponseHead&)> head;
    /// The body in pieces. False: enough, hang up. A failure ends the transfer.
    std::function<Expected<bool>(std::span<const std::byte>)> body;
    /// At least every 50 ms. A failure ends the transfer and is what get returns.
    std::function<Expected<void>()> pump;
};

/// Why a transfer failed.
struct HttpFailure
{
    Error error;
    bool transient = false; ///< a new attempt may help
    long status = 0;        ///< of the answer, 0 when there was none
    std::chrono::seconds retryAfter{0};
};

/// GET requests, one after the other, over connections that are kept alive. Follows at most 5
/// redirects, never from https to anything else. The only place that knows libcurl.
class HttpClient final
{
public:
    /// `proxy`: empty for the environment's or else the system's, which is asked here.
    HttpClient(const SourceOptions& options, const std::string& proxy);
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    tl::expected<void, HttpFailure> get(const HttpRequest& request, const HttpHandler& handler);

private:
    /// Empty: libcurl is to look into the environment.
    std::string proxyOf(const std::string& address) const;

    struct Handles;
    std::unique_ptr<Handles> m_handles;
    SourceOptions m_options;
    std::string m_proxy;
    SystemProxies m_systemProxies{};
};

} // namespace vl
