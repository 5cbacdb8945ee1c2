#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/catalogue.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/formats/minisign.h"
#include "vl/src/platform/lock.h"

#include <filesystem>
#include <set>
#include <span>
#include <string>

namespace vl::publish {

/// The right to change a repository: its lock, and its catalogue as it stands. Other changes are
/// refused while this one lives.
class RepositoryChange final
{
public:
    /// Clears what interrupted changes left behind. An existing catalogue must be signed with
    /// `key`: what somebody else may have altered is never signed anew. `create`: a folder without
    /// a catalogue is made a repository (serial 0, no id yet).
    static Expected<RepositoryChange> begin(const std::filesystem::path& repository,
                                            const SecretKey& key, bool create);

    Catalogue& catalogue() { return m_catalogue; }
    /// Where the files lie that the catalogue's versions need, relative to the repository's top.
    Expected<std::set<std::string>> neededFiles() const;
    const std::filesystem::path& top() const { return m_top; }
    /// Signs the catalogue with the next serial number and today's date, and puts it in place.
    Expected<void> commit();

private:
    RepositoryChange(std::filesystem::path top, const SecretKey& key);

    Expected<void> clearLeftovers();
    Expected<void> load();

    std::filesystem::path m_top;
    SecretKey m_key;
    FolderLock m_lock;
    Catalogue m_catalogue;
};

/// Where a pack is written before its hash is known; cleared by the next change.
std::filesystem::path temporaryPack(const std::filesystem::path& repository);

/// The same for a delta pack.
std::filesystem::path temporaryDelta(const std::filesystem::path& repository);
/// Where below `folder` the files of a version may lie while they are needed: a name that nobody
/// else uses. In a repository, the next change clears what was left.
std::filesystem::path temporaryFolder(const std::filesystem::path& folder, const std::string& name);

/// The catalogue as it lies in the repository, its signature not looked at.
Expected<Catalogue> loadCatalogue(const std::filesystem::path& repository);

/// The catalogue with its signature checked.
Expected<Catalogue> loadVerifiedCatalogue(const std::filesystem::path& repository,
                                          std::span<const PublicKey> keys);

/// The manifest of `version`, its size and hash checked against the catalogue.
Expected<Manifest> loadManifest(const std::filesystem::path& repository, const std::string& version,
                                const ManifestReference& reference);

} // namespace vl::publish
