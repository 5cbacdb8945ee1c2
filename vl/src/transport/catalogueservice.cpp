#include "vl/src/transport/catalogueservice.h"

#include "vl/src/platform/file.h"
#include "vl/src/transport/address.h"
#include "vl/src/transport/cataloguefetch.h"
#include "vl/src/transport/cataloguestore.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace vl {

namespace {

using Clock = std::chrono::steady_clock;
using CataloguePointer = std::shared_ptr<const Catalogue>;

// Longer than the transport takes to notice the abort flag.
constexpr std::chrono::milliseconds joinPatience{200};

constexpr std::uint64_t unknownSize = 0; ///< of a manifest that no catalogue lists

Expected<Manifest> readVerified(const std::string& text, const ManifestReference& reference,
                                const std::string& version)
{
    if (reference.size != unknownSize && text.size() != reference.size)
        return failure(vlupd::CONTENT_LEN_ERROR, std::to_string(text.size()) + " bytes, " +
                                                     std::to_string(reference.size) +
                                                     " were expected");
    if (hashOf(text) != reference.hash)
        return failure(vlupd::BROKEN_OR_MISSING, "the hash is not the signed one");
    return readManifest(text, version);
}

} // namespace

/// What the service shares with its helper thread, which may outlive it.
struct CatalogueService::Shared
{
    Shared(std::filesystem::path theRoot, bool isReadOnly, const Limits& theLimits, Log& theLog)
        : root(std::move(theRoot)), readOnly(isReadOnly), limits(theLimits), store(root),
          log(&theLog)
    {
    }

    const std::filesystem::path root;
    const bool readOnly;
    const Limits limits;
    const CatalogueStore store;
    std::atomic<bool> abandoned{false};

    std::mutex logMutex;
    Log* log; ///< null once the service is gone

    std::mutex mutex;
    std::condition_variable changed;
    std::thread helper;
    bool fetching = false;
    CataloguePointer newest; ///< fetched by this process
    CataloguePointer saved;  ///< read from the disk
    std::optional<Error> lastFailure;
    Clock::time_point quietUntil; ///< no network before
    Clock::duration spent{0};     ///< of the start-up budget

    void say(const std::string& line)
    {
        const std::lock_guard lock(logMutex);
        if (log != nullptr)
            log->write(line);
    }

    Expected<void> startHelper(const std::shared_ptr<Shared>& self, Config config);
    void fetch(const Config& config);
    Expected<CataloguePointer> fetchAndSave(const Config& config);
    void recordFailure(Error error);
    Expected<CataloguePointer> fallBack(const Config& config);
};

CatalogueService::CatalogueService(std::filesystem::path root, bool readOnly, Limits limits,
                                   Log& log)
    : m_shared(std::make_shared<Shared>(std::move(root), readOnly, limits, log))
{
}

CatalogueService::CatalogueService(std::filesystem::path root, bool readOnly, Log& log)
    : CatalogueService(std::move(root), readOnly, Limits(), log)
{
}

CatalogueService::~CatalogueService()
{
    m_shared->abandoned = true;
    {
        const std::lock_guard lock(m_shared->logMutex);
        m_shared->log = nullptr;
    }
    std::unique_lock lock(m_shared->mutex);
    const bool ended =
        m_shared->changed.wait_for(lock, joinPatience, [this] { return !m_shared->fetching; });
    std::thread helper = std::move(m_shared->helper);
    lock.unlock();
    if (!helper.joinable())
        return;
    if (ended)
        helper.join();
    else
        helper.detach();
}

Expected<CataloguePointer> CatalogueService::catalogue(bool fresh)
{
    Shared& shared = *m_shared;
    std::unique_lock lock(shared.mutex);
    if (!fresh && shared.newest)
        return shared.newest;
    const Expected<Config> config = readConfig(shared.root);
    if (!config)
        return tl::unexpected(config.error());
    const auto start = Clock::now();
    const Clock::duration spent = fresh ? Clock::duration::zero() : shared.spent;
    if (start < shared.quietUntil)
        return shared.fallBack(*config);
    if (spent >= shared.limits.withSaved) {
        auto known = shared.fallBack(*config);
        if (known || spent >= shared.limits.withoutSaved)
            return known;
    }
    if (!shared.fetching) {
        if (Expected<void> started = shared.startHelper(m_shared, *config); !started)
            return tl::unexpected(std::move(started.error()));
    }
    // The saved catalogue is read only when the service is late.
    Expected<CataloguePointer> result;
    for (const auto patience : {shared.limits.withSaved, shared.limits.withoutSaved}) {
        if (spent >= patience)
            continue;
        const bool ended = shared.changed.wait_until(lock, start + patience - spent,
                                                     [&shared] { return !shared.fetching; });
        if (!ended)
            shared.recordFailure({vlupd::RSYNC_ERROR, withoutCredentials(config->repository) +
                                                          ": no catalogue within " +
                                                          std::to_string(patience.count()) +
                                                          " ms"});
        result = ended && !shared.lastFailure ? shared.newest : shared.fallBack(*config);
        if (ended || result)
            break;
    }
    if (!fresh)
        shared.spent += Clock::now() - start;
    return result;
}

Expected<void> CatalogueService::Shared::startHelper(const std::shared_ptr<Shared>& self,
                                                     Config config)
{
    if (helper.joinable())
        helper.join(); // it has ended: `fetching` is false
    try {
        helper = std::thread([self, config = std::move(config)] { self->fetch(config); });
    } catch (const std::system_error& error) {
        return failure(vlupd::SYSTEM_CALL_ERROR,
                       std::string("catalogue: no thread can be started: ") + error.what());
    }
    fetching = true;
    return {};
}

/// The helper thread.
void CatalogueService::Shared::fetch(const Config& config)
{
    Expected<CataloguePointer> fetched;
    try {
        fetched = fetchAndSave(config);
    } catch (const std::exception& error) {
        fetched = failure(vlupd::SYSTEM_CALL_ERROR, error.what());
    }
    const std::lock_guard lock(mutex);
    if (fetched) {
        newest = std::move(*fetched);
        saved.reset();
        lastFailure.reset();
        quietUntil = {};
    } else {
        recordFailure(std::move(fetched.error()));
    }
    fetching = false;
    changed.notify_all();
}

Expected<CataloguePointer> CatalogueService::Shared::fetchAndSave(const Config& config)
{
    const Expected<std::unique_ptr<Source>> source = openSource(config, root, limits.transport);
    if (!source)
        return tl::unexpected(source.error());
    const Expected<VerifiedCatalogue> onDisk = store.read(config.publicKeys);
    SeenRepositories seen = store.seen(onDisk);
    {
        // A root that cannot be written to remembers nothing.
        const std::lock_guard lock(mutex);
        if (newest)
            seen.add(*newest);
    }
    const auto logLine = [this](const std::string& line) { say(line); };
    Expected<VerifiedCatalogue> fetched =
        fetchCatalogue(**source, {.config = config,
                                  .saved = onDisk,
                                  .seen = seen,
                                  .cancelled = [this] { return abandoned.load(); },
                                  .say = logLine});
    if (!fetched)
        return tl::unexpected(std::move(fetched.error()));
    const bool remembered = onDisk && onDisk->catalogue == fetched->catalogue &&
                            store.recorded().know(*fetched->catalogue);
    if (!readOnly && !remembered && !abandoned) {
        // The catalogue is good all the same: only a later start without the service lacks it.
        if (const Expected<void> kept = store.save(*fetched, config); !kept)
            say("catalogue: it cannot be saved: " + kept.error().message);
    }
    return std::move(fetched->catalogue);
}

void CatalogueService::Shared::recordFailure(Error error)
{
    say("catalogue: " + error.message);
    lastFailure = std::move(error);
    quietUntil = Clock::now() + limits.pauseAfterFailure;
}

/// The best that is known without the network.
Expected<CataloguePointer> CatalogueService::Shared::fallBack(const Config& config)
{
    // The configuration may have changed since.
    for (const CataloguePointer& known : {newest, saved})
        if (known && checkOrigin(*known, config, {}))
            return known;
    const Expected<VerifiedCatalogue> onDisk = store.read(config.publicKeys);
    const Expected<void> good = onDisk ? checkOrigin(*onDisk->catalogue, config, store.seen(onDisk))
                                       : Expected<void>(tl::unexpected(onDisk.error()));
    if (good) {
        saved = onDisk->catalogue;
        say("catalogue: using the one of " + saved->date + " that was verified last, serial " +
            std::to_string(saved->serial));
        warnIfExpired(*saved, [this](const std::string& line) { say(line); });
        return saved;
    }
    if (good.error().code != vlupd::NOT_FOUND)
        say("catalogue: the saved one is of no use: " + good.error().message);
    if (lastFailure)
        return tl::unexpected(*lastFailure);
    return failure(vlupd::RSYNC_ERROR,
                   "no catalogue, and the time for asking the service is spent");
}

Expected<Manifest> CatalogueService::manifest(const Catalogue& catalogue,
                                              const std::string& version, Source& source,
                                              Operation& operation)
{
    const auto listed = catalogue.manifests.find(version);
    if (listed == catalogue.manifests.end())
        return failure(vlupd::NOT_FOUND, "the catalogue lists no version " + version);
    return fetchManifest(listed->second, version, source, operation);
}

Expected<Manifest> CatalogueService::manifestByHash(const Hash& hash, const std::string& version,
                                                    Source& source, Operation& operation)
{
    return fetchManifest({.size = unknownSize, .hash = hash}, version, source, operation);
}

Expected<Manifest> CatalogueService::fetchManifest(const ManifestReference& reference,
                                                   const std::string& version, Source& source,
                                                   Operation& operation)
{
    const std::filesystem::path saved = savedManifestPath(m_shared->root, reference.hash);
    if (const auto text = readWholeFile(saved, maxManifestSize)) {
        if (Expected<Manifest> manifest = readVerified(*text, reference, version))
            return manifest;
        operation.say("the saved manifest " + toUtf8(saved) + " is damaged, fetching it again");
    }
    DocumentRequest request{.path = manifestPath(reference.hash),
                            .maxSize =
                                reference.size != unknownSize ? reference.size : maxManifestSize,
                            .cancelled = [&operation] { return !operation.pump(); }};
    for (;; request.uncached = true) {
        Expected<std::string> text = source.fetchDocument(request);
        Expected<Manifest> manifest = text ? readVerified(*text, reference, version)
                                           : tl::unexpected(std::move(text.error()));
        if (manifest) {
            if (m_shared->readOnly)
                return manifest;
            const auto kept = makeDirectories(saved.parent_path()).and_then([&] {
                return writeWholeFile(saved, *text);
            });
            return kept ? std::move(manifest) : tl::unexpected(kept.error());
        }
        const bool otherBytes = manifest.error().code == vlupd::CONTENT_LEN_ERROR ||
                                manifest.error().code == vlupd::BROKEN_OR_MISSING;
        const Error fault{manifest.error().code,
                          source.describe() + '/' + request.path + ": " + manifest.error().message};
        if (!otherBytes || request.uncached)
            return tl::unexpected(text ? fault : manifest.error());
        operation.say("manifest " + manifest.error().message + "; fetching it past the caches");
    }
}

std::filesystem::path savedManifestPath(const std::filesystem::path& root, const Hash& hash)
{
    return root / fromUtf8(manifestPath(hash));
}

} // namespace vl
