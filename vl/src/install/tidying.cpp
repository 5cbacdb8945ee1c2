#include "vl/src/install/tidying.h"

#include "vl/src/install/filehasher.h"
#include "vl/src/install/folderwalker.h"
#include "vl/src/install/staging.h"
#include "vl/src/platform/file.h"
#include "vl/src/transport/catalogueservice.h"

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <utility>

namespace vl {

namespace {

constexpr std::chrono::hours stagedLife{14 * 24};
// Long enough for whoever is writing one right now, with or without the lock.
constexpr std::chrono::hours temporaryLife{1};

/// The first failure of several pieces of work.
class Failures final
{
public:
    bool note(Expected<void> result)
    {
        const bool good = result.has_value();
        if (m_first && !good)
            m_first = std::move(result);
        return good;
    }
    Expected<void> first() const { return m_first; }

private:
    Expected<void> m_first;
};

std::function<bool()> goOn(const RootContext& context)
{
    return [&context] { return context.operation.pump(); };
}

Expected<std::optional<Folder>> openVersionFolder(const RootLayout& layout)
{
    auto folder = Folder::open(layout.versionFolder());
    if (folder)
        return std::optional(std::move(*folder));
    if (folder.error().code == vlupd::NOT_FOUND)
        return std::optional<Folder>();
    return tl::unexpected(std::move(folder).error());
}

// Removes those folders of the files that are empty, each after those in it.
Expected<void> removeEmptyParents(const Folder& version,
                                  const std::vector<const ManifestFile*>& files)
{
    FolderPaths folders;
    for (const ManifestFile* file : files)
        addParents(file->path, folders);
    FolderWalker walker(version);
    Failures failures;
    for (const std::string_view path : folders) {
        const auto parent = walker.parentOf(path);
        if (!parent)
            continue; // gone, or a link of the user
        const auto removed = (*parent)->removeFolder(nameOf(path), Patience::None);
        if (!removed)
            failures.note(tl::unexpected(removed.error()));
    }
    return failures.first();
}

// What the commit of a switch has made superfluous.
Expected<void> tidySwitch(const RootContext& context, const Switch& journal)
{
    auto staging = Staging::find(context.layout);
    if (!staging)
        return tl::unexpected(std::move(staging).error());
    const auto aside = staging->findFolder(asideFolderName);
    const auto old = aside && *aside ? (*aside)->list() : Expected<std::vector<FolderEntry>>();
    if (old && !old->empty()) {
        std::uint64_t bytes = 0;
        for (const FolderEntry& entry : *old)
            bytes += entry.size;
        context.operation.say("deleting " + std::to_string(old->size()) + " files that version " +
                              journal.to.version + " has replaced, " + std::to_string(bytes) +
                              " bytes");
    }
    if (auto removed = staging->removeFolder(asideFolderName, goOn(context)); !removed)
        return removed;
    if (auto removed = staging->removeStaged(journal.to.manifest, goOn(context)); !removed)
        return removed;
    staging->removeIfEmpty();
    const auto from = journal.from ? context.manifests.get(*journal.from)
                                   : Expected<std::shared_ptr<const Manifest>>();
    const auto version = openVersionFolder(context.layout);
    if (from && *from && version && *version) {
        std::vector<const ManifestFile*> left;
        for (const FileNumber number : journal.out)
            if (number < (*from)->files.size())
                left.push_back(&(*from)->files[number]);
        if (auto removed = removeEmptyParents(**version, left); !removed)
            context.operation.say(removed.error().message);
    }
    return removeFile(context.layout.journalFile());
}

// The files that go: all but the settings that the user has changed.
Expected<std::vector<const ManifestFile*>>
filesToDelete(const RootContext& context, const Manifest& manifest, const Folder& version)
{
    std::vector<const ManifestFile*> files;
    std::vector<const ManifestFile*> settings;
    std::vector<HashJob> jobs;
    for (const ManifestFile& file : manifest.files) {
        if (file.role == FileRole::Settings) {
            settings.push_back(&file);
            jobs.push_back({file.path, file.size});
        } else {
            files.push_back(&file);
        }
    }
    const auto hashes = hashFiles(version, jobs, context.operation);
    if (!hashes)
        return tl::unexpected(hashes.error());
    for (std::size_t i = 0; i < settings.size(); ++i)
        if ((*hashes)[i].hash == settings[i]->hash)
            files.push_back(settings[i]);
    std::ranges::sort(files, {}, &ManifestFile::path);
    return files;
}

Expected<void> deleteFiles(const RootContext& context, const VersionRecord& record,
                           const std::vector<const ManifestFile*>& files, const Folder& version)
{
    FolderWalker walker(version);
    Failures failures;
    std::size_t count = 0;
    std::uint64_t bytes = 0;
    for (const ManifestFile* file : files) {
        if (!context.operation.pump())
            return failure(vlupd::SYSTEM_CALL_ERROR,
                           "deleting the files of " + record.version + " goes on later");
        const auto parent = walker.parentOf(file->path);
        if (!parent) {
            if (!hasNoFolder(parent.error()))
                failures.note(tl::unexpected(parent.error()));
            continue;
        }
        const auto entry = (*parent)->find(nameOf(file->path));
        if (!entry)
            failures.note(tl::unexpected(entry.error()));
        if (!entry || !*entry || (*entry)->kind != FileKind::File)
            continue;
        if (failures.note((*parent)->removeFile(nameOf(file->path), Patience::None))) {
            ++count;
            bytes += (*entry)->size;
        }
    }
    walker.close();
    failures.note(removeEmptyParents(version, files));
    context.operation.say("deleted " + std::to_string(count) + " files of version " +
                          record.version + ", " + std::to_string(bytes) + " bytes");
    return failures.first();
}

Expected<void> tidyStaged(const RootContext& context, std::set<Hash>& kept,
                          std::chrono::minutes age)
{
    auto staging = Staging::find(context.layout);
    if (!staging)
        return tl::unexpected(std::move(staging).error());
    const auto staged = staging->staged();
    if (!staged)
        return tl::unexpected(staged.error());
    if (staging->folder() == nullptr)
        return {};
    const auto now = volumeNow(*staging->folder());
    const auto life = std::chrono::nanoseconds(
        std::clamp<std::chrono::minutes>(age, stagedLife, std::chrono::minutes(53'000'000)));
    Failures failures;
    for (const Staging::Staged& one : *staged) {
        if (!now || *now - one.modified < life.count()) {
            kept.insert(one.manifest);
            continue;
        }
        context.operation.say("removing " + std::to_string(one.bytes) +
                              " bytes of an installation that was interrupted long ago");
        failures.note(staging->removeStaged(one.manifest, goOn(context)));
    }
    staging->removeIfEmpty();
    return failures.first();
}

Expected<void> tidyManifests(const RootContext& context, const std::set<Hash>& kept)
{
    Failures failures;
    const auto entries = listDirectory(context.layout.manifests());
    for (const TreeEntry& entry : entries.value_or(std::vector<TreeEntry>())) {
        const auto hash = hashFromHex(std::string_view(entry.path).substr(0, entry.path.find('.')));
        if (hash && !kept.contains(*hash) && entry.info.kind == FileKind::File)
            failures.note(removeFile(context.layout.manifests() / fromUtf8(entry.path)));
    }
    return failures.first();
}

Expected<void> tidyTemporaries(const RootContext& context)
{
    Failures failures;
    const auto& root = context.layout.root();
    const auto now = std::filesystem::file_time_type::clock::now();
    for (const auto& folder : {root, root / "catalogue", context.layout.manifests()}) {
        const auto entries = listDirectory(folder);
        for (const TreeEntry& entry : entries.value_or(std::vector<TreeEntry>()))
            if (isTemporaryName(entry.path) && now - entry.info.modified >= temporaryLife)
                failures.note(removeFile(folder / fromUtf8(entry.path)));
    }
    return failures.first();
}

} // namespace

bool needsTidying(const RootLayout& layout)
{
    for (const auto& file : {layout.journalFile(), layout.removedFile()})
        if (const auto info = fileInfo(file); info && *info)
            return true;
    return false;
}

Expected<void> tidy(const RootContext& context, const State& state, std::chrono::minutes age)
{
    Failures failures;
    std::set<Hash> kept;
    const auto keep = [&kept](const std::optional<VersionRecord>& record) {
        if (record)
            kept.insert(record->manifest);
    };
    keep(state.installed);
    const bool isSettled = !state.begun || state.isCommitted();
    // The record of a removal that the installed version came after: before the journal, which
    // tells that it did.
    if (state.installed && isSettled && !state.journalDamaged)
        failures.note(removeFile(context.layout.removedFile()));
    if (state.isCommitted() && !failures.note(tidySwitch(context, *state.begun)))
        keep(state.begun->from);
    if (!state.installed && state.removed && isSettled)
        if (!failures.note(deleteRemoved(context, *state.removed)))
            keep(state.removed);
    if (failures.note(tidyStaged(context, kept, age)) && !state.journalDamaged)
        failures.note(tidyManifests(context, kept));
    failures.note(tidyTemporaries(context));
    return failures.first();
}

Expected<void> deleteRemoved(const RootContext& context, const VersionRecord& record)
{
    const auto manifest = context.manifests.get(record);
    if (!manifest)
        return failure("the files of the removed version " + record.version + " stay",
                       manifest.error());
    auto version = openVersionFolder(context.layout);
    if (!version)
        return tl::unexpected(std::move(version).error());
    if (*version) {
        const auto files = filesToDelete(context, **manifest, **version);
        if (!files)
            return tl::unexpected(files.error());
        if (auto deleted = deleteFiles(context, record, *files, **version); !deleted)
            return deleted;
        version->reset();
        if (const auto root = Folder::open(context.layout.root()))
            (void)root->removeFolder(versionFolderName, Patience::None); // a link or full one stays
    }
    // Files of it that a switch which could not be finished has moved.
    const auto staging = Staging::find(context.layout);
    if (!staging)
        return tl::unexpected(staging.error());
    if (auto removed = staging->removeFolder(asideFolderName, goOn(context)); !removed)
        return removed;
    return removeFile(context.layout.removedFile());
}

} // namespace vl
