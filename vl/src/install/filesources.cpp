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

FileSources findSources(const Manifest& target, const Manifest* base,
                        const std::function<bool(std::size_t baseFile)>& usable)
{
    std::map<Contents, std::vector<std::size_t>> older;
    for (std::size_t i = 0; base != nullptr && i < base->files.size(); ++i)
        if (base->files[i].size > 0)
            older[contentsOf(base->files[i])].push_back(i);

    FileSources sources;
    std::map<Contents, std::size_t> fetched;
    for (std::size_t i = 0; i < target.files.size(); ++i) {
        const Contents contents = contentsOf(target.files[i]);
        if (contents.second == 0)
            continue;
        if (const auto twin = fetched.find(contents); twin != fetched.end()) {
            sources.twins.push_back({i, twin->second});
            continue;
        }
        const auto found = older.find(contents);
        const auto source = found == older.end()
                                ? std::vector<std::size_t>::const_iterator()
                                : std::ranges::find_if(std::as_const(found->second), usable);
        if (found != older.end() && source != found->second.cend()) {
            sources.kept.push_back({i, *source});
        } else {
            sources.missing.push_back(i);
            fetched.emplace(contents, i);
        }
    }
    return sources;
}

std::vector<std::size_t> framesOf(const Manifest& manifest, std::span<const std::size_t> files)
{
    std::vector<bool> holds(manifest.pack.frames.size());
    for (const std::size_t index : files) {
        const ManifestFile& file = manifest.files[index];
        auto frame =
            std::ranges::upper_bound(manifest.pack.frames, file.rawOffset, {}, &Frame::rawOffset) -
            manifest.pack.frames.begin() - 1;
        for (; frame < std::ssize(manifest.pack.frames); ++frame) {
            if (manifest.pack.frames[static_cast<std::size_t>(frame)].rawOffset >=
                file.rawOffset + file.size)
                break;
            holds[static_cast<std::size_t>(frame)] = true;
        }
    }
    std::vector<std::size_t> frames;
    for (std::size_t i = 0; i < holds.size(); ++i)
        if (holds[i])
            frames.push_back(i);
    return frames;
}

std::uint64_t sizeOf(std::span<const Frame> frames, std::span<const std::size_t> wanted)
{
    std::uint64_t bytes = 0;
    for (const std::size_t index : wanted)
        bytes += frames[index].size;
    return bytes;
}

} // namespace vl
