#include "vl/src/install/recovery.h"

#include "vl/src/install/staging.h"

#include <optional>
#include <utility>

namespace vl {

namespace {

/// The manifests of a switch; the older one is null where the journal names none.
struct Manifests
{
    std::shared_ptr<const Manifest> from;
    std::shared_ptr<const Manifest> to;
};

/// The open folders of a switch that was interrupted.
struct Scene
{
    Folder version;
    Folder staged;
    Folder aside;
};

Expected<Manifests> readManifests(const RootContext& context, const Switch& journal)
{
    Manifests manifests;
    auto to = context.manifests.get(journal.to);
    if (!to)
        return tl::unexpected(std::move(to).error());
    manifests.to = std::move(*to);
    if (journal.from) {
        auto from = context.manifests.get(*journal.from);
        if (!from)
            return tl::unexpected(std::move(from).error());
        manifests.from = std::move(*from);
    }
    return manifests;
}

Expected<Scene> openScene(const RootContext& context, const Switch& journal)
{
    Scene scene;
    if (auto made = makeDirectories(context.layout.versionFolder()); !made)
        return tl::unexpected(std::move(made).error());
    auto staging = Staging::find(context.layout);
    if (!staging)
        return tl::unexpected(std::move(staging).error());
    const auto place = staging->make();
    if (!place)
        return tl::unexpected(place.error());
    auto staged = (*place)->makeFolder(stagedFolderName(journal.to.manifest));
    auto aside = (*place)->makeFolder(asideFolderName);
    auto version = Folder::open(context.layout.versionFolder());
    if (!staged || !aside || !version)
        return tl::unexpected(!staged ? staged.error() : !aside ? aside.error() : version.error());
    scene.staged = std::move(*staged);
    scene.aside = std::move(*aside);
    scene.version = std::move(*version);
    return scene;
}

// The commit point. A failure may have come after the new record took its place.
Expected<void> commit(const RootContext& context, const Switch& journal)
{
    if (auto flushed = syncVolume(context.layout.versionFolder()); !flushed)
        return flushed;
    auto written = writeInstalled(context.layout, journal.to);
    if (written)
        return written;
    const auto installed = readVersionRecord(context.layout.installedFile());
    const bool committed =
        installed && installed->record && installed->record->switchNumber == journal.number;
    if (!committed)
        return written;
    context.operation.say(written.error().message);
    return {};
}

Expected<void> undo(const RootContext& context, VersionSwitch& change)
{
    auto undone = change.undo({});
    if (undone)
        undone = syncVolume(context.layout.versionFolder());
    if (undone)
        undone = removeFile(context.layout.journalFile());
    return undone ? undone : failure("undo the switch", std::move(undone).error());
}

// A mixture of two versions is left, which checks will find and the next installation repairs.
State withoutJournal(State state)
{
    state.begun.reset();
    state.journalDamaged = true;
    if (state.installed)
        state.installed->verified = 0;
    return state;
}

} // namespace

Expected<State> settle(const RootContext& context)
{
    auto state = readState(context.layout);
    if (!state)
        return state;
    if (!state->fault.empty())
        context.operation.say(state->fault);
    if (!state->begun || state->isCommitted()) {
        if (state->rebuilt && state->installed)
            if (auto written = writeInstalled(context.layout, *state->installed); !written)
                context.operation.say(written.error().message + "; tried again later");
        return state;
    }
    const Switch journal = *state->begun;
    const auto withoutIt = [&](const Error& fault) {
        context.operation.say("the switch to " + journal.to.version +
                              " cannot be finished: " + fault.message);
        return withoutJournal(std::move(*state));
    };
    const auto manifests = readManifests(context, journal);
    if (!manifests && manifests.error().code != vlupd::SYSTEM_CALL_ERROR)
        return withoutIt(manifests.error());
    const auto scene = manifests ? openScene(context, journal)
                                 : Expected<Scene>(tl::unexpected(manifests.error()));
    if (!scene)
        return failure("finish the switch to " + journal.to.version, scene.error());
    VersionSwitch change(journal, manifests->from.get(), *manifests->to,
                         {scene->version, scene->staged, scene->aside}, Patience::Usual);
    const auto goOn = [&context] { return context.operation.pump(); };
    auto done = change.begin();
    if (!done && done.error().code == vlupd::UPDATER_DATA_ERROR)
        return withoutIt(done.error());
    if (!done)
        return tl::unexpected(std::move(done).error());
    done = change.finish(goOn);
    if (done)
        done = commit(context, journal);
    if (done) {
        context.operation.say("finished the interrupted switch to " + journal.to.version);
        return readState(context.layout);
    }
    // Without the record of what is installed there is nothing to go back to.
    if (context.operation.cancelled() || state->rebuilt)
        return failure("finish the switch to " + journal.to.version, std::move(done).error());
    context.operation.say("finish the switch to " + journal.to.version + ": " +
                          done.error().message + "; undoing it");
    if (auto undone = undo(context, change); !undone)
        return tl::unexpected(std::move(undone).error());
    return readState(context.layout);
}

Expected<bool> carryOut(const RootContext& context, const Switch& journal,
                        const SwitchFolders& folders, const std::function<bool()>& mayGoOn)
{
    const auto manifests = readManifests(context, journal);
    if (!manifests)
        return tl::unexpected(manifests.error());
    VersionSwitch change(journal, manifests->from.get(), *manifests->to, folders, Patience::Long);
    change.countOn(context.operation);
    auto done = change.begin();
    if (done)
        done = writeJournal(context.layout, journal);
    if (!done)
        return tl::unexpected(std::move(done).error());
    done = change.stopPrograms({});
    const bool goesOn = !done || mayGoOn();
    if (done && goesOn)
        done = change.finish({});
    if (done && goesOn)
        done = commit(context, journal);
    if (done && goesOn)
        return true;
    auto undone = undo(context, change);
    if (!done) {
        if (!undone)
            context.operation.say(undone.error().message + "; tried again by the next operation");
        return tl::unexpected(std::move(done).error());
    }
    return undone ? Expected<bool>(false) : tl::unexpected(std::move(undone).error());
}

} // namespace vl
