#pragma once

#include "vl/src/transport/cataloguestore.h"
#include "vl/src/transport/source.h"

namespace vl {

/// What a fetch needs to know and to tell.
struct CatalogueFetch
{
    const Config& config;
    const Expected<VerifiedCatalogue>& saved; ///< of the store
    SeenRepositories seen;
    std::function<bool()> cancelled;
    std::function<void(const std::string&)> say; ///< takes log lines
};

/// Fetches the catalogue and its signature, verifies them and checks where they come from. What
/// cannot be believed (an update in flight, a half from a cache, a log-in page) is fetched once
/// more past the caches. No other attempt is repeated. Gives the very object of `saved` when that
/// is the newest.
Expected<VerifiedCatalogue> fetchCatalogue(Source& source, const CatalogueFetch& fetch);

/// Logs that `catalogue` should have been replaced by now, if so. The clock alone refuses nothing.
void warnIfExpired(const Catalogue& catalogue, const std::function<void(const std::string&)>& say);

} // namespace vl
