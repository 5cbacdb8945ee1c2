#include "vl/src/install/filesources.h"

#include <algorithm>
#include <map>
#include <utility>

namespace vl {

namespace {

using Contents = std::pair<Hash, std::uint64_t>;

Contents contentsOf(const ManifestFile& file)
{
    return {file.hash, file.size};
}

} // namespace

FileSources findSources(const Manifest& target, const std::vector<FileNumber>& wanted,
                        const Manifest* base, const std::function<bool(FileNumber)>& usable,
                        const std::vector<FileNumber>& staged)
{
    FileSources sources;
    std::map<Contents, std::vector<FileNumber>> older; // of the contents that are wanted
    for (const FileNumber number : wanted)
        if (base != nullptr && target.files[number].size > 0)
            older[contentsOf(target.files[number])];
    for (FileNumber i = 0; base != nullptr && !older.empty() && i < base->files.size(); ++i)
        if (const auto found = older.find(contentsOf(base->files[i])); found != older.end())
            found->second.push_back(i);

    std::map<Contents, FileNumber> built;
    for (const FileNumber number : staged)
        built.emplace(contentsOf(target.files[number]), number);
    for (const FileNumber number : wanted) {
        const Contents contents = contentsOf(target.files[number]);
        if (contents.second == 0) {
            sources.empty.push_back(number);
            continue;
        }
        if (const auto twin = built.find(contents); twin != built.end()) {
            sources.twins.push_back({number, twin->second});
            continue;
        }
        const auto found = older.find(contents);
        const auto source = found == older.end()
                                ? std::vector<FileNumber>::const_iterator()
                                : std::ranges::find_if(std::as_const(found->second), usable);
        if (found != older.end() && source != found->second.cend()) {
            sources.kept.push_back({number, *source});
        } else {
            sources.missing.push_back(number);
            built.emplace(contents, number);
        }
    }
    return sources;
}

} // namespace vl
