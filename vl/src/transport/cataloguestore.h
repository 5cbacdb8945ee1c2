#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/catalogue.h"
#include "vl/src/formats/config.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <span>
#include <string>

namespace vl {

/// Largest signature file that is fetched or read, in bytes; a real one has about 300.
inline constexpr std::uint64_t maxSignatureSize = 4U << 10U;

/// A catalogue's text with the minisign file that belongs to it.
struct SignedText
{
    std::string text;
    std::string signature;
};

/// A catalogue whose signature is good.
struct VerifiedCatalogue
{
    std::shared_ptr<const Catalogue> catalogue;
    SignedText pair; ///< from which it was read
};

/// Verifies and reads a catalogue. UPDATER_DATA_ERROR when it cannot be believed.
Expected<VerifiedCatalogue> verifiedCatalogue(SignedText pair, std::span<const PublicKey> keys);

/// The repositories whose catalogues were believed so far.
struct SeenRepositories
{
    std::string last;                             ///< id of the one that is used
    std::map<std::string, std::uint64_t> serials; ///< the highest, by id

    void add(const Catalogue& catalogue);
    /// Whether add() would change nothing.
    bool know(const Catalogue& catalogue) const;
};

/// What a root remembers of the service: the last verified catalogue with its signature, and which
/// repositories were seen. Files in catalogue/ below the root. Any process may save at any time.
class CatalogueStore final
{
public:
    explicit CatalogueStore(const std::filesystem::path& root);

    /// The saved catalogue, its signature verified now. NOT_FOUND when there is none,
    /// UPDATER_DATA_ERROR when it cannot be believed.
    Expected<VerifiedCatalogue> read(std::span<const PublicKey> keys) const;
    /// Saves a catalogue and records its repository and serial; a crash at any point leaves the old
    /// catalogue or the new one. UPDATER_DATA_ERROR, and nothing is changed, when checkOrigin()
    /// refuses it because of what another process has saved meanwhile; SYSTEM_CALL_ERROR when
    /// another process keeps the lock or a file cannot be written.
    Expected<void> save(const VerifiedCatalogue& verified, const Config& config) const;
    /// What the record says; nothing when it is missing or damaged.
    SeenRepositories recorded() const;
    /// What the record and the saved catalogue show together; the highest serials of both.
    SeenRepositories seen(const Expected<VerifiedCatalogue>& saved) const;

private:
    std::filesystem::path m_folder;
};

/// UPDATER_DATA_ERROR for a catalogue of another repository than the configured or else the last
/// one, and for one with a serial lower than the highest seen.
Expected<void> checkOrigin(const Catalogue& catalogue, const Config& config,
                           const SeenRepositories& seen);

} // namespace vl
