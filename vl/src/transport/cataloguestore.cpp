#include "vl/src/transport/cataloguestore.h"

#include "vl/src/formats/minisign.h"
#include "vl/src/platform/file.h"

#include <nlohmann/json.hpp>

#include <array>

namespace vl {

namespace {

constexpr std::uint64_t maxSeenSize = 4U << 10U;
constexpr auto catalogueName = "catalogue.json";
constexpr auto signatureName = "catalogue.json.minisig";
// Holds the signature while the catalogue itself is being replaced.
constexpr auto newSignatureName = "catalogue.json.minisig.new";
constexpr auto seenName = "seen.json";

} // namespace

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
    const nlohmann::json seen{{"repository", catalogue.repositoryId}, {"serial", catalogue.serial}};
    return makeDirectories(m_folder)
        .and_then([&] { return writeWholeFile(m_folder / newSignatureName, pair.signature); })
        .and_then([&] { return writeWholeFile(m_folder / catalogueName, pair.text); })
        .and_then(
            [&] { return renameReplacing(m_folder / newSignatureName, m_folder / signatureName); })
        .and_then([&] { return writeWholeFile(m_folder / seenName, seen.dump() + '\n'); });
}

std::optional<SeenRepository> CatalogueStore::seen() const
{
    const Expected<std::string> text = readWholeFile(m_folder / seenName, maxSeenSize);
    if (!text)
        return std::nullopt;
    const nlohmann::json seen = nlohmann::json::parse(*text, nullptr, false);
    if (!seen.is_object())
        return std::nullopt;
    const auto id = seen.find("repository");
    const auto serial = seen.find("serial");
    if (id == seen.end() || !id->is_string() || serial == seen.end() ||
        !serial->is_number_unsigned())
        return std::nullopt;
    return SeenRepository{id->get<std::string>(), serial->get<std::uint64_t>()};
}

Expected<void> checkOrigin(const Catalogue& catalogue, const Config& config,
                           const std::optional<SeenRepository>& seen)
{
    const std::string& id = catalogue.repositoryId;
    if (config.repositoryId && id != *config.repositoryId)
        return failure(vlupd::UPDATER_DATA_ERROR, "the catalogue is of the repository " + id +
                                                      ", vl.json names " + *config.repositoryId);
    if (!config.repositoryId && seen && id != seen->id)
        return failure(vlupd::UPDATER_DATA_ERROR,
                       "the catalogue is of the repository " + id + ", so far it was " + seen->id +
                           " (a change must be named as repositoryId in vl.json)");
    if (seen && id == seen->id && catalogue.serial < seen->serial)
        return failure(vlupd::UPDATER_DATA_ERROR,
                       "the catalogue has the serial number " + std::to_string(catalogue.serial) +
                           ", lower than the " + std::to_string(seen->serial) + " seen before");
    return {};
}

} // namespace vl
