#include "vl/src/install/staging.h"

#include "vl/src/install/filehasher.h"
#include "vl/src/platform/file.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace vl {

namespace {

std::optional<FileNumber> numberOf(const std::string& name, std::size_t limit)
{
    FileNumber number = 0;
    const char* const end = name.data() + name.size();
    const auto [last, error] = std::from_chars(name.data(), end, number);
    const bool good = error == std::errc() && last == end && number < limit;
    return good && std::to_string(number) == name ? std::optional(number) : std::nullopt;
}

// A folder of its own volume, or one that is reached by a link, shares no volume with what lies
// beside it.
Expected<bool> liesElsewhere(const RootLayout& layout, const Folder& root)
{
    const auto entry = root.find(versionFolderName);
    if (!entry)
        return tl::unexpected(entry.error());
    if (!*entry || (*entry)->kind == FileKind::File)
        return false;
    if ((*entry)->kind == FileKind::Other)
        return true;
    const auto version = Folder::open(layout.versionFolder());
    if (!version)
        return tl::unexpected(version.error());
    const auto volume = version->volume();
    const auto rootVolume = root.volume();
    if (!volume || !rootVolume)
        return tl::unexpected(volume ? rootVolume.error() : volume.error());
    return *volume != *rootVolume;
}

template <class Result> Expected<std::optional<Result>> orNothing(Expected<Result> result)
{
    if (result)
        return std::optional<Result>(std::move(*result));
    // Nothing of ours is in what is no folder; making one in its place fails.
    if (result.error().code == vlupd::NOT_FOUND || result.error().code == vlupd::BROKEN_OR_MISSING)
        return std::optional<Result>();
    return tl::unexpected(std::move(result).error());
}

} // namespace

Expected<Staging> Staging::find(const RootLayout& layout)
{
    auto root = Folder::open(layout.root());
    if (!root)
        return tl::unexpected(std::move(root).error());
    const auto elsewhere = liesElsewhere(layout, *root);
    if (!elsewhere)
        return tl::unexpected(elsewhere.error());
    Staging staging;
    staging.m_name = *elsewhere ? stagingInsideName : stagingBesideName;
    auto parent = *elsewhere ? Folder::open(layout.versionFolder()) : std::move(root);
    if (!parent)
        return tl::unexpected(std::move(parent).error());
    staging.m_parent = std::move(*parent);
    auto folder = orNothing(staging.m_parent.openFolder(staging.m_name));
    if (!folder)
        return tl::unexpected(std::move(folder).error());
    if (*folder)
        staging.m_folder = std::move(**folder);
    return staging;
}

Expected<const Folder*> Staging::make()
{
    if (!m_folder.isOpen()) {
        auto made = m_parent.makeFolder(m_name);
        if (!made)
            return tl::unexpected(std::move(made).error());
        m_folder = std::move(*made);
    }
    return &m_folder;
}

Expected<std::optional<Folder>> Staging::findFolder(const std::string& name) const
{
    if (!m_folder.isOpen())
        return std::optional<Folder>();
    return orNothing(m_folder.openFolder(name));
}

Expected<std::vector<Staging::Staged>> Staging::staged() const
{
    std::vector<Staged> all;
    if (!m_folder.isOpen())
        return all;
    const auto entries = m_folder.list();
    if (!entries)
        return tl::unexpected(entries.error());
    for (const FolderEntry& entry : *entries) {
        const auto manifest = manifestOfStagedFolder(entry.name);
        if (!manifest || entry.kind != FileKind::Directory)
            continue;
        Staged staged{.manifest = *manifest};
        const auto folder = m_folder.openFolder(entry.name);
        const auto files = folder ? folder->list() : tl::unexpected(folder.error());
        if (!files)
            return tl::unexpected(files.error());
        for (const FolderEntry& file : *files) {
            staged.bytes += file.size;
            staged.modified = std::max(staged.modified, file.modified);
        }
        all.push_back(staged);
    }
    return all;
}

Expected<void> Staging::removeStaged(const Hash& manifest, const std::function<bool()>& goOn) const
{
    return removeFolder(stagedFolderName(manifest), goOn);
}

Expected<void> Staging::removeFolder(const std::string& name,
                                     const std::function<bool()>& goOn) const
{
    const auto folder = findFolder(name);
    if (!folder)
        return tl::unexpected(folder.error());
    if (!*folder)
        return {};
    if (auto emptied = emptyFolder(**folder, Patience::None, goOn); !emptied)
        return emptied;
    const auto removed = m_folder.removeFolder(name);
    return removed ? Expected<void>() : tl::unexpected(removed.error());
}

void Staging::removeIfEmpty()
{
    m_folder = Folder();
    (void)m_parent.removeFolder(m_name, Patience::None); // the next operation does it
}

Expected<StagedFiles> verifyStaged(const Folder& folder, const Manifest& manifest,
                                   const std::vector<FileNumber>& wanted, Operation& operation)
{
    const auto entries = folder.list();
    if (!entries)
        return tl::unexpected(entries.error());
    StagedFiles staged;
    std::vector<HashJob> jobs;
    std::vector<FileNumber> numbers;
    const auto remove = [&folder](const FolderEntry& entry) -> Expected<void> {
        if (entry.kind != FileKind::Directory)
            return folder.removeFile(entry.name);
        const auto below = folder.openFolder(entry.name);
        if (below)
            (void)emptyFolder(*below, Patience::Usual);
        const auto removed = folder.removeFolder(entry.name);
        return removed ? Expected<void>() : tl::unexpected(removed.error());
    };
    for (const FolderEntry& entry : *entries) {
        const auto number = numberOf(entry.name, manifest.files.size());
        const bool isWanted =
            number && std::ranges::binary_search(wanted, *number) && entry.kind == FileKind::File;
        if (isWanted && entry.size == manifest.files[*number].size) {
            jobs.push_back({entry.name, entry.size});
            numbers.push_back(*number);
        } else if (isWanted && entry.size < manifest.files[*number].size) {
            staged.cut[*number] = entry.size;
        } else if (auto removed = remove(entry); !removed) {
            return tl::unexpected(std::move(removed).error());
        }
    }
    std::uint64_t bytes = 0;
    for (const HashJob& job : jobs)
        bytes += job.size;
    operation.replan(0, bytes);
    const auto hashes = hashFiles(folder, jobs, operation);
    if (!hashes)
        return tl::unexpected(hashes.error());
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        if ((*hashes)[i].hash == manifest.files[numbers[i]].hash)
            staged.whole.push_back(numbers[i]);
        else if (auto removed = folder.removeFile(jobs[i].path); !removed)
            return tl::unexpected(std::move(removed).error());
    }
    std::ranges::sort(staged.whole);
    return staged;
}

} // namespace vl
