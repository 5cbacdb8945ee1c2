#include "vl/src/install/filecheck.h"

#include "vl/src/install/filehasher.h"
#include "vl/src/install/listing.h"

#include <algorithm>
#include <utility>

namespace vl {

namespace {

// What a listing alone shows to be wrong with a file, or an empty text.
std::string visibleDamage(const ManifestFile& file, const ListedEntry* found)
{
    if (found == nullptr)
        return "missing";
    if (found->entry.kind != FileKind::File)
        return "not a regular file";
    if (found->entry.size != file.size)
        return std::to_string(found->entry.size) + " bytes instead of " + std::to_string(file.size);
    return {};
}

} // namespace

Expected<std::vector<std::string>> findDamage(const Manifest& manifest, const Folder* folder,
                                              const std::string& subfolder, Operation& operation)
{
    const std::string prefix =
        subfolder.empty() || subfolder.ends_with('/') ? subfolder : subfolder + "/";
    const auto listing =
        folder != nullptr ? FolderListing::of(*folder, operation) : Expected<FolderListing>();
    if (!listing)
        return tl::unexpected(listing.error());
    bool any = false;
    std::vector<std::string> damage;
    std::vector<HashJob> jobs;
    std::vector<const ManifestFile*> files;
    for (const ManifestFile& file : manifest.files) {
        if (!file.path.starts_with(prefix) && file.path != subfolder)
            continue;
        any = true;
        if (file.role == FileRole::Settings)
            continue;
        if (const auto fault = visibleDamage(file, listing->find(file.path)); !fault.empty()) {
            damage.push_back(file.path + ": " + fault);
        } else {
            jobs.push_back({file.path, file.size});
            files.push_back(&file);
        }
    }
    if (!any && !subfolder.empty())
        return failure(vlupd::NOT_FOUND, "the version has no files below " + subfolder);
    if (folder == nullptr)
        return damage;
    const auto hashes = hashFiles(*folder, jobs, operation);
    if (!hashes)
        return tl::unexpected(hashes.error());
    std::optional<Error> unreadable;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        const HashResult& result = (*hashes)[i];
        // A file that cannot be read says nothing; another one may still be proof of damage. One
        // that is reached no longer was replaced after the listing.
        if (result.fault && result.fault->code == vlupd::SYSTEM_CALL_ERROR)
            unreadable = result.fault;
        else if (!result.hash || *result.hash != files[i]->hash)
            damage.push_back(files[i]->path + ": other contents");
    }
    if (damage.empty() && unreadable)
        return tl::unexpected(*unreadable);
    std::ranges::sort(damage);
    return damage;
}

} // namespace vl
