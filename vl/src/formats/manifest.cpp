#include "vl/src/formats/manifest.h"

#include "vl/src/formats/manifestreader.h"
#include "vl/src/formats/pathrules.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <limits>
#include <numeric>

namespace vl {
namespace {

constexpr std::uint64_t maxSize = std::numeric_limits<std::int64_t>::max();

tl::unexpected<Error> fault(const std::string& what)
{
    return failure(vlupd::UPDATER_DATA_ERROR, what);
}

/// False when the sum would leave 0 ... 2^63 - 1.
bool addTo(std::uint64_t& sum, std::uint64_t value)
{
    if (sum > maxSize || value > maxSize - sum)
        return false;
    sum += value;
    return true;
}

/// Frames lie one behind the other and fill the pack; gives each its place in the tar stream.
Expected<std::uint64_t> layOutFrames(Pack& pack)
{
    std::uint64_t packed = 0;
    std::uint64_t raw = 0;
    for (std::size_t i = 0; i < pack.frames.size(); ++i) {
        Frame& frame = pack.frames[i];
        const std::string name = "frame " + std::to_string(i);
        if (frame.offset != packed)
            return fault(name + " does not begin where the one before it ends");
        if (frame.size == 0 || frame.rawSize == 0 || frame.rawSize > maxFrameRawSize)
            return fault(name + " is empty or larger than 64 MiB");
        frame.rawOffset = raw;
        if (!addTo(packed, frame.size) || !addTo(raw, frame.rawSize))
            return fault("the frames are larger than 2^63 - 1 bytes");
    }
    if (pack.frames.empty() || packed != pack.size)
        return fault("the frames do not fill the pack");
    return raw;
}

/// Files lie inside the stream and share no bytes, unless they are the same bytes throughout.
Expected<void> checkPlaces(const Manifest& manifest, std::uint64_t rawSize)
{
    std::uint64_t total = 0;
    std::vector<const ManifestFile*> byPlace;
    byPlace.reserve(manifest.files.size());
    for (const ManifestFile& file : manifest.files) {
        std::uint64_t end = file.rawOffset;
        if (!addTo(end, file.size) || end > rawSize)
            return fault("file \"" + file.path + "\" does not lie inside the pack");
        if (!addTo(total, file.size))
            return fault("the files are larger than 2^63 - 1 bytes");
        if (file.size > 0)
            byPlace.push_back(&file);
    }
    std::sort(byPlace.begin(), byPlace.end(), [](const auto* a, const auto* b) {
        return std::pair(a->rawOffset, a->size) < std::pair(b->rawOffset, b->size);
    });
    for (std::size_t i = 1; i < byPlace.size(); ++i) {
        const ManifestFile& before = *byPlace[i - 1];
        const ManifestFile& after = *byPlace[i];
        const bool same = before.rawOffset == after.rawOffset && before.size == after.size &&
                          before.hash == after.hash;
        if (!same && after.rawOffset - before.rawOffset < before.size)
            return fault("files \"" + before.path + "\" and \"" + after.path + "\" overlap");
    }
    return {};
}

Expected<void> checkDeltas(const Manifest& manifest)
{
    for (const DeltaReference& delta : manifest.deltas) {
        if (const std::string wrong = versionKeyFault(delta.from); !wrong.empty())
            return fault("the delta's version \"" + delta.from + "\" " + wrong);
        if (delta.size == 0 || delta.indexSize == 0 || delta.indexSize > maxManifestSize)
            return fault("the delta from " + delta.from + " is empty or its index too large");
    }
    return {};
}

Expected<void> checkPaths(const Manifest& manifest)
{
    std::vector<std::string_view> paths;
    paths.reserve(manifest.files.size());
    for (const ManifestFile& file : manifest.files) {
        if (const std::string wrong = pathFault(file.path); !wrong.empty())
            return fault("path \"" + file.path + "\" " + wrong);
        paths.emplace_back(file.path);
    }
    if (const std::string wrong = pathSetFault(paths); !wrong.empty())
        return fault("paths " + wrong);
    return {};
}

Expected<void> checkExecutables(const Manifest& manifest)
{
    const auto refused = std::ranges::find_if(manifest.executables, [&](const auto& item) {
        const ManifestFile* file = manifest.find(item.second);
        return file == nullptr || file->role == FileRole::Settings;
    });
    if (refused == manifest.executables.end())
        return {};
    const auto& [key, path] = *refused;
    return failure(
        vlupd::APP_DEFINITION_ERROR,
        "the executable \"" + path + "\" (" + key +
            (manifest.find(path) == nullptr ? ") is not listed" : ") is a settings file"));
}

std::string modeText(std::uint32_t mode)
{
    return (mode & 0100U) != 0 ? "0755" : "0644";
}

} // namespace

std::uint64_t Manifest::installedSize() const
{
    return std::accumulate(
        files.begin(), files.end(), std::uint64_t{0},
        [](std::uint64_t sum, const ManifestFile& file) { return sum + file.size; });
}

const ManifestFile* Manifest::find(std::string_view path) const
{
    const auto file = std::lower_bound(
        files.begin(), files.end(), path,
        [](const ManifestFile& candidate, std::string_view name) { return candidate.path < name; });
    return file != files.end() && file->path == path ? &*file : nullptr;
}

Expected<Manifest> readManifest(std::string_view text, std::string_view expectedVersion)
{
    const std::string context = "manifest of version " + std::string(expectedVersion);
    if (text.size() > maxManifestSize)
        return failure(vlupd::UPDATER_DATA_ERROR, context + ": larger than 32 MiB");
    auto manifest = parseManifest(text);
    if (!manifest)
        return failure(context, std::move(manifest.error()));
    if (manifest->version != expectedVersion)
        return failure(vlupd::UPDATER_DATA_ERROR,
                       context + ": belongs to version \"" + manifest->version + "\"");
    std::sort(manifest->files.begin(), manifest->files.end(),
              [](const ManifestFile& a, const ManifestFile& b) { return a.path < b.path; });

    const auto rawSize = layOutFrames(manifest->pack);
    if (!rawSize)
        return failure(context, rawSize.error());
    if (auto checked = checkPaths(*manifest); !checked)
        return failure(context, std::move(checked.error()));
    if (auto checked = checkPlaces(*manifest, *rawSize); !checked)
        return failure(context, std::move(checked.error()));
    if (auto checked = checkDeltas(*manifest); !checked)
        return failure(context, std::move(checked.error()));
    if (auto checked = checkExecutables(*manifest); !checked)
        return failure(context, std::move(checked.error()));
    return manifest;
}

std::string writeManifest(const Manifest& manifest)
{
    using nlohmann::ordered_json;
    const auto lines = [](const auto& items, const auto& toJson) {
        std::string text = "[";
        for (const auto& item : items) {
            text += text.size() > 1 ? ",\n  " : "\n  ";
            text += ordered_json(toJson(item)).dump();
        }
        return text + "]";
    };
    const std::string frames = lines(manifest.pack.frames, [](const Frame& frame) {
        return ordered_json{{"offset", frame.offset},
                            {"size", frame.size},
                            {"rawSize", frame.rawSize},
                            {"hash", toHex(frame.hash)}};
    });
    const std::string deltas = lines(manifest.deltas, [](const DeltaReference& delta) {
        return ordered_json{
            {"from", delta.from},           {"fromManifest", toHex(delta.fromManifest)},
            {"size", delta.size},           {"hash", toHex(delta.hash)},
            {"indexSize", delta.indexSize}, {"indexHash", toHex(delta.indexHash)}};
    });
    const std::string files = lines(manifest.files, [](const ManifestFile& file) {
        ordered_json members{{"path", file.path},
                             {"size", file.size},
                             {"mode", modeText(file.mode)},
                             {"hash", toHex(file.hash)},
                             {"rawOffset", file.rawOffset}};
        if (file.role == FileRole::Settings)
            members["role"] = "settings";
        return members;
    });
    return "{\"format\":" + std::to_string(manifestFormat) +
           ",\n\"version\":" + ordered_json(manifest.version).dump() +
           ",\n\"executables\":" + ordered_json(manifest.executables).dump() +
           ",\n\"pack\":{\"size\":" + std::to_string(manifest.pack.size) + ",\"hash\":\"" +
           toHex(manifest.pack.hash) + "\",\"frames\":" + frames + "}," +
           (manifest.deltas.empty() ? "" : "\n\"deltas\":" + deltas + ",") +
           "\n\"files\":" + files + "}\n";
}

std::string manifestPath(const Hash& manifestHash)
{
    return "manifests/" + toHex(manifestHash) + ".json";
}

std::string packPath(const Hash& packHash)
{
    return "packs/" + toHex(packHash) + ".tar.zst";
}

} // namespace vl
