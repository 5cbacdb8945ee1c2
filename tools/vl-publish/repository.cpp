#include "tools/vl-publish/repository.h"

#include "tools/vl-publish/publisher.h"
#include "vl/src/formats/delta.h"
#include "vl/src/platform/file.h"

#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace vl::publish {
namespace fs = std::filesystem;
namespace {

constexpr const char* catalogueName = "catalogue.json";
constexpr const char* signatureName = "catalogue.json.minisig";
/// The signed catalogue while its signature is already in place and it is not.
constexpr const char* pendingName = "catalogue.json.new";
constexpr std::uint64_t maxSignatureSize = 4096;

/// Seconds from 1970 to the first moment of `date`.
std::string timestampOf(const std::string& date)
{
    using namespace std::chrono;
    const year_month_day day{
        year(std::atoi(date.substr(0, 4).c_str())),
        month(static_cast<unsigned>(std::atoi(date.substr(5, 2).c_str()))),
        std::chrono::day(static_cast<unsigned>(std::atoi(date.substr(8, 2).c_str())))};
    return std::to_string(sys_seconds(sys_days(day)).time_since_epoch().count());
}

Expected<void> checkSignature(const fs::path& repository, const std::string& text,
                              std::span<const PublicKey> keys)
{
    const auto signature = readWholeFile(repository / signatureName, maxSignatureSize);
    if (!signature)
        return tl::unexpected(signature.error());
    if (auto verified = verify(text, *signature, keys); !verified)
        return failure(signatureName, std::move(verified).error());
    return {};
}

} // namespace

Expected<std::string> today()
{
    using namespace std::chrono;
    auto now = floor<seconds>(system_clock::now());
    if (const char* epoch = std::getenv("SOURCE_DATE_EPOCH"); epoch != nullptr && *epoch != '\0') {
        std::int64_t value = 0;
        const std::string_view text(epoch);
        const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
        if (result.ec != std::errc() || result.ptr != text.data() + text.size() || value < 0 ||
            value > 253402300799) // the end of the year 9999
            return failure(vlupd::UPDATER_DATA_ERROR,
                           "SOURCE_DATE_EPOCH is not a number of seconds: " + std::string(text));
        now = sys_seconds(seconds(value));
    }
    const year_month_day date(floor<days>(now));
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02u", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
    return std::string(text.data());
}

RepositoryChange::RepositoryChange(fs::path top, const SecretKey& key)
    : m_top(std::move(top)), m_key(key)
{
}

Expected<RepositoryChange> RepositoryChange::begin(const fs::path& repository, const SecretKey& key,
                                                   bool create)
{
    RepositoryChange change(repository, key);
    if (create) {
        for (const fs::path& folder :
             {repository / "manifests", repository / "packs", repository / "deltas"}) {
            if (auto made = makeDirectories(folder); !made)
                return tl::unexpected(std::move(made).error());
        }
    } else {
        const auto info = fileInfo(repository / catalogueName);
        if (!info || !*info)
            return failure(vlupd::NOT_FOUND, toUtf8(repository) + " is not a repository");
    }
    auto lock = FolderLock::tryTake(repository);
    if (!lock)
        return tl::unexpected(std::move(lock).error());
    change.m_lock = std::move(*lock);
    if (auto cleared = change.clearLeftovers(); !cleared)
        return tl::unexpected(std::move(cleared).error());
    if (auto loaded = change.load(); !loaded)
        return tl::unexpected(std::move(loaded).error());
    return change;
}

Expected<void> RepositoryChange::clearLeftovers()
{
    const auto pending = readWholeFile(m_top / pendingName, maxCatalogueSize);
    if (pending) {
        // The signature went first: where it fits, only the last rename is missing.
        const PublicKey key = publicKeyOf(m_key);
        auto done = checkSignature(m_top, *pending, std::span(&key, 1))
                        ? renameReplacing(m_top / pendingName, m_top / catalogueName)
                        : removeFile(m_top / pendingName);
        if (!done)
            return done;
    }
    for (const fs::path& folder : {m_top, m_top / "manifests", m_top / "packs", m_top / "deltas"}) {
        const auto entries = listDirectory(folder);
        for (const TreeEntry& entry : entries.value_or(std::vector<TreeEntry>())) {
            if (!isTemporaryName(entry.path))
                continue;
            if (auto removed = removeTree(folder / fromUtf8(entry.path)); !removed)
                return removed;
        }
    }
    return {};
}

Expected<void> RepositoryChange::load()
{
    const auto info = fileInfo(m_top / catalogueName);
    if (info && !*info)
        return {};
    const PublicKey key = publicKeyOf(m_key);
    auto catalogue = loadVerifiedCatalogue(m_top, std::span(&key, 1));
    if (!catalogue) {
        Error error = std::move(catalogue).error();
        error.message += " (to change keys, sign catalogue.json with the new one: minisign -S)";
        return tl::unexpected(std::move(error));
    }
    m_catalogue = std::move(*catalogue);
    return {};
}

Expected<std::set<std::string>> RepositoryChange::neededFiles() const
{
    std::set<std::string> needed;
    for (const auto& [version, reference] : m_catalogue.manifests) {
        const auto manifest = loadManifest(m_top, version, reference);
        if (!manifest)
            return tl::unexpected(manifest.error());
        needed.insert({manifestPath(reference.hash), packPath(manifest->pack.hash)});
        for (const DeltaReference& delta : manifest->deltas)
            needed.insert({deltaPath(delta.hash), deltaIndexPath(delta.indexHash)});
    }
    return needed;
}

Expected<void> RepositoryChange::commit()
{
    auto date = today();
    if (!date)
        return tl::unexpected(std::move(date).error());
    m_catalogue.date = *date;
    ++m_catalogue.serial;
    const std::string text = writeCatalogue(m_catalogue);
    // Whatever a client would refuse must not be signed.
    auto read = readCatalogue(text);
    if (!read)
        return tl::unexpected(std::move(read).error());
    m_catalogue.manifests = std::move(read->manifests);
    const std::string signature =
        sign(text, m_key,
             "timestamp:" + timestampOf(*date) + "\tfile:" + catalogueName +
                 "\tserial:" + std::to_string(m_catalogue.serial));

    auto done = writeWholeFile(m_top / pendingName, text);
    if (done)
        done = writeWholeFile(m_top / signatureName, signature);
    if (done)
        done = renameReplacing(m_top / pendingName, m_top / catalogueName);
    if (done)
        done = syncDirectory(m_top);
    return done;
}

fs::path temporaryPack(const fs::path& repository)
{
    return repository / "packs" / ".new-pack.vl-tmp";
}

fs::path temporaryDelta(const fs::path& repository)
{
    return repository / "deltas" / ".new-delta.vl-tmp";
}

fs::path temporaryFolder(const fs::path& folder, const std::string& name)
{
    static std::atomic<unsigned> counter{0};
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    return folder /
           ("." + name + "." + std::to_string(stamp) + "-" + std::to_string(counter++) + ".vl-tmp");
}

Expected<Catalogue> loadCatalogue(const fs::path& repository)
{
    const auto text = readWholeFile(repository / catalogueName, maxCatalogueSize);
    if (!text)
        return tl::unexpected(text.error());
    return readCatalogue(*text);
}

Expected<Catalogue> loadVerifiedCatalogue(const fs::path& repository,
                                          std::span<const PublicKey> keys)
{
    const auto text = readWholeFile(repository / catalogueName, maxCatalogueSize);
    if (!text)
        return tl::unexpected(text.error());
    if (auto checked = checkSignature(repository, *text, keys); !checked)
        return tl::unexpected(std::move(checked).error());
    return readCatalogue(*text);
}

Expected<Manifest> loadManifest(const fs::path& repository, const std::string& version,
                                const ManifestReference& reference)
{
    const std::string name = manifestPath(reference.hash);
    const auto text = readWholeFile(repository / fromUtf8(name), maxManifestSize);
    if (!text)
        return failure("manifest of version " + version, text.error());
    if (text->size() != reference.size || hashOf(*text) != reference.hash)
        return failure(vlupd::UPDATER_DATA_ERROR,
                       name + " (version " + version + ") differs from what the catalogue says");
    return readManifest(*text, version);
}

} // namespace vl::publish
