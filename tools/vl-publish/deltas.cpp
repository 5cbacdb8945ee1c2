#include "tools/vl-publish/deltas.h"

#include "tools/vl-publish/deltawriter.h"
#include "tools/vl-publish/repository.h"
#include "vl/src/install/deltaunpacker.h"
#include "vl/src/install/treewriter.h"
#include "vl/src/install/unpacker.h"
#include "vl/src/platform/file.h"
#include "vlupd/vlupd.h"

#include <algorithm>
#include <numeric>
#include <set>

namespace vl::publish {
namespace fs = std::filesystem;
namespace {

constexpr std::size_t defaultBaseCount = 2;

/// A folder that goes with whoever asked for it.
class TemporaryFolder final
{
public:
    explicit TemporaryFolder(fs::path path) : m_path(std::move(path)) {}
    ~TemporaryFolder() { (void)removeTree(m_path); } // else the next change does it
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const fs::path& path() const { return m_path; }

private:
    const fs::path m_path;
};

/// The files of a published version, out of its full pack.
Expected<void> unpackVersion(const fs::path& repository, const Manifest& manifest,
                             const fs::path& folder, Operation& operation)
{
    if (auto prepared = prepareTree(manifest, folder); !prepared)
        return prepared;
    std::vector<std::size_t> files;
    for (std::size_t i = 0; i < manifest.files.size(); ++i)
        if (manifest.files[i].size > 0)
            files.push_back(i);
    const fs::path pack = repository / fromUtf8(packPath(manifest.pack.hash));
    Unpacker unpacker(manifest, files, pack, folder);
    unpacker.start();
    for (const std::size_t frame : unpacker.frames())
        if (auto ready = unpacker.frameReady(frame); !ready)
            return ready;
    return unpacker.finish(operation, {});
}

Expected<Manifest> listedManifest(const fs::path& repository, const Catalogue& catalogue,
                                  const std::string& version)
{
    const auto listed = catalogue.manifests.find(version);
    if (listed == catalogue.manifests.end())
        return failure(vlupd::NOT_FOUND, "version " + version + " is not listed");
    return loadManifest(repository, version, listed->second);
}

Expected<DeltaIndex> loadIndex(const fs::path& repository, const DeltaReference& delta,
                               const Manifest& base, const Manifest& target)
{
    const std::string name = deltaIndexPath(delta.indexHash);
    const auto text = readWholeFile(repository / fromUtf8(name), delta.indexSize);
    if (!text)
        return tl::unexpected(text.error());
    if (hashOf(*text) != delta.indexHash)
        return failure(vlupd::BROKEN_OR_MISSING, name + " is not what its name says");
    const auto expanded = expandDeltaIndex(std::as_bytes(std::span(*text)));
    return expanded ? readDeltaIndex(*expanded, delta, base, target)
                    : tl::unexpected(expanded.error());
}

Expected<void> checkDeltaPack(const fs::path& path, const DeltaReference& delta)
{
    const auto file = File::open(path, File::Mode::Read);
    if (!file)
        return tl::unexpected(file.error());
    std::vector<std::byte> piece(1U << 20U);
    Hasher hasher;
    std::uint64_t size = 0;
    for (;;) {
        const auto got = file->readAt(size, piece);
        if (!got)
            return tl::unexpected(got.error());
        hasher.update(std::span(piece).first(*got));
        size += *got;
        if (*got < piece.size())
            break;
    }
    if (size != delta.size || hasher.finish() != delta.hash)
        return failure(vlupd::BROKEN_OR_MISSING, toUtf8(path) + " is not what its name says");
    return {};
}

/// Applies one delta to the older version, as a client would.
Expected<void> tryDelta(const fs::path& repository, const DeltaReference& delta,
                        const Manifest& base, const Manifest& target)
{
    const auto index = loadIndex(repository, delta, base, target);
    if (!index)
        return tl::unexpected(index.error());
    Log log;
    Operation operation(log);
    // A repository is verified without being written to.
    std::error_code error;
    const fs::path room = fs::temp_directory_path(error);
    if (error)
        return failure(vlupd::SYSTEM_CALL_ERROR, "no folder for temporary files: TMPDIR");
    const TemporaryFolder older(temporaryFolder(room, "older"));
    const TemporaryFolder newer(temporaryFolder(room, "newer"));
    if (auto unpacked = unpackVersion(repository, base, older.path(), operation); !unpacked)
        return unpacked;
    if (auto prepared = prepareTree(target, newer.path()); !prepared)
        return prepared;
    std::set<std::size_t> files;
    for (const DeltaFrame& frame : index->parts)
        for (const FilePart& part : frame.target)
            files.insert(part.file);
    const FilePlace place = [&](std::size_t file) {
        return older.path() / fromUtf8(base.files[file].path);
    };
    const fs::path pack = repository / fromUtf8(deltaPath(delta.hash));
    DeltaUnpacker unpacker(*index, target, {files.begin(), files.end()}, place, pack, newer.path());
    unpacker.start();
    for (const std::size_t frame : unpacker.frames())
        if (auto ready = unpacker.frameReady(frame); !ready)
            return ready;
    if (auto finished = unpacker.finish(operation); !finished)
        return finished;
    if (unpacker.made().size() != files.size())
        return failure(vlupd::BROKEN_OR_MISSING,
                       std::to_string(files.size() - unpacker.made().size()) +
                           " files do not come out");
    return {};
}

} // namespace

std::vector<std::string> defaultDeltaBases(const Catalogue& catalogue, const std::string& version)
{
    std::vector<SemanticVersion> lower;
    for (const auto& [key, reference] : catalogue.manifests)
        if (SemanticVersion(key) < SemanticVersion(version))
            lower.emplace_back(key);
    std::ranges::sort(lower, [](const auto& a, const auto& b) { return b < a; });
    lower.resize(std::min(lower.size(), defaultBaseCount), SemanticVersion(version));
    std::vector<std::string> keys;
    keys.reserve(lower.size());
    for (const SemanticVersion& key : lower)
        keys.push_back(key.String());
    return keys;
}

Expected<std::vector<DeltaReference>> writeDeltas(const fs::path& repository,
                                                  const Catalogue& catalogue,
                                                  const std::vector<std::string>& bases,
                                                  const Manifest& target, const fs::path& folder,
                                                  int level, Progress& progress)
{
    std::vector<DeltaReference> deltas;
    for (const std::string& version : bases) {
        const auto base = listedManifest(repository, catalogue, version);
        if (!base)
            return tl::unexpected(base.error());
        Log log;
        Operation operation(log);
        const TemporaryFolder older(temporaryFolder(repository, "older"));
        if (auto unpacked = unpackVersion(repository, *base, older.path(), operation); !unpacked)
            return failure("version " + version, std::move(unpacked).error());
        auto delta = writeDelta({.repository = repository,
                                 .base = {*base, older.path()},
                                 .baseManifest = catalogue.manifests.at(version).hash,
                                 .target = {target, folder},
                                 .level = level},
                                progress);
        if (!delta)
            return tl::unexpected(std::move(delta).error());
        if (*delta)
            deltas.push_back(**delta);
    }
    return deltas;
}

std::vector<std::string> verifyDeltas(const fs::path& repository, const Catalogue& catalogue,
                                      const Manifest& target, Progress& progress)
{
    std::vector<std::string> faults;
    for (const DeltaReference& delta : target.deltas) {
        auto checked = checkDeltaPack(repository / fromUtf8(deltaPath(delta.hash)), delta);
        const auto listed = catalogue.manifests.find(delta.from);
        if (listed == catalogue.manifests.end() || listed->second.hash != delta.fromManifest) {
            progress.note("version " + target.version + ": the delta from " + delta.from +
                          ", which is no longer listed, was not tried");
        } else if (checked) {
            const auto base = loadManifest(repository, delta.from, listed->second);
            checked =
                base ? tryDelta(repository, delta, *base, target) : tl::unexpected(base.error());
        }
        if (!checked)
            faults.push_back("delta from " + delta.from + ": " + checked.error().message);
    }
    return faults;
}

} // namespace vl::publish
