#include "vl/src/install/housekeeping.h"

#include "vl/src/install/userfiles.h"
#include "vl/src/transport/catalogueservice.h"

#include <algorithm>
#include <set>
#include <utility>

namespace vl {

namespace {

constexpr std::chrono::hours journalLife{14 * 24};
// Long enough for whoever is writing one right now, with or without the lock.
constexpr std::chrono::hours temporaryLife{1};
// What a start may spend on the folders of old versions.
constexpr std::chrono::seconds briefTime{1};

bool logged(const Expected<void>& result, Operation& operation)
{
    if (!result)
        operation.say(result.error().message + "; tried again later");
    return result.has_value();
}

bool isOlder(const FileInfo& info, std::chrono::minutes age)
{
    // Ages beyond a century would overflow the clock.
    const auto limit = std::clamp(age, std::chrono::minutes(0), std::chrono::minutes(53'000'000));
    return std::filesystem::file_time_type::clock::now() - info.modified >= limit;
}

// Its user's files first, then the folder; false while anything of it has to stay.
bool retire(const RootLayout& layout, const InstalledTree& tree, const State& state,
            Patience patience, Operation& operation)
{
    const auto present = fileInfo(layout.tree(tree.id));
    if (present && !*present)
        return true;
    if (state.installed) {
        const auto old = readSavedManifest(layout, tree);
        const auto current = readSavedManifest(layout, *state.installed);
        if (!current)
            return logged(tl::unexpected(current.error()), operation);
        if (!old && old.error().code == vlupd::SYSTEM_CALL_ERROR)
            return logged(tl::unexpected(old.error()), operation);
        // A program that runs still reads its user's files, and writes them when it ends.
        for (const auto& [key, program] : (old ? *old : *current).executables)
            if (const auto path = layout.tree(tree.id) / fromUtf8(program); isRunning(path))
                return logged(failure(vlupd::SYSTEM_CALL_ERROR, toUtf8(path) + " is running"),
                              operation);
        // Without its own manifest nothing tells the user's files from the old version's: all
        // that the new version does not bring itself are kept rather than lost.
        const auto carried = carryUserFiles(layout.tree(tree.id), old ? *old : *current,
                                            layout.tree(state.installed->id), patience, operation);
        if (!logged(carried, operation))
            return false;
    }
    return logged(moveToTrash(layout, tree.id, Patience::None), operation);
}

void clearVersions(const RootLayout& layout, const std::set<std::string>& kept,
                   std::chrono::steady_clock::time_point until, Operation& operation)
{
    auto entries = listDirectory(layout.versions());
    if (!entries) {
        logged(tl::unexpected(entries.error()), operation);
        return;
    }
    // Sidecars first: a folder that is half removed must not be taken for a version.
    std::ranges::sort(*entries, {}, [](const TreeEntry& entry) { return entry.info.kind; });
    for (const TreeEntry& entry : *entries) {
        std::string folder = entry.path;
        if (entry.info.kind == FileKind::File && folder.ends_with(".json"))
            folder.resize(folder.size() - 5);
        const bool ours = RootLayout::isTrashName(folder) || TreeId::fromFolderName(folder);
        if (ours && !kept.contains(folder))
            logged(removeTree(layout.versions() / fromUtf8(entry.path), Patience::None, until),
                   operation);
    }
}

void clearManifests(const RootLayout& layout, const std::set<std::filesystem::path>& kept,
                    Operation& operation)
{
    const auto entries = listDirectory(layout.manifests());
    for (const TreeEntry& entry : entries.value_or(std::vector<TreeEntry>())) {
        const auto path = layout.manifests() / fromUtf8(entry.path);
        if (entry.path.ends_with(".json") && entry.info.kind == FileKind::File &&
            RootLayout::isDownloadName(entry.path) && !kept.contains(path))
            logged(removeFile(path), operation);
    }
}

// What the journal tells of has ended well.
void forgetDownloads(const RootLayout& layout, const Journal& journal, Operation& operation)
{
    const auto entries = listDirectory(layout.downloads());
    bool all = logged(entries ? Expected<void>() : tl::unexpected(entries.error()), operation);
    for (const TreeEntry& entry : entries.value_or(std::vector<TreeEntry>()))
        if (entry.info.kind == FileKind::File && journal.needs(entry.path))
            all = logged(removeFile(layout.downloads() / fromUtf8(entry.path)), operation) && all;
    if (all)
        logged(removeFile(layout.journalFile()), operation);
}

void clearTemporaries(const RootLayout& layout, Operation& operation)
{
    const auto& root = layout.root();
    for (const auto& folder :
         {root, root / "catalogue", layout.manifests(), layout.versions(), layout.downloads()}) {
        const auto entries = listDirectory(folder);
        for (const TreeEntry& entry : entries.value_or(std::vector<TreeEntry>()))
            if (isTemporaryName(entry.path) && isOlder(entry.info, temporaryLife))
                logged(removeFile(folder / fromUtf8(entry.path)), operation);
    }
}

} // namespace

Expected<State> takeOverState(const RootLayout& layout, Operation& operation)
{
    auto reading = readState(layout);
    if (!reading)
        return tl::unexpected(std::move(reading).error());
    if (reading->repaired) {
        operation.say(*reading->repaired);
        if (auto written = writeState(layout, reading->state); !written)
            return tl::unexpected(std::move(written).error());
    }
    return std::move(reading->state);
}

void tidyUp(const RootLayout& layout, const State& state, Operation& operation, Tidying tidying)
{
    const bool brief = tidying == Tidying::Brief;
    using Clock = std::chrono::steady_clock;
    const auto until = brief ? Clock::now() + briefTime : Clock::time_point::max();
    const Patience patience = brief ? Patience::None : Patience::Usual;
    std::set<std::string> keptFolders;
    std::set<std::filesystem::path> keptManifests;
    const auto keep = [&](const InstalledTree& tree) {
        keptFolders.insert(tree.id.folderName());
        keptManifests.insert(savedManifestPath(layout.root(), tree.manifest));
    };
    if (state.installed)
        keep(*state.installed);
    if (!state.superseded.empty()) {
        // Before the old version goes, the record of the new one must be certain to stay.
        const bool durable = logged(syncDirectory(layout.root()), operation);
        for (const InstalledTree& tree : state.superseded)
            if (!durable || !retire(layout, tree, state, patience, operation))
                keep(tree);
    }
    if (const auto journal = readJournal(layout)) {
        if (state.installed && state.installed->id == journal->tree.id)
            forgetDownloads(layout, *journal, operation);
        else
            keptManifests.insert(savedManifestPath(layout.root(), journal->tree.manifest));
    }
    clearVersions(layout, keptFolders, until, operation);
    clearManifests(layout, keptManifests, operation);
    clearTemporaries(layout, operation);
}

bool removeDownloads(const RootLayout& layout, std::chrono::minutes age, Operation& operation)
{
    const auto entries = listDirectory(layout.downloads());
    if (!entries)
        return logged(tl::unexpected(entries.error()), operation);
    const auto journal = readJournal(layout);
    bool all = true;
    bool someNeeded = false;
    for (const TreeEntry& entry : *entries) {
        const auto path = layout.downloads() / fromUtf8(entry.path);
        const bool needed = journal && journal->needs(entry.path);
        const auto life = needed ? std::max<std::chrono::minutes>(age, journalLife) : age;
        if (entry.info.kind == FileKind::File && RootLayout::isDownloadName(entry.path) &&
            isOlder(entry.info, life))
            all = logged(removeFile(path), operation) && all;
        else
            someNeeded = someNeeded || needed;
    }
    // What nothing is left of need not be remembered, nor its manifest be kept.
    if (journal && !someNeeded)
        all = logged(removeFile(layout.journalFile()), operation) && all;
    return all;
}

void removeOtherDownloads(const RootLayout& layout, const Journal& kept, Operation& operation)
{
    const auto entries = listDirectory(layout.downloads());
    for (const TreeEntry& entry : entries.value_or(std::vector<TreeEntry>())) {
        const auto path = layout.downloads() / fromUtf8(entry.path);
        if (entry.info.kind == FileKind::File && RootLayout::isDownloadName(entry.path) &&
            !kept.needs(entry.path))
            logged(removeFile(path), operation);
    }
}

Expected<void> moveToTrash(const RootLayout& layout, const TreeId& id, Patience patience)
{
    const auto present = fileInfo(layout.tree(id));
    if (!present)
        return tl::unexpected(present.error());
    return *present ? renameReplacing(layout.tree(id), layout.trash(id), patience)
                    : Expected<void>();
}

} // namespace vl
