#include "vl/src/install/installation.h"

#include "vl/src/formats/config.h"
#include "vl/src/install/programfiles.h"
#include "vl/src/install/stager.h"
#include "vl/src/install/staging.h"
#include "vl/src/install/switchplan.h"
#include "vl/src/install/tidying.h"
#include "vl/src/operation/workers.h"

#include <algorithm>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace vl {

namespace {

constexpr std::size_t maxLoggedNames = 20;
// Programs that write into listed files all the time must not keep an installation from its end.
constexpr int maxRounds = 5;
constexpr std::chrono::milliseconds lookInterval{200};
constexpr std::chrono::milliseconds pumpInterval{20};

/// The log must not be flooded: the first names, then their number.
template <class Items, class Name>
void sayAll(Operation& operation, const std::string& what, const Items& items, const Name& name)
{
    std::size_t said = 0;
    for (const auto& item : items) {
        if (said++ == maxLoggedNames) {
            operation.say(what + ": and " + std::to_string(items.size() - maxLoggedNames) +
                          " more");
            return;
        }
        operation.say(what + ": " + name(item));
    }
}

/// One installation on its way from the catalogue to its commit point.
class Installation final
{
public:
    Installation(const InstallationContext& context, State state)
        : m_root(context.root), m_layout(context.root.layout), m_catalogues(context.catalogues),
          m_transport(context.transport), m_operation(context.root.operation),
          m_state(std::move(state))
    {
    }

    Expected<void> run(const std::string& version);
    bool lacksRoom() const { return m_lacksRoom; }

private:
    Expected<void> findOut(const std::string& version);
    Expected<void> findBase();
    Expected<void> look();
    Expected<SwitchPlan> plan();
    Expected<void> read(const std::vector<HashJob>& jobs);
    Expected<bool> stage(const SwitchPlan& plan);
    Expected<bool> waitForPrograms();
    std::optional<RunningProgram> runningProgram() const;
    Expected<bool> apply(const SwitchPlan& plan);
    Expected<void> confirm();
    std::uint64_t sizeOf(const std::vector<FileNumber>& files) const;
    Switch journalOf(const SwitchPlan& plan) const;

    const RootContext& m_root;
    const RootLayout& m_layout;
    CatalogueService& m_catalogues;
    const SourceOptions& m_transport;
    Operation& m_operation;
    const State m_state;
    Config m_config;
    OpenSource m_openSource;
    VersionRecord m_new;
    std::shared_ptr<const Manifest> m_target;
    std::optional<VersionRecord> m_old; ///< what lies in the folder, installed or removed
    std::shared_ptr<const Manifest> m_base;
    bool m_readAll = false;
    std::optional<Staging> m_staging;
    Folder m_version;
    FolderListing m_listing;
    KnownHashes m_known;
    std::vector<ProgramFiles> m_programs; ///< of the base
    std::vector<FileNumber> m_staged;     ///< ascending
    bool m_lacksRoom = false;
};

Expected<void> Installation::run(const std::string& version)
{
    if (auto found = findOut(version); !found)
        return found;
    for (int round = 0;; ++round) {
        // Everything is decided by what lies there now: programs and users write meanwhile.
        if (auto looked = look(); !looked)
            return looked;
        const auto planned = plan();
        if (!planned)
            return tl::unexpected(planned.error());
        const auto staged = stage(*planned);
        if (!staged)
            return tl::unexpected(staged.error());
        if (*staged && round < maxRounds)
            continue;
        if (round == 0) { // nothing has to be fetched
            m_operation.endStage();
            m_operation.beginStage(vlupd::STAGE_UNPACKING, 0, 0);
            m_operation.endStage();
        }
        m_operation.beginStage(vlupd::STAGE_APPLYING, 0, sizeOf(planned->in));
        if (planned->isEmpty())
            return confirm();
        const auto waited = waitForPrograms();
        if (!waited)
            return tl::unexpected(waited.error());
        if (*waited)
            continue;
        const auto applied = apply(*planned);
        if (!applied)
            return tl::unexpected(applied.error());
        if (*applied) {
            m_operation.endStage();
            return {};
        }
        // A program was started at the last moment: wait for it like for any other.
    }
}

Expected<void> Installation::findOut(const std::string& version)
{
    auto config = readConfig(m_layout.root());
    if (!config)
        return tl::unexpected(std::move(config).error());
    m_config = std::move(*config);
    auto catalogue = m_catalogues.catalogue(true);
    if (!catalogue)
        return tl::unexpected(std::move(catalogue).error());
    const auto reference = (*catalogue)->manifests.find(version);
    if (reference == (*catalogue)->manifests.end())
        return failure(vlupd::NOT_FOUND, "the catalogue lists no such version");
    m_openSource = [this](std::size_t transfers) {
        Config share = m_config;
        if (share.maxBytesPerSecond > 0)
            share.maxBytesPerSecond =
                std::max<std::uint64_t>(share.maxBytesPerSecond / transfers, 1);
        return openSource(share, m_layout.root(), m_transport);
    };
    auto source = m_openSource(1);
    if (!source)
        return tl::unexpected(std::move(source).error());
    for (const auto& folder : {m_layout.versionFolder(), m_layout.manifests()})
        if (auto made = makeDirectories(folder); !made)
            return made;
    m_old = m_state.installed ? m_state.installed : m_state.removed;
    m_new = {version, reference->second.hash, m_old ? m_old->switchNumber : 0};
    // Large manifests take their time, each on a processor of its own.
    auto base = std::async(std::launch::async, [this] {
        return m_old ? m_root.manifests.get(*m_old) : Expected<std::shared_ptr<const Manifest>>();
    });
    if (m_old && m_old->manifest == m_new.manifest)
        m_target = base.get().value_or(nullptr);
    if (m_target == nullptr) {
        auto manifest = m_catalogues.manifest(**catalogue, version, **source, m_operation);
        if (!manifest)
            return tl::unexpected(std::move(manifest).error());
        m_target = std::make_shared<const Manifest>(std::move(*manifest));
        m_root.manifests.put(m_new.manifest, m_target);
    }
    if (base.valid())
        base.wait();
    return findBase();
}

// The manifest of what lies in the folder; a lost one may still be had by its hash.
Expected<void> Installation::findBase()
{
    m_readAll = m_state.installed && m_state.installed->manifest == m_new.manifest;
    if (!m_old)
        return {};
    auto manifest = m_root.manifests.get(*m_old);
    const bool isLost = !manifest && (manifest.error().code == vlupd::NOT_FOUND ||
                                      manifest.error().code == vlupd::BROKEN_OR_MISSING);
    if (!manifest && !isLost)
        return tl::unexpected(std::move(manifest).error());
    if (!manifest) {
        m_operation.say(manifest.error().message + "; fetching it again");
        auto source = m_openSource(1);
        auto fetched = source ? m_catalogues.manifestByHash(m_old->manifest, m_old->version,
                                                            **source, m_operation)
                              : tl::unexpected(std::move(source).error());
        if (m_operation.cancelled())
            return tl::unexpected(endedByCaller());
        if (!fetched) {
            m_operation.say("what is installed cannot be made use of: " + fetched.error().message);
            return {};
        }
        manifest = std::make_shared<const Manifest>(std::move(*fetched));
    }
    m_base = std::move(*manifest);
    return {};
}

Expected<void> Installation::look()
{
    auto staging = Staging::find(m_layout);
    if (!staging)
        return tl::unexpected(std::move(staging).error());
    m_staging = std::move(*staging);
    auto version = Folder::open(m_layout.versionFolder());
    if (!version)
        return tl::unexpected(std::move(version).error());
    m_version = std::move(*version);
    // The moment before the listing: what is modified later shows a later time.
    const auto place = m_staging->make();
    const auto now = place ? volumeNow(**place) : tl::unexpected(place.error());
    m_new.verified = now.value_or(0);
    if (!now)
        m_operation.say(now.error().message + "; the next installation reads all files");
    auto listing = FolderListing::of(m_version, m_operation);
    if (!listing)
        return tl::unexpected(std::move(listing).error());
    m_listing = std::move(*listing);
    return {};
}

Expected<SwitchPlan> Installation::plan()
{
    for (;;) {
        SwitchPlan plan = planSwitch({.target = *m_target,
                                      .base = m_base.get(),
                                      .listing = m_listing,
                                      .verified = m_old ? m_old->verified : 0,
                                      .readAll = m_readAll,
                                      .known = m_known});
        if (plan.unread.empty())
            return plan;
        if (auto done = read(plan.unread); !done)
            return tl::unexpected(std::move(done).error());
    }
}

Expected<void> Installation::read(const std::vector<HashJob>& jobs)
{
    std::uint64_t bytes = 0;
    for (const HashJob& job : jobs)
        bytes += job.size;
    m_operation.replan(0, bytes);
    const auto results = hashFiles(m_version, jobs, m_operation);
    if (!results)
        return tl::unexpected(results.error());
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        if ((*results)[i].fault)
            m_operation.say((*results)[i].fault->message);
        if (const ListedEntry* listed = m_listing.find(jobs[i].path))
            m_known.add(*listed, (*results)[i].hash);
    }
    return {};
}

// False when everything that comes is staged already.
Expected<bool> Installation::stage(const SwitchPlan& plan)
{
    std::vector<FileNumber> wanted = plan.in;
    std::ranges::sort(wanted);
    if (std::ranges::includes(m_staged, wanted))
        return false;
    std::optional<BaseVersion> base;
    if (m_base)
        base.emplace(BaseVersion{*m_base, m_old->manifest, m_version, m_listing});
    Stager stager(*m_target, m_new.manifest, base ? &*base : nullptr, *m_staging, m_openSource,
                  m_operation);
    auto staged = stager.stage(wanted);
    m_lacksRoom = stager.lacksRoom();
    if (!staged)
        return tl::unexpected(std::move(staged).error());
    m_staged = std::move(wanted);
    return true;
}

// True when it had to wait; what lies in the folder may be another thing by then.
Expected<bool> Installation::waitForPrograms()
{
    m_programs = {};
    if (m_base)
        m_programs.push_back(programFilesOf(*m_base, m_version, m_listing));
    std::string waitingFor;
    for (;;) {
        if (!m_operation.pump())
            return tl::unexpected(endedByCaller());
        const auto running = runningProgram();
        if (!running)
            return !waitingFor.empty();
        if (describe(*running) != waitingFor) {
            waitingFor = describe(*running);
            m_operation.say("waiting for " + waitingFor + " to end");
        }
        const auto end = std::chrono::steady_clock::now() + lookInterval;
        while (std::chrono::steady_clock::now() < end) {
            if (!m_operation.pump())
                return tl::unexpected(endedByCaller());
            std::this_thread::sleep_for(pumpInterval);
        }
    }
}

std::optional<RunningProgram> Installation::runningProgram() const
{
    for (const ProgramFiles& files : m_programs)
        if (auto running = findRunning(files))
            return running;
    return std::nullopt;
}

// False when a program was started meanwhile.
Expected<bool> Installation::apply(const SwitchPlan& plan)
{
    const auto asIs = [](const std::string& name) { return name; };
    sayAll(m_operation, "replaced, although somebody has changed it", plan.edited, asIs);
    sayAll(m_operation, "kept the user's", plan.moves,
           [](const UserMove& move) { return move.from + " as " + move.to; });
    // Left behind by a switch whose journal was lost. All that comes is verified by now.
    if (auto removed = m_staging->removeFolder(asideFolderName, {}); !removed)
        return tl::unexpected(std::move(removed).error());
    const Switch journal = journalOf(plan);
    const Folder& place = *m_staging->folder();
    const auto aside = place.makeFolder(asideFolderName);
    const auto staged = place.makeFolder(stagedFolderName(m_new.manifest));
    if (!aside || !staged)
        return tl::unexpected(aside ? staged.error() : aside.error());
    const auto mayGoOn = [&] {
        if (m_base)
            m_programs.push_back(
                programFilesIn(aside->path(), *m_base, journal.programs, journal.out));
        const auto running = runningProgram();
        if (running)
            m_operation.say(describe(*running) + " was started meanwhile");
        return !running;
    };
    Expected<bool> applied = false;
    auto done = runInBackground(m_operation, [&]() -> Expected<void> {
        applied = carryOut(m_root, journal, {m_version, *staged, *aside}, mayGoOn);
        return {};
    });
    return done ? applied : tl::unexpected(std::move(done).error());
}

// All is as it should be already; a switch that could not be finished has left nothing of use.
Expected<void> Installation::confirm()
{
    m_operation.say("nothing has to be changed");
    auto done = writeInstalled(m_layout, m_new);
    if (done && m_state.journalDamaged)
        done = m_staging->removeFolder(asideFolderName, {});
    if (done && m_state.journalDamaged)
        done = removeFile(m_layout.journalFile());
    m_staging->removeIfEmpty();
    m_operation.endStage();
    return done;
}

std::uint64_t Installation::sizeOf(const std::vector<FileNumber>& files) const
{
    std::uint64_t bytes = 0;
    for (const FileNumber number : files)
        bytes += m_target->files[number].size;
    return bytes;
}

Switch Installation::journalOf(const SwitchPlan& plan) const
{
    Switch journal;
    if (m_base)
        journal.from = m_old;
    journal.fromRemoved = !m_state.installed && m_old;
    journal.number = m_new.switchNumber + 1;
    if (m_state.begun)
        journal.number = std::max(journal.number, m_state.begun->number + 1);
    journal.to = m_new;
    journal.to.switchNumber = journal.number;
    journal.out = plan.out;
    journal.in = plan.in;
    journal.programs = plan.programs;
    journal.moves = plan.moves;
    journal.emptied = plan.emptied;
    return journal;
}

} // namespace

Expected<void> installVersion(const InstallationContext& context, const std::string& version)
{
    context.root.operation.beginStage(vlupd::STAGE_DOWNLOADING, 0, 0);
    for (bool again = false;; again = true) {
        auto state = settle(context.root);
        if (!state)
            return tl::unexpected(std::move(state).error());
        if (state->isCommitted()) {
            if (auto tidied = tidy(context.root, *state, {}); !tidied)
                context.root.operation.say(tidied.error().message + "; tried again later");
            state = readState(context.root.layout);
            if (!state)
                return tl::unexpected(std::move(state).error());
        }
        Installation installation(context, *state);
        auto installed = installation.run(version);
        // What is left of a removed version can be used, but not where there is no room for it.
        if (again || installed || !installation.lacksRoom() || !state->removed)
            return installed;
        if (auto removed = deleteRemoved(context.root, *state->removed); !removed)
            return removed;
    }
}

Expected<void> removeVersion(const RootContext& context, const std::string& version)
{
    const auto state = settle(context);
    if (!state)
        return tl::unexpected(state.error());
    if (!state->installed || state->installed->version != version)
        return failure(vlupd::NOT_FOUND, "not installed");
    const auto manifest = context.manifests.get(*state->installed);
    const auto folder = Folder::open(context.layout.versionFolder());
    if (manifest && folder) {
        const auto listing = FolderListing::of(*folder, context.operation);
        if (!listing)
            return tl::unexpected(listing.error());
        const auto running = findRunning(programFilesOf(**manifest, *folder, *listing));
        if (running)
            return failure(vlupd::SYSTEM_CALL_ERROR, describe(*running) + " is running");
    }
    if (auto removed =
            renameReplacing(context.layout.installedFile(), context.layout.removedFile());
        !removed)
        return removed;
    if (state->journalDamaged) // it might bring the version back
        if (const auto gone = removeFile(context.layout.journalFile()); !gone)
            context.operation.say(gone.error().message);
    // Before the first file is deleted.
    if (const auto flushed = syncDirectory(context.layout.root()); !flushed)
        context.operation.say(flushed.error().message);
    return {};
}

} // namespace vl
