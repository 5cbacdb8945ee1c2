#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/hash.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vl {

inline constexpr std::uint64_t catalogueFormat = 1;
/// Largest catalogue that is fetched or read, in bytes.
inline constexpr std::uint64_t maxCatalogueSize = 32U << 20U;

/// Size and hash of a version's manifest.
struct ManifestReference
{
    std::uint64_t size = 0;
    Hash hash{};
};

/// A catalogue whose signature has been verified by the caller.
struct Catalogue
{
    std::string repositoryId;
    std::uint64_t serial = 0;
    std::string date;                                   ///< yyyy-MM-dd
    std::optional<std::string> expires;                 ///< yyyy-MM-dd
    nlohmann::json versions = nlohmann::json::object(); ///< what getAvailableVersions hands out
    std::map<std::string, ManifestReference> manifests; ///< by version key
};

/// Whether `text` is a day of the calendar written as yyyy-MM-dd.
bool isDate(std::string_view text);

/// Reads and validates a catalogue's text. UPDATER_DATA_ERROR for anything malformed: no JSON,
/// unknown format version, wrong types, version keys that cannot be folder names or collide
/// (pathrules.h), a manifest larger than maxManifestSize. Unknown members are passed through.
Expected<Catalogue> readCatalogue(std::string_view text);

/// The text of a catalogue; equal catalogues give equal bytes. `versions` must carry each
/// version's "manifest" member.
std::string writeCatalogue(const Catalogue& catalogue);

} // namespace vl
