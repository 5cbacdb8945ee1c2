#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/catalogue.h"
#include "vl/src/formats/config.h"

#include <cstdint>
#include <filesystem>
#include <map>
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
/// repositories were seen. Files in catalogue/ below the root.
class CatalogueStore final
{
public:
    explicit CatalogueStore(const std::filesystem::path& root);

    /// The saved pair, its signature verified now. NOT_FOUND when there is none.
    Expected<SignedText> read(std::span<const PublicKey> keys) const;
    /// Saves a verified pair and remembers its repository and serial. A crash at any point leaves
    /// the old pair or the new one readable (and, at worst, the old serial remembered).
    Expected<void> save(const SignedText& pair, const Catalogue& catalogue) const;
    /// What was remembered; nothing when the file is missing or damaged.
    SeenRepositories seen() const;

private:
    std::filesystem::path m_folder;
};

/// UPDATER_DATA_ERROR for a catalogue of another repository than the configured or else the last
/// one, and for one with a serial lower than the highest seen.
Expected<void> checkOrigin(const Catalogue& catalogue, const Config& config,
                           const SeenRepositories& seen);

} // namespace vl
