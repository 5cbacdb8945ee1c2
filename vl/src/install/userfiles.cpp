#include "vl/src/install/userfiles.h"

#include <set>
#include <string>
#include <string_view>

namespace vl {

namespace {

// A place for the user's file `path` below `root` that takes nothing from the new version: every
// component whose name is taken by something it cannot share gets ".user" behind it.
Expected<std::filesystem::path> freePlace(const std::filesystem::path& root,
                                          const std::filesystem::path& path)
{
    std::filesystem::path place = root;
    for (auto component = path.begin(); component != path.end(); ++component) {
        const bool last = std::next(component) == path.end();
        place /= *component;
        for (;;) {
            const auto taken = fileInfo(place);
            if (!taken)
                return tl::unexpected(taken.error());
            if (!*taken || (!last && (*taken)->kind == FileKind::Directory))
                break;
            place += ".user";
        }
    }
    return place;
}

} // namespace

Expected<void> carryUserFiles(const std::filesystem::path& from, const Manifest& manifest,
                              const std::filesystem::path& to, Patience patience,
                              Operation& operation)
{
    const auto entries = listTree(from);
    if (!entries)
        return tl::unexpected(entries.error());
    // A folder may show a name in another case than the manifest.
    std::set<std::string> ours;
    for (const ManifestFile& file : manifest.files)
        ours.insert(pathKey(file.path));
    for (const TreeEntry& entry : *entries) {
        if (entry.info.kind == FileKind::Directory || ours.contains(pathKey(entry.path)))
            continue;
        const std::filesystem::path path = fromUtf8(entry.path);
        const auto place = freePlace(to, path);
        if (!place)
            return tl::unexpected(place.error());
        if (auto made = makeDirectories(place->parent_path()); !made)
            return made;
        if (auto moved = renameReplacing(from / path, *place, patience); !moved)
            return moved;
        operation.say("kept the user's file " + toUtf8(*place));
    }
    return {};
}

} // namespace vl
