#include "tools/vl-publish/deltas.h"

#include "tools/vl-publish/deltawriter.h"
#include "tools/vl-publish/repository.h"
#include "vl/src/install/filesources.h"
#include "vl/src/install/framebuilder.h"
#include "vl/src/platform/file.h"
#include "vl/src/platform/folder.h"
#include "vl/src/transport/foldersource.h"
#include "vlupd/vlupd.h"

#include <algorithm>
#include <atomic>
#include <memory>
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

/// Builds files of a version into a folder, flat by their numbers, from a row of frames of the
/// repository. Returns how many of `files` (none empty) do not come out.
struct BuildRequest
{
    const fs::path& repository;
    FrameFile row;
    const Manifest& target;
    const BuildPlan& plan;
    const DeltaIndex* delta = nullptr;
    OpenBaseFile base{};
};

Expected<std::size_t> build(const BuildRequest& request, const Folder& folder)
{
    Log log;
    Operation operation(log);
    FileFinisher finisher;
    std::atomic<std::uint64_t> written{0};
    FrameBuilder builder(request.target, request.row.frames, request.plan, folder, finisher,
                         written);
    if (request.delta != nullptr)
        builder.useBase(*request.delta, request.base);
    const OpenSource openSource = [&](std::size_t) -> Expected<std::unique_ptr<Source>> {
        return std::make_unique<FolderSource>(request.repository, 0);
    };
    auto done = downloadFrames(openSource, request.row, request.plan.chains, operation,
                               [&builder](std::size_t transfer, std::size_t frame, auto bytes) {
                                   return builder.take(transfer, frame, bytes);
                               });
    builder.close();
    if (done)
        done = finisher.wait(operation);
    return done ? Expected<std::size_t>(builder.failed().size())
                : tl::unexpected(std::move(done).error());
}

Expected<Folder> makeFolderAt(const fs::path& path)
{
    auto made = makeDirectories(path);
    return made ? Folder::open(path) : Expected<Folder>(tl::unexpected(std::move(made).error()));
}

/// The files of a published version, out of its full pack.
Expected<void> unpackVersion(const fs::path& repository, const Manifest& manifest,
                             const fs::path& path)
{
    const auto folder = makeFolderAt(path);
    if (!folder)
        return tl::unexpected(folder.error());
    // Files of the same contents may have the same place in the pack.
    std::vector<FileNumber> all(manifest.files.size());
    std::iota(all.begin(), all.end(), FileNumber{0});
    const FileSources sources = findSources(manifest, all, nullptr, {}, {});
    const BuildPlan plan = planFromPack(manifest, sources.missing, {});
    const Pack& pack = manifest.pack;
    const auto failed = build({.repository = repository,
                               .row = {packPath(pack.hash), pack.size, pack.frames},
                               .target = manifest,
                               .plan = plan},
                              *folder);
    if (!failed)
        return tl::unexpected(failed.error());
    if (*failed > 0)
        return failure(vlupd::BROKEN_OR_MISSING, std::to_string(*failed) +
                                                     " files differ from the manifest after "
                                                     "unpacking");
    for (const FileNumber number : sources.empty)
        if (auto made = folder->openFile(std::to_string(number), File::Mode::Create); !made)
            return tl::unexpected(std::move(made).error());
    std::error_code error;
    for (const FileCopy& twin : sources.twins) {
        fs::copy_file(path / std::to_string(twin.source), path / std::to_string(twin.target),
                      error);
        if (error)
            return failure(vlupd::SYSTEM_CALL_ERROR,
                           "cannot copy a file in " + toUtf8(path) + ": " + error.message());
    }
    return {};
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
    // A repository is verified without being written to.
    std::error_code error;
    const fs::path room = fs::temp_directory_path(error);
    if (error)
        return failure(vlupd::SYSTEM_CALL_ERROR, "no folder for temporary files: TMPDIR");
    const TemporaryFolder older(temporaryFolder(room, "older"));
    const TemporaryFolder newer(temporaryFolder(room, "newer"));
    if (auto unpacked = unpackVersion(repository, base, older.path()); !unpacked)
        return unpacked;
    const auto folder = makeFolderAt(newer.path());
    if (!folder)
        return tl::unexpected(folder.error());
    std::set<FileNumber> files;
    for (const DeltaFrame& frame : index->parts)
        for (const FilePart& part : frame.target)
            files.insert(part.file);
    const BuildPlan plan =
        planFromDelta(*index, std::vector<FileNumber>(files.begin(), files.end()), {});
    const auto failed =
        build({.repository = repository,
               .row = {deltaPath(delta.hash), delta.size, index->frames},
               .target = target,
               .plan = plan,
               .delta = &*index,
               .base =
                   [&older](FileNumber number) {
                       return File::open(older.path() / std::to_string(number), File::Mode::Read);
                   }},
              *folder);
    if (!failed)
        return tl::unexpected(failed.error());
    if (*failed > 0)
        return failure(vlupd::BROKEN_OR_MISSING,
                       std::to_string(*failed) + " files do not come out");
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
        const TemporaryFolder older(temporaryFolder(repository, "older"));
        if (auto unpacked = unpackVersion(repository, *base, older.path()); !unpacked)
            return failure("version " + version, std::move(unpacked).error());
        auto delta = writeDelta({.repository = repository,
                                 .base = {*base, older.path(), true},
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
