#pragma once

#include "vl/src/transport/cataloguestore.h"
#include "vl/src/transport/source.h"

namespace vl {

/// A catalogue that has been fetched and may be believed.
struct FetchedCatalogue
{
    std::shared_ptr<const Catalogue> catalogue;
    SignedText pair;
    bool isSaved = false; ///< the saved one is the newest
};

/// What a fetch needs to know and to tell.
struct CatalogueFetch
{
    const Config& config;
    const CatalogueStore& store;
    SeenRepositories seen;
    std::function<bool()> cancelled;
    std::function<void(const std::string&)> say; ///< takes log lines
};

/// Fetches the catalogue and its signature, verifies them and checks where they come from. What
/// cannot be believed (an update in flight, a half from a cache, a log-in page) is fetched once
/// more past the caches. No other attempt is repeated.
Expected<FetchedCatalogue> fetchCatalogue(Source& source, const CatalogueFetch& fetch);

/// Logs that `catalogue` should have been replaced by now, if so. The clock alone refuses nothing.
void warnIfExpired(const Catalogue& catalogue, const std::function<void(const std::string&)>& say);

} // namespace vl
