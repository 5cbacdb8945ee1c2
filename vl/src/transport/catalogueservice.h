#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/catalogue.h"
#include "vl/src/formats/config.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/operation/log.h"
#include "vl/src/operation/operation.h"
#include "vl/src/transport/source.h"

#include <chrono>
#include <filesystem>
#include <memory>

namespace vl {

/// Finds the newest catalogue that can be believed: fetched and verified, else the last verified
/// one on the disk. Keeps the start-up budget: a helper thread fetches with a deadline and is left
/// behind when it passes; what it verifies later is saved for the next start.
class CatalogueService final
{
public:
    struct Limits
    {
        /// Spent on the service in all while a saved catalogue exists.
        std::chrono::milliseconds withSaved{3000};
        /// Spent in all when there is none.
        std::chrono::milliseconds withoutSaved{10000};
        /// No call touches the network for this long after a failure.
        std::chrono::milliseconds pauseAfterFailure{60000};
        SourceOptions transport{};
    };

    /// `root`: the library's root; `readOnly`: nothing is saved there.
    CatalogueService(std::filesystem::path root, bool readOnly, Limits limits, Log& log);
    CatalogueService(std::filesystem::path root, bool readOnly, Log& log);
    /// Ends the helper thread at once; never waits for the network.
    ~CatalogueService();
    CatalogueService(const CatalogueService&) = delete;
    CatalogueService& operator=(const CatalogueService&) = delete;

    /// The newest verified catalogue. Asks the service within the budget; `fresh`: the caller is
    /// about to install and may wait the whole budget again, the pause after a failure apart.
    /// Any thread. A failure is that of the service, when no verified catalogue is on the disk:
    /// RSYNC_ERROR, CONTENT_LEN_ERROR, or UPDATER_DATA_ERROR for anything that cannot be believed.
    Expected<std::shared_ptr<const Catalogue>> catalogue(bool fresh);

    /// The manifest of a version of `catalogue`, from the disk (manifests/<hash>.json) or fetched,
    /// its hash verified, saved on the disk. NOT_FOUND for a version the catalogue does not list,
    /// CONTENT_LEN_ERROR or BROKEN_OR_MISSING when other bytes than the signed ones arrive, twice.
    Expected<Manifest> manifest(const Catalogue& catalogue, const std::string& version,
                                Source& source, Operation& operation);

    /// The manifest with that hash, fetched and saved; for a version that the catalogue may no
    /// longer list. Fails as manifest() does.
    Expected<Manifest> manifestByHash(const Hash& hash, const std::string& version, Source& source,
                                      Operation& operation);

private:
    struct Shared;

    Expected<Manifest> fetchManifest(const ManifestReference& reference, const std::string& version,
                                     Source& source, Operation& operation);

    std::shared_ptr<Shared> m_shared;
};

/// Where a verified manifest is kept below `root`.
std::filesystem::path savedManifestPath(const std::filesystem::path& root, const Hash& hash);

} // namespace vl
