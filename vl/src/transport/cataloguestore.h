#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/catalogue.h"
#include "vl/src/formats/config.h"

#include <cstdint>
#include <filesystem>
#include <optional>
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

/// The repository whose catalogues were believed so far.
struct SeenRepository
{
    std::string id;
    std::uint64_t serial = 0; ///< the highest
};

/// What a root remembers of the service: the last verified catalogue with its signature, and which
/// repository it came from. Files in catalogue/ below the root.
class CatalogueStore final
{
public:
    explicit CatalogueStore(const std::filesystem::path& root);

    /// The saved pair, its signature verified now. NOT_FOUND when there is none.
    Expected<SignedText> read(std::span<const PublicKey> keys) const;
    /// Saves a verified pair and remembers its repository and serial. A crash at any point leaves
    /// the old pair or the new one readable.
    Expected<void> save(const SignedText& pair, const Catalogue& catalogue) const;
    /// What was remembered; nothing when the file is missing or damaged.
    std::optional<SeenRepository> seen() const;

private:
    std::filesystem::path m_folder;
};

/// UPDATER_DATA_ERROR for a catalogue of another repository than the configured or the remembered
/// one, and for one with a serial lower than the highest seen.
Expected<void> checkOrigin(const Catalogue& catalogue, const Config& config,
                           const std::optional<SeenRepository>& seen);

} // namespace vl
