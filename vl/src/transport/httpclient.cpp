#include "vl/src/transport/httpclient.h"

#include "vl/src/transport/address.h"
#include "vl/src/transport/httpfailure.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <utility>

namespace vl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int maxRedirects = 5;
constexpr int pollMilliseconds = 40;
constexpr std::chrono::milliseconds pumpInterval{20};
constexpr long bufferSize = 256L << 10L;
// Bytes of an error page or a redirect that are read to keep the connection; more is not worth it.
constexpr std::uint64_t maxIgnoredBody = 64U << 10U;

struct HeaderListDeleter
{
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListDeleter>;

void append(HeaderList& list, const std::string& line)
{
    curl_slist* longer = curl_slist_append(list.get(), line.c_str());
    if (longer != nullptr) {
        static_cast<void>(list.release());
        list.reset(longer);
    }
}

template <class T> T information(CURL* easy, CURLINFO which)
{
    T value{};
    curl_easy_getinfo(easy, which, &value);
    return value;
}

std::string header(CURL* easy, const char* name)
{
    curl_header* found = nullptr;
    if (curl_easy_header(easy, name, 0, CURLH_HEADER, -1, &found) != CURLHE_OK)
        return {};
    return found->value;
}

std::string lowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

ResponseHead readHead(CURL* easy)
{
    ResponseHead head;
    head.status = information<long>(easy, CURLINFO_RESPONSE_CODE);
    const auto length = information<curl_off_t>(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T);
    if (length >= 0)
        head.length = static_cast<std::uint64_t>(length);
    head.range = parseContentRange(header(easy, "Content-Range"));
    head.entityTag = header(easy, "ETag");
    head.isPage = lowerCase(header(easy, "Content-Type")).starts_with("text/html");
    return head;
}

/// One request and its answer.
struct Transfer
{
    CURL* easy = nullptr;
    const HttpHandler* handler = nullptr;
    bool headRead = false;
    bool isGood = false; ///< the body is wanted
    bool enough = false;
    std::uint64_t ignored = 0;
    std::optional<Error> refusal{};
    Clock::time_point pumped = Clock::now();

    bool pump()
    {
        pumped = Clock::now();
        if (Expected<void> goesOn = handler->pump(); !goesOn) {
            refusal = std::move(goesOn.error());
            return false;
        }
        return true;
    }

    bool takeHead()
    {
        headRead = true;
        const ResponseHead head = readHead(easy);
        isGood = head.status == 200 || head.status == 206;
        if (!isGood)
            return true;
        const std::string encoding = lowerCase(header(easy, "Content-Encoding"));
        if (!encoding.empty() && encoding != "identity") {
            refusal = Error{vlupd::RSYNC_ERROR,
                            "the server encoded its answer (" + encoding + ") unasked"};
            return false;
        }
        if (Expected<void> wanted = handler->head(head); !wanted) {
            refusal = std::move(wanted.error());
            return false;
        }
        return true;
    }

    bool takeBody(std::span<const std::byte> bytes)
    {
        if (!headRead && !takeHead())
            return false;
        if (!isGood) {
            ignored += bytes.size();
            return ignored <= maxIgnoredBody;
        }
        Expected<bool> more = handler->body(bytes);
        if (!more) {
            refusal = std::move(more.error());
            return false;
        }
        enough = !*more;
        return !enough && (Clock::now() - pumped < pumpInterval || pump());
    }
};

/// Why a redirect must not be followed, or an empty text.
std::string redirectFault(const std::string& from, const std::string& to, int redirectsBefore)
{
    if (redirectsBefore == maxRedirects)
        return "more than " + std::to_string(maxRedirects) + " redirects";
    const std::string old = schemeOf(from);
    const std::string next = schemeOf(to);
    if (next == "https" || (next == "http" && old == "http"))
        return {};
    return "a redirect from " + old + " to " + next + " is refused";
}

/// Whether libcurl finds a proxy for `scheme` in the environment.
bool environmentHasProxy(const std::string& scheme)
{
    const std::string names[] = {scheme + "_proxy", "all_proxy", "ALL_PROXY",
                                 scheme == "https" ? "HTTPS_PROXY" : "all_proxy"};
    return std::ranges::any_of(names, [](const std::string& name) {
        const char* const value = std::getenv(name.c_str());
        return value != nullptr && *value != '\0';
    });
}

extern "C" std::size_t takeBodyOf(char* bytes, std::size_t, std::size_t size, void* context)
{
    auto& transfer = *static_cast<Transfer*>(context);
    bool more = false;
    // No exception may pass through libcurl, which is written in C.
    try {
        more = transfer.takeBody(std::as_bytes(std::span<const char>(bytes, size)));
    } catch (const std::exception& error) {
        transfer.refusal = Error{vlupd::SYSTEM_CALL_ERROR, error.what()};
    }
    // Any other count than `size` ends the transfer.
    return more ? size : size + 1;
}

} // namespace

std::optional<ContentRange> parseContentRange(std::string_view text)
{
    ContentRange range;
    const char* const end = text.data() + text.size();
    constexpr std::string_view unit = "bytes ";
    if (!text.starts_with(unit))
        return std::nullopt;
    const auto first = std::from_chars(text.data() + unit.size(), end, range.first);
    if (first.ec != std::errc() || first.ptr == end || *first.ptr != '-')
        return std::nullopt;
    const auto last = std::from_chars(first.ptr + 1, end, range.last);
    if (last.ec != std::errc() || last.ptr == end || *last.ptr != '/' || range.last < range.first)
        return std::nullopt;
    if (std::string_view(last.ptr + 1, end) == "*")
        return range;
    std::uint64_t total = 0;
    const auto all = std::from_chars(last.ptr + 1, end, total);
    if (all.ec != std::errc() || all.ptr != end || total <= range.last)
        return std::nullopt;
    range.total = total;
    return range;
}

struct HttpClient::Handles
{
    CURLM* multi = nullptr;
    CURL* easy = nullptr;
    std::array<char, CURL_ERROR_SIZE> words{};

    ~Handles()
    {
        curl_easy_cleanup(easy);
        curl_multi_cleanup(multi);
    }

    void prepare(const HttpRequest& request, const SourceOptions& options, const std::string& proxy,
                 Transfer& transfer, const HeaderList& headers);
    CURLcode run(Transfer& transfer) const;
};

HttpClient::HttpClient(const SourceOptions& options, const std::string& proxy)
    : m_handles(std::make_unique<Handles>()), m_options(options), m_proxy(proxy)
{
    // Never undone: a helper thread left behind may still use the library at process exit.
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    m_handles->multi = curl_multi_init();
    m_handles->easy = curl_easy_init();
    if (proxy.empty())
        m_systemProxies = systemProxies();
}

HttpClient::~HttpClient() = default;

tl::expected<void, HttpFailure> HttpClient::get(const HttpRequest& request,
                                                const HttpHandler& handler)
{
    const std::string shown = withoutCredentials(request.address);
    const auto failed = [&shown](HttpFailure reason) {
        reason.error.message = shown + ": " + reason.error.message;
        return tl::unexpected(std::move(reason));
    };
    if (m_handles->easy == nullptr || m_handles->multi == nullptr)
        return failed({{vlupd::SYSTEM_CALL_ERROR, "no memory for a transfer"}});
    HeaderList headers;
    append(headers, "Accept-Encoding: identity");
    if (request.uncached) {
        append(headers, "Cache-Control: no-cache");
        append(headers, "Pragma: no-cache");
    }
    if (!request.ifRange.empty())
        append(headers, "If-Range: " + request.ifRange);

    HttpRequest hop = request;
    for (int redirects = 0;; ++redirects) {
        Transfer transfer{.easy = m_handles->easy, .handler = &handler};
        m_handles->prepare(hop, m_options, proxyOf(hop.address), transfer, headers);
        const CURLcode code = m_handles->run(transfer);
        if (transfer.refusal)
            return failed({std::move(*transfer.refusal)});
        if (transfer.enough)
            return {};
        const auto status = information<long>(m_handles->easy, CURLINFO_RESPONSE_CODE);
        const bool ignoredTooMuch = transfer.ignored > maxIgnoredBody;
        if (code != CURLE_OK && !ignoredTooMuch) {
            return failed(
                failureOfTransfer(m_handles->easy, code, m_handles->words.data(), m_options));
        }
        const auto target = information<char*>(m_handles->easy, CURLINFO_REDIRECT_URL);
        if (target != nullptr) {
            const std::string next = target;
            const std::string fault = redirectFault(hop.address, next, redirects);
            if (!fault.empty())
                return failed({{vlupd::RSYNC_ERROR, fault}});
            hop.address = next;
            continue;
        }
        // An answer without a body never came to the write function.
        if (!transfer.headRead && !transfer.takeHead())
            return failed({std::move(*transfer.refusal)});
        if (!transfer.isGood) {
            return failed(failureOfStatus(
                status, information<curl_off_t>(m_handles->easy, CURLINFO_RETRY_AFTER)));
        }
        return {};
    }
}

std::string HttpClient::proxyOf(const std::string& address) const
{
    const std::string scheme = schemeOf(address);
    if (!m_proxy.empty() || environmentHasProxy(scheme))
        return m_proxy;
    return proxyFor(m_systemProxies, scheme, hostOf(address));
}

void HttpClient::Handles::prepare(const HttpRequest& request, const SourceOptions& options,
                                  const std::string& proxy, Transfer& transfer,
                                  const HeaderList& headers)
{
    curl_easy_reset(easy);
    words.front() = '\0';
    curl_easy_setopt(easy, CURLOPT_URL, request.address.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "varnel-vl");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, words.data());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, takeBodyOf);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(options.connectTimeout.count()));
    // No limit for the whole transfer: a slow line may take its hours.
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, static_cast<long>(options.stallTimeout.count()));
    // For Windows, which keeps its certificate authorities in its own store. Asked about revoked
    // certificates, it would wait for their servers within the handshake, where no time-out of ours
    // holds, and what arrives is believed only by the repository's own signature anyway.
    curl_easy_setopt(easy, CURLOPT_SSL_OPTIONS,
                     static_cast<long>(CURLSSLOPT_NATIVE_CA | CURLSSLOPT_NO_REVOKE));
#if LIBCURL_VERSION_NUM >= 0x075700
    // A name look-up that hangs must not hold up the end of an operation.
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
#endif
    if (!options.certificateAuthorities.empty())
        curl_easy_setopt(easy, CURLOPT_CAINFO, options.certificateAuthorities.c_str());
    if (!proxy.empty())
        curl_easy_setopt(easy, CURLOPT_PROXY, proxy.c_str());
    long buffer = bufferSize;
    if (request.maxBytesPerSecond > 0) {
        const auto limit =
            static_cast<curl_off_t>(std::min<std::uint64_t>(request.maxBytesPerSecond, INT64_MAX));
        curl_easy_setopt(easy, CURLOPT_MAX_RECV_SPEED_LARGE, limit);
        // libcurl fills its buffer up to a hundred times before it looks at the limit again:
        // together that is to be no more than a twentieth of a second.
        buffer = static_cast<long>(std::clamp<curl_off_t>(limit / 2000, 1024, bufferSize));
    }
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, buffer);
    if (request.range) {
        const std::string range = std::to_string(request.range->offset) + '-' +
                                  std::to_string(request.range->offset + request.range->size - 1);
        curl_easy_setopt(easy, CURLOPT_RANGE, range.c_str());
    }
}

CURLcode HttpClient::Handles::run(Transfer& transfer) const
{
    if (curl_multi_add_handle(multi, easy) != CURLM_OK)
        return CURLE_FAILED_INIT;
    CURLcode result = CURLE_ABORTED_BY_CALLBACK;
    while (transfer.pump()) {
        int running = 0;
        CURLMcode state = curl_multi_perform(multi, &running);
        if (state == CURLM_OK && running == 0) {
            int left = 0;
            const CURLMsg* message = curl_multi_info_read(multi, &left);
            result = message != nullptr ? message->data.result : CURLE_RECV_ERROR;
            break;
        }
        if (state == CURLM_OK)
            state = curl_multi_poll(multi, nullptr, 0, pollMilliseconds, nullptr);
        if (state != CURLM_OK) {
            result = CURLE_FAILED_INIT;
            break;
        }
    }
    curl_multi_remove_handle(multi, easy);
    return result;
}

} // namespace vl
