#include "tools/vl-publish/releasefolder.h"

#include "tools/vl-publish/glob.h"
#include "vl/src/formats/pathrules.h"
#include "vl/src/platform/file.h"

#include <algorithm>
#include <set>

namespace vl::publish {
namespace fs = std::filesystem;
namespace {

tl::unexpected<Error> refused(const std::string& path, const std::string& why)
{
    return failure(vlupd::UPDATER_DATA_ERROR, "cannot publish \"" + path + "\": " + why);
}

tl::unexpected<Error> notInFolder(const std::string& key, const std::string& path)
{
    return failure(vlupd::APP_DEFINITION_ERROR,
                   "the executable \"" + path + "\" (" + key + ") is no file of the folder");
}

tl::unexpected<Error> refusedGlob(vlupd::UPD_RESULT code, const std::string& glob,
                                  const std::string& why)
{
    return failure(code, "the glob \"" + glob + "\" of settings files " + why);
}

std::string parentOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::uint32_t modeOf(const fs::path& path)
{
    std::error_code error;
    const fs::perms permissions = fs::status(path, error).permissions();
    return !error && (permissions & fs::perms::owner_exec) != fs::perms::none ? 0755 : 0644;
}

Expected<void> checkPaths(const std::vector<ReleaseFile>& files)
{
    std::vector<std::string_view> paths;
    paths.reserve(files.size());
    for (const ReleaseFile& file : files) {
        if (const std::string fault = pathFault(file.path); !fault.empty())
            return refused(file.path, "the path " + fault);
        paths.emplace_back(file.path);
    }
    if (const std::string fault = pathSetFault(paths); !fault.empty())
        return failure(vlupd::UPDATER_DATA_ERROR, "cannot publish " + fault);
    return {};
}

} // namespace

Expected<std::vector<ReleaseFile>> scanReleaseFolder(const fs::path& folder, Progress& progress)
{
    const auto entries = listTree(folder);
    if (!entries)
        return tl::unexpected(entries.error());
    std::vector<ReleaseFile> files;
    std::set<std::string> emptyFolders;
    for (const TreeEntry& entry : *entries) {
        const fs::path path = folder / fromUtf8(entry.path);
        emptyFolders.erase(parentOf(entry.path));
        switch (entry.info.kind) {
        case FileKind::Directory:
            emptyFolders.insert(entry.path);
            break;
        case FileKind::File:
            files.push_back({entry.path, entry.info.size, modeOf(path)});
            break;
        case FileKind::Other:
            std::error_code error;
            return refused(entry.path, fs::is_symlink(path, error)
                                           ? "it is a symbolic link; put the file itself there"
                                           : "it is neither a file nor a folder");
        }
    }
    for (const std::string& path : emptyFolders)
        progress.note("the empty folder \"" + path + "\" is not published");
    if (files.empty())
        return failure(vlupd::NOT_FOUND, "there is no file in " + toUtf8(folder));
    std::sort(files.begin(), files.end(),
              [](const ReleaseFile& a, const ReleaseFile& b) { return a.path < b.path; });
    if (auto checked = checkPaths(files); !checked)
        return tl::unexpected(std::move(checked).error());
    return files;
}

Expected<void> markExecutables(const std::map<std::string, std::string>& executables,
                               std::vector<ReleaseFile>& files)
{
    for (const auto& [key, path] : executables) {
        const auto file = std::ranges::find(files, path, &ReleaseFile::path);
        if (file == files.end())
            return notInFolder(key, path);
        file->mode = 0755;
    }
    return {};
}

Expected<void> markSettings(const std::vector<std::string>& globs,
                            const std::map<std::string, std::string>& executables,
                            std::vector<ReleaseFile>& files)
{
    for (const std::string& glob : globs) {
        bool matched = false;
        for (ReleaseFile& file : files) {
            if (!globMatches(glob, file.path))
                continue;
            if (std::ranges::any_of(executables,
                                    [&](const auto& item) { return item.second == file.path; }))
                return refusedGlob(vlupd::APP_DEFINITION_ERROR, glob,
                                   "matches the executable " + file.path);
            file.role = FileRole::Settings;
            matched = true;
        }
        if (!matched)
            return refusedGlob(vlupd::NOT_FOUND, glob, "matches no file of the folder");
    }
    return {};
}

} // namespace vl::publish
