#include "vl/src/transport/cataloguefetch.h"

#include <array>
#include <cstdio>
#include <utility>

namespace vl {

namespace {

// The service's patience ends here even when nobody waits any more.
constexpr std::chrono::minutes longestFetch{5};

std::string today()
{
    const std::chrono::year_month_day date(
        std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now()));
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02u", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
    return text.data();
}

Expected<VerifiedCatalogue> fetchOnce(Source& source, const CatalogueFetch& fetch, bool uncached)
{
    const auto document = [&](const char* path, std::uint64_t maxSize) {
        return source.fetchDocument({.path = path,
                                     .maxSize = maxSize,
                                     .uncached = uncached,
                                     .retries = 0,
                                     .deadline = std::chrono::steady_clock::now() + longestFetch,
                                     .cancelled = fetch.cancelled});
    };
    Expected<std::string> signature = document("catalogue.json.minisig", maxSignatureSize);
    if (!signature)
        return tl::unexpected(std::move(signature.error()));
    // The signature tells that nothing has changed, without the catalogue's many bytes.
    Expected<VerifiedCatalogue> result = fetch.saved;
    if (!result || result->pair.signature != *signature) {
        Expected<std::string> text = document("catalogue.json", maxCatalogueSize);
        if (!text)
            return tl::unexpected(std::move(text.error()));
        result =
            verifiedCatalogue({std::move(*text), std::move(*signature)}, fetch.config.publicKeys);
        if (!result)
            return failure(source.describe(), std::move(result.error()));
    }
    if (Expected<void> ours = checkOrigin(*result->catalogue, fetch.config, fetch.seen); !ours)
        return failure(source.describe(), std::move(ours.error()));
    return result;
}

} // namespace

Expected<VerifiedCatalogue> fetchCatalogue(Source& source, const CatalogueFetch& fetch)
{
    Expected<VerifiedCatalogue> fetched = fetchOnce(source, fetch, false);
    if (!fetched && fetched.error().code == vlupd::UPDATER_DATA_ERROR) {
        fetch.say("catalogue: " + fetched.error().message + "; fetching it again past the caches");
        fetched = fetchOnce(source, fetch, true);
    }
    if (fetched)
        warnIfExpired(*fetched->catalogue, fetch.say);
    return fetched;
}

void warnIfExpired(const Catalogue& catalogue, const std::function<void(const std::string&)>& say)
{
    if (catalogue.expires && *catalogue.expires < today())
        say("catalogue: it was to be replaced by " + *catalogue.expires +
            "; the service may be kept from updating, or this computer's clock is wrong");
}

} // namespace vl
