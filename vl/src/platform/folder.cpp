#include "vl/src/platform/folder.h"

#include <string>
#include <utility>

namespace vl {

namespace {

constexpr auto clockFile = ".vl-clock";

} // namespace

Expected<void> emptyFolder(const Folder& folder, Patience patience,
                           const std::function<bool()>& goOn)
{
    const auto entries = folder.list();
    if (!entries)
        return tl::unexpected(entries.error());
    Expected<void> done;
    const auto note = [&done](Expected<void> result) {
        if (done && !result)
            done = std::move(result);
    };
    for (const FolderEntry& entry : *entries) {
        if (goOn && !goOn()) {
            note(failure(vlupd::SYSTEM_CALL_ERROR,
                         "not all of " + toUtf8(folder.path()) + " is removed yet"));
            break;
        }
        if (entry.kind != FileKind::Directory) {
            note(folder.removeFile(entry.name, patience));
            continue;
        }
        const auto below = folder.openFolder(entry.name);
        note(below ? emptyFolder(*below, patience, goOn) : tl::unexpected(below.error()));
        const auto removed = folder.removeFolder(entry.name, patience);
        note(removed ? Expected<void>() : tl::unexpected(removed.error()));
    }
    return done;
}

Expected<VolumeTime> volumeNow(const Folder& folder)
{
    if (auto removed = folder.removeFile(clockFile); !removed)
        return tl::unexpected(std::move(removed).error());
    {
        auto file = folder.openFile(clockFile, File::Mode::Create);
        if (!file)
            return tl::unexpected(std::move(file).error());
    }
    const auto entry = folder.find(clockFile);
    auto removed = folder.removeFile(clockFile);
    if (!entry || !removed)
        return tl::unexpected(entry ? removed.error() : entry.error());
    if (!*entry)
        return failure(vlupd::SYSTEM_CALL_ERROR,
                       "the clock file in " + toUtf8(folder.path()) + " is gone");
    return (*entry)->modified;
}

} // namespace vl
