#include "vl/src/transport/cataloguestore.h"

#include "vl/src/formats/minisign.h"
#include "vl/src/platform/file.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>

namespace vl {

namespace {

constexpr std::uint64_t maxSeenSize = 1U << 20U;
constexpr auto catalogueName = "catalogue.json";
constexpr auto signatureName = "catalogue.json.minisig";
// Holds the signature while the catalogue itself is being replaced.
constexpr auto newSignatureName = "catalogue.json.minisig.new";
constexpr auto seenName = "seen.json";

} // namespace

void SeenRepositories::add(const Catalogue& catalogue)
{
    last = catalogue.repositoryId;
    std::uint64_t& serial = serials[last];
    serial = std::max(serial, catalogue.serial);
}

bool SeenRepositories::know(const Catalogue& catalogue) const
{
    const auto serial = serials.find(catalogue.repositoryId);
    return last == catalogue.repositoryId && serial != serials.end() &&
           serial->second >= catalogue.serial;
}

CatalogueStore::CatalogueStore(const std::filesystem::path& root) : m_folder(root / "catalogue") {}

Expected<SignedText> CatalogueStore::read(std::span<const PublicKey> keys) const
{
    Expected<std::string> text = readWholeFile(m_folder / catalogueName, maxCatalogueSize);
    if (!text)
        return tl::unexpected(std::move(text.error()));
    Expected<void> verified;
    for (const auto* name : {signatureName, newSignatureName}) {
        Expected<std::string> signature = readWholeFile(m_folder / name, maxSignatureSize);
        Expected<void> fits = signature ? verify(*text, *signature, keys)
                                        : Expected<void>(tl::unexpected(signature.error()));
        if (fits)
            return SignedText{std::move(*text), std::move(*signature)};
        // The usual file's fault is the one to tell.
        if (verified)
            verified = std::move(fits);
    }
    return failure("the saved catalogue", std::move(verified.error()));
}

Expected<void> CatalogueStore::save(const SignedText& pair, const Catalogue& catalogue) const
{
    SeenRepositories all = seen();
    all.add(catalogue);
    const nlohmann::json seen{{"repository", all.last}, {"serials", all.serials}};
    return makeDirectories(m_folder)
        .and_then([&] { return writeWholeFile(m_folder / newSignatureName, pair.signature); })
        .and_then([&] { return writeWholeFile(m_folder / catalogueName, pair.text); })
        .and_then(
            [&] { return renameReplacing(m_folder / newSignatureName, m_folder / signatureName); })
        .and_then([&] { return writeWholeFile(m_folder / seenName, seen.dump() + '\n'); });
}

SeenRepositories CatalogueStore::seen() const
{
    SeenRepositories seen;
    const Expected<std::string> text = readWholeFile(m_folder / seenName, maxSeenSize);
    const auto record =
        text ? nlohmann::json::parse(*text, nullptr, false) : nlohmann::json(nullptr);
    if (!record.is_object() || !record.contains("repository") || !record.contains("serials") ||
        !record["repository"].is_string() || !record["serials"].is_object())
        return seen;
    seen.last = record["repository"].get<std::string>();
    for (const auto& [id, serial] : record["serials"].items())
        if (serial.is_number_unsigned())
            seen.serials[id] = serial.get<std::uint64_t>();
    return seen;
}

Expected<void> checkOrigin(const Catalogue& catalogue, const Config& config,
                           const SeenRepositories& seen)
{
    const std::string& id = catalogue.repositoryId;
    if (config.repositoryId && id != *config.repositoryId)
        return failure(vlupd::UPDATER_DATA_ERROR, "the catalogue is of the repository " + id +
                                                      ", vl.json names " + *config.repositoryId);
    if (!config.repositoryId && !seen.last.empty() && id != seen.last)
        return failure(vlupd::UPDATER_DATA_ERROR,
                       "the catalogue is of the repository " + id + ", so far it was " + seen.last +
                           " (a change must be named as repositoryId in vl.json)");
    const auto serial = seen.serials.find(id);
    if (serial != seen.serials.end() && catalogue.serial < serial->second)
        return failure(vlupd::UPDATER_DATA_ERROR,
                       "the catalogue has the serial number " + std::to_string(catalogue.serial) +
                           ", lower than the " + std::to_string(serial->second) + " seen before");
    return {};
}

} // namespace vl
