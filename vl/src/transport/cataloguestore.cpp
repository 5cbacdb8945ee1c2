#include "vl/src/transport/cataloguestore.h"

#include "vl/src/formats/minisign.h"
#include "vl/src/platform/file.h"
#include "vl/src/platform/lock.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <utility>

namespace vl {

namespace {

constexpr std::uint64_t maxSeenSize = 1U << 20U;
// The four lines of the signature, then the catalogue's text: in one file they always belong
// together.
constexpr auto catalogueName = "catalogue.signed";
constexpr auto seenName = "seen.json";
// Other processes hold the lock for milliseconds, while they write two files.
constexpr std::chrono::milliseconds lockPatience{500};

SignedText splitSigned(std::string text)
{
    std::size_t end = 0;
    for (int line = 0; line < 4 && end < text.size(); ++line)
        end = std::min(text.find('\n', end), text.size() - 1) + 1;
    std::string signature = text.substr(0, end);
    text.erase(0, end);
    return {std::move(text), std::move(signature)};
}

std::string joinSigned(const SignedText& pair)
{
    return pair.signature + (pair.signature.ends_with('\n') ? "" : "\n") + pair.text;
}

} // namespace

Expected<VerifiedCatalogue> verifiedCatalogue(SignedText pair, std::span<const PublicKey> keys)
{
    if (auto good = verify(pair.text, pair.signature, keys); !good)
        return tl::unexpected(std::move(good.error()));
    auto catalogue = readCatalogue(pair.text);
    if (!catalogue)
        return tl::unexpected(std::move(catalogue.error()));
    return VerifiedCatalogue{std::make_shared<const Catalogue>(std::move(*catalogue)),
                             std::move(pair)};
}

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

Expected<VerifiedCatalogue> CatalogueStore::read(std::span<const PublicKey> keys) const
{
    const std::filesystem::path path = m_folder / catalogueName;
    Expected<std::string> text = readWholeFile(path, maxSignatureSize + maxCatalogueSize);
    if (!text)
        return tl::unexpected(std::move(text.error()));
    auto saved = verifiedCatalogue(splitSigned(std::move(*text)), keys);
    return saved ? std::move(saved) : failure(toUtf8(path), std::move(saved.error()));
}

Expected<void> CatalogueStore::save(const VerifiedCatalogue& verified, const Config& config) const
{
    if (auto made = makeDirectories(m_folder); !made)
        return made;
    const Expected<FolderLock> lock = FolderLock::tryTake(m_folder, lockPatience);
    if (!lock)
        return tl::unexpected(lock.error());
    SeenRepositories all = seen(read(config.publicKeys));
    if (auto newest = checkOrigin(*verified.catalogue, config, all); !newest)
        return newest;
    all.add(*verified.catalogue);
    const nlohmann::json record{{"repository", all.last}, {"serials", all.serials}};
    // The catalogue goes first: after a crash it counts as seen without the record, but a higher
    // serial in the record would forbid the catalogue that is still there.
    return writeWholeFile(m_folder / catalogueName, joinSigned(verified.pair)).and_then([&] {
        return writeWholeFile(m_folder / seenName, record.dump() + '\n');
    });
}

SeenRepositories CatalogueStore::recorded() const
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

SeenRepositories CatalogueStore::seen(const Expected<VerifiedCatalogue>& saved) const
{
    SeenRepositories all = recorded();
    if (saved)
        all.add(*saved->catalogue);
    return all;
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
