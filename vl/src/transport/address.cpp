#include "vl/src/transport/address.h"

#include "vl/src/platform/file.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace vl {

namespace {

struct UrlDeleter
{
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using Url = std::unique_ptr<CURLU, UrlDeleter>;

Expected<Url> parse(const std::string& address)
{
    Url url(curl_url());
    const CURLUcode code =
        url ? curl_url_set(url.get(), CURLUPART_URL, address.c_str(), 0) : CURLUE_OUT_OF_MEMORY;
    if (code != CURLUE_OK) {
        return failure(vlupd::UPDATER_DATA_ERROR,
                       std::string("the repository's address cannot be read: ") +
                           curl_url_strerror(code));
    }
    return url;
}

std::string part(const Url& url, CURLUPart which, unsigned int flags = 0)
{
    char* text = nullptr;
    if (curl_url_get(url.get(), which, &text, flags) != CURLUE_OK || text == nullptr)
        return {};
    std::string result(text);
    curl_free(text);
    return result;
}

} // namespace

std::string schemeOf(const std::string& text)
{
    const std::size_t end = text.find("://");
    if (end == std::string::npos)
        return {};
    std::string scheme = text.substr(0, end);
    std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return scheme;
}

std::string withoutCredentials(const std::string& address)
{
    if (schemeOf(address).empty())
        return address;
    const Expected<Url> url = parse(address);
    if (!url)
        return "(unreadable address)";
    for (const CURLUPart secret : {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS})
        curl_url_set(url->get(), secret, nullptr, 0);
    return part(*url, CURLUPART_URL);
}

std::string hostOf(const std::string& address)
{
    const Expected<Url> url = parse(address);
    return url ? part(*url, CURLUPART_HOST) : std::string();
}

Expected<void> checkHttpAddress(const std::string& address)
{
    const Expected<Url> url = parse(address);
    if (!url)
        return tl::unexpected(url.error());
    if (!part(*url, CURLUPART_QUERY).empty() || !part(*url, CURLUPART_FRAGMENT).empty()) {
        return failure(vlupd::UPDATER_DATA_ERROR,
                       "the repository's address must end with its path, without '?' or '#'");
    }
    return {};
}

Expected<std::filesystem::path> folderOfFileAddress(const std::string& address)
{
    const Expected<Url> url = parse(address);
    if (!url)
        return tl::unexpected(url.error());
    // Only Windows has files on other machines: file://server/share/folder.
    const std::string host = part(*url, CURLUPART_HOST);
    return fromUtf8((host.empty() ? "" : "//" + host) +
                    part(*url, CURLUPART_PATH, CURLU_URLDECODE));
}

} // namespace vl
