#include "vl/src/transport/httpfailure.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

namespace vl {

namespace {

// Verification results of OpenSSL (x509_vfy.h) that libcurl passes on in this number.
constexpr long notVerified = 1; // libcurl's start value: the name was refused before
constexpr long certificateNotYetValid = 9;
constexpr long certificateExpired = 10;

constexpr curl_off_t longestRetryAfter = 24L * 60 * 60; // seconds

constexpr auto otherServer = "the server's certificate is not for this server";
constexpr auto notToday =
    "the server's certificate is not valid today (is this computer's clock right?)";
constexpr auto unknownAuthority =
    "the server's certificate is not vouched for by a known authority";

#if defined(_WIN32)
constexpr long refused = WSAECONNREFUSED;
#else
constexpr long refused = ECONNREFUSED;
#endif

// The TLS of Windows leaves no number, only the names of its errors among the words.
const char* namedCertificateFault(std::string_view words)
{
    static constexpr std::pair<std::string_view, const char*> names[] = {
        {"SEC_E_WRONG_PRINCIPAL", otherServer}, {"connection hostname", otherServer},
        {"SEC_E_CERT_EXPIRED", notToday},       {"NOT_TIME_VALID", notToday},
        {"UNTRUSTED_ROOT", unknownAuthority},   {"PARTIAL_CHAIN", unknownAuthority},
    };
    for (const auto& [name, fault] : names)
        if (words.find(name) != std::string_view::npos)
            return fault;
    return nullptr;
}

const char* certificateFault(CURL* easy, std::string_view words)
{
    if (const char* named = namedCertificateFault(words))
        return named;
    long result = 0;
    curl_easy_getinfo(easy, CURLINFO_SSL_VERIFYRESULT, &result);
    switch (result) {
    case 0:
    case notVerified:
        return otherServer;
    case certificateNotYetValid:
    case certificateExpired:
        return notToday;
    default:
        return unknownAuthority;
    }
}

std::string connectionFault(CURL* easy)
{
    long number = 0;
    curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &number);
    return number == refused ? "the server refuses connections" : "the server is out of reach";
}

std::string timeFault(CURL* easy, const SourceOptions& options)
{
    curl_off_t started = 0;
    curl_easy_getinfo(easy, CURLINFO_PRETRANSFER_TIME_T, &started);
    if (started == 0) {
        return "no connection to the server within " +
               std::to_string(options.connectTimeout.count()) + " ms";
    }
    return "the transfer stalled for " + std::to_string(options.stallTimeout.count()) + " s";
}

} // namespace

HttpFailure failureOfTransfer(CURL* easy, CURLcode code, const char* words,
                              const SourceOptions& options)
{
    HttpFailure result{{vlupd::RSYNC_ERROR, {}}, true};
    std::string& text = result.error.message;
    long proxyStatus = 0;
    curl_easy_getinfo(easy, CURLINFO_HTTP_CONNECTCODE, &proxyStatus);
    if (proxyStatus == 407)
        return failureOfStatus(proxyStatus, 0);
    switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
        text = "the server's name is not known (no network?)";
        break;
    case CURLE_COULDNT_RESOLVE_PROXY:
        text = "the proxy's name is not known";
        break;
    case CURLE_COULDNT_CONNECT:
        text = connectionFault(easy);
        break;
    case CURLE_OPERATION_TIMEDOUT:
        text = timeFault(easy, options);
        break;
    case CURLE_PEER_FAILED_VERIFICATION:
        text = certificateFault(easy, words);
        result.transient = false;
        break;
    case CURLE_SSL_CONNECT_ERROR:
        result.transient = namedCertificateFault(words) == nullptr;
        text =
            result.transient ? "no secure connection to the server" : certificateFault(easy, words);
        break;
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        text = "the connection was broken";
        break;
    default:
        text = "the transfer failed";
        result.transient = false;
        break;
    }
    text += std::string(" (") + (*words != '\0' ? words : curl_easy_strerror(code)) + ")";
    return result;
}

HttpFailure failureOfStatus(long status, curl_off_t retryAfterSeconds)
{
    HttpFailure result{{vlupd::RSYNC_ERROR, {}}};
    result.status = status;
    // As milliseconds, what some servers ask for would overflow.
    result.retryAfter = std::chrono::seconds(std::min(retryAfterSeconds, longestRetryAfter));
    result.transient = status == 408 || status == 429 || (status >= 500 && status <= 599);
    switch (status) {
    case 401:
    case 403:
        result.error.message = "the server denies access";
        break;
    case 404:
    case 410:
        result.error.message = "there is no such file on the server";
        break;
    case 407:
        result.error.message = "the proxy asks for a user name and a password";
        break;
    case 416:
        result.error.message = "the file on the server ends before the bytes asked for";
        break;
    default:
        result.error.message = "the server answered with an error";
        break;
    }
    if (status == 416)
        result.error.code = vlupd::CONTENT_LEN_ERROR;
    result.error.message += " (status " + std::to_string(status) + ")";
    return result;
}

} // namespace vl
