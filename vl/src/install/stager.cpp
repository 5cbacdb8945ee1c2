#include "vl/src/install/stager.h"

#include "vl/src/install/folderwalker.h"
#include "vl/src/install/framebuilder.h"
#include "vl/src/operation/workers.h"
#include "vl/src/platform/file.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <thread>
#include <utility>

namespace vl {

namespace {

// Records, manifests and folders, beyond the new files.
constexpr std::uint64_t roomMargin = 16U << 20U;
constexpr std::uint64_t flushStep = 8U << 20U;
// Below this, asking for each file takes longer than writing all of them at once.
constexpr std::uint64_t smallFile = 64U << 10U;

std::vector<FileNumber> without(const std::vector<FileNumber>& files, const auto& taken)
{
    std::vector<FileNumber> rest;
    std::ranges::set_difference(files, taken, std::back_inserter(rest));
    return rest;
}

std::uint64_t roundedUp(std::uint64_t size, std::uint64_t step)
{
    return (size + step - 1) / step * step;
}

} // namespace

Stager::Stager(const Manifest& target, const Hash& targetHash, const BaseVersion* base,
               Staging& staging, const OpenSource& openSource, Operation& operation)
    : m_target(target), m_targetHash(targetHash), m_base(base), m_staging(staging),
      m_openSource(openSource), m_operation(operation)
{
}

Expected<void> Stager::stage(const std::vector<FileNumber>& wanted)
{
    const auto place = m_staging.make();
    auto folder = place ? (*place)->makeFolder(stagedFolderName(m_targetHash))
                        : Expected<Folder>(tl::unexpected(place.error()));
    if (!folder)
        return tl::unexpected(std::move(folder).error());
    m_folder = std::move(*folder);
    const auto here = verifyStaged(*m_folder, m_target, wanted, m_operation);
    if (!here)
        return tl::unexpected(here.error());
    m_cut = here->cut;
    const std::vector<FileNumber> files = without(wanted, here->whole);
    const auto usable = [this](FileNumber number) {
        const ManifestFile& file = m_base->manifest.files[number];
        const ListedEntry* listed = m_base->listing.find(file.path);
        return listed != nullptr && listed->entry.kind == FileKind::File &&
               listed->entry.size == file.size;
    };
    m_sources = findSources(m_target, files, m_base != nullptr ? &m_base->manifest : nullptr,
                            usable, here->whole);
    m_written = 0;
    m_flushed = 0;
    m_finisher.emplace();
    auto done = makeRoom(files);
    if (done)
        done = copyKept();
    if (done)
        done = fetchMissing();
    if (!done)
        return done;
    m_operation.endStage();

    const std::uint64_t total = std::accumulate(
        files.begin(), files.end(), std::uint64_t{0},
        [this](std::uint64_t sum, FileNumber file) { return sum + m_target.files[file].size; });
    m_operation.beginStage(vlupd::STAGE_UNPACKING, std::min(m_written / 2, total), total);
    const auto twins = copyFiles(
        m_target, m_sources.twins,
        [this](FileNumber number) {
            return m_folder->openFile(std::to_string(number), File::Mode::Read);
        },
        *m_folder, *m_finisher, m_written, m_operation);
    if (!twins)
        return tl::unexpected(twins.error());
    if (!twins->empty())
        return failure(vlupd::BROKEN_OR_MISSING,
                       m_target.files[twins->front()].path + " could not be copied");
    if (done = flush(files); done)
        m_operation.endStage();
    return done;
}

Expected<void> Stager::makeRoom(const std::vector<FileNumber>& files)
{
    auto volume = volumeOf(m_folder->path());
    if (!volume)
        return tl::unexpected(std::move(volume).error());
    std::uint64_t needed = roomMargin;
    std::uint64_t toWrite = 0;
    for (const FileNumber number : files) {
        const ManifestFile& file = m_target.files[number];
        if (file.size > volume->largestFile)
            return failure(vlupd::SYSTEM_CALL_ERROR,
                           "the volume of " + toUtf8(m_folder->path()) + " cannot hold " +
                               file.path + ": " + std::to_string(file.size) +
                               " bytes are more than a file can have there");
        const auto cut = m_cut.find(number);
        const std::uint64_t here = cut == m_cut.end() ? 0 : cut->second;
        toWrite += file.size - here;
        needed += roundedUp(file.size - here, volume->clusterSize);
    }
    // What is staged for other versions goes only if that helps.
    const auto others = m_staging.staged();
    if (volume->freeBytes < needed && others) {
        std::uint64_t bytes = 0;
        for (const Staging::Staged& other : *others)
            bytes += other.manifest == m_targetHash ? 0 : other.bytes;
        for (const Staging::Staged& other : *others)
            if (other.manifest != m_targetHash && volume->freeBytes + bytes >= needed) {
                m_operation.say("removing " + std::to_string(other.bytes) +
                                " bytes of another interrupted installation to make room");
                if (auto removed = m_staging.removeStaged(other.manifest,
                                                          [this] { return m_operation.pump(); });
                    !removed)
                    m_operation.say(removed.error().message);
            }
        if (bytes > 0)
            volume = volumeOf(m_folder->path());
        if (!volume)
            return tl::unexpected(std::move(volume).error());
    }
    m_lacksRoom = volume->freeBytes < needed;
    if (m_lacksRoom)
        return failure(vlupd::SYSTEM_CALL_ERROR, "not enough space on the disk of " +
                                                     toUtf8(m_folder->path()) + ": " +
                                                     std::to_string(needed) + " bytes needed, " +
                                                     std::to_string(volume->freeBytes) + " free");
    m_operation.say(std::to_string(toWrite) + " bytes to write, " + std::to_string(needed) +
                    " bytes of disk space needed, " + std::to_string(volume->freeBytes) + " free");
    return {};
}

// First of all: a disk that cannot be written shows before anything is fetched.
Expected<void> Stager::copyKept()
{
    for (const FileNumber number : m_sources.empty) {
        const std::string name = std::to_string(number);
        if (auto removed = m_folder->removeFile(name); !removed)
            return removed;
        auto made = m_folder->openFile(name, File::Mode::Create, m_target.files[number].mode);
        auto finished = made ? m_finisher->finish(std::move(*made))
                             : Expected<void>(tl::unexpected(made.error()));
        if (!finished)
            return finished;
    }
    const auto failed = copyFiles(
        m_target, m_sources.kept, [this](FileNumber number) { return openBase(number); }, *m_folder,
        *m_finisher, m_written, m_operation);
    if (!failed)
        return tl::unexpected(failed.error());
    if (failed->empty())
        return {};
    m_operation.say(std::to_string(failed->size()) +
                    " files of the installed version are damaged or have been changed");
    const FileSources again = findSources(m_target, *failed, nullptr, {}, m_sources.missing);
    m_sources.missing.insert(m_sources.missing.end(), again.missing.begin(), again.missing.end());
    m_sources.twins.insert(m_sources.twins.end(), again.twins.begin(), again.twins.end());
    std::ranges::sort(m_sources.missing);
    return {};
}

Expected<void> Stager::fetchMissing()
{
    const BuildPlan pack = planFromPack(m_target, m_sources.missing, m_cut);
    const std::uint64_t packCost = pack.size(m_target.pack.frames);
    const auto delta = usefulDelta(packCost);
    if (!delta)
        return tl::unexpected(delta.error());
    if (*delta) {
        auto fetched = fetchByDelta(*deltaFromBase(), **delta);
        if (m_operation.cancelled())
            return tl::unexpected(endedByCaller());
        if (!fetched)
            m_operation.say(fetched.error().message + "; taking frames of the full pack instead");
        if (auto found = findCut(); !found)
            return found;
        // A disk that is full by now is no reason to fetch the rest.
        if (!fetched)
            if (auto room = makeRoom(m_sources.missing); !room)
                return room;
    } else {
        sayPlan("frames of the full pack", packCost);
    }
    return fetchFromPack();
}

// The index of the delta from the installed version if that delta costs less than the full pack.
Expected<std::optional<DeltaIndex>> Stager::usefulDelta(std::uint64_t packCost)
{
    const DeltaReference* reference = deltaFromBase();
    if (reference == nullptr || reference->size + reference->indexSize >= packCost)
        return std::optional<DeltaIndex>();
    auto index = fetchIndex(*reference);
    if (m_operation.cancelled())
        return tl::unexpected(endedByCaller());
    if (index)
        return std::optional(std::move(*index));
    m_operation.say(index.error().message + "; taking frames of the full pack instead");
    return std::optional<DeltaIndex>();
}

Expected<DeltaIndex> Stager::fetchIndex(const DeltaReference& reference)
{
    auto source = m_openSource(1);
    if (!source)
        return tl::unexpected(std::move(source).error());
    DocumentRequest request{.path = deltaIndexPath(reference.indexHash),
                            .maxSize = reference.indexSize};
    request.cancelled = [this] { return !m_operation.pump(); };
    const auto text = (*source)->fetchDocument(request);
    if (!text)
        return tl::unexpected(text.error());
    if (hashOf(*text) != reference.indexHash)
        return failure(vlupd::BROKEN_OR_MISSING, request.path + " arrived damaged");
    const auto expanded = expandDeltaIndex(std::as_bytes(std::span(*text)));
    if (!expanded)
        return tl::unexpected(expanded.error());
    return readDeltaIndex(*expanded, reference, m_base->manifest, m_target);
}

Expected<void> Stager::fetchByDelta(const DeltaReference& reference, const DeltaIndex& index)
{
    const BuildPlan plan = planFromDelta(index, m_sources.missing, m_cut);
    sayPlan("a delta", plan.size(index.frames));
    auto done = run(deltaPath(reference.hash), reference.size, index.frames, plan, &index);
    if (done && !m_failed.empty())
        m_operation.say("delta from " + reference.from + " to " + m_target.version + ": " +
                        std::to_string(m_failed.size()) +
                        " files do not come out, those they are made from have changed; taking "
                        "frames of the full pack instead");
    return done ? done : failure("delta from " + reference.from, std::move(done).error());
}

Expected<void> Stager::fetchFromPack()
{
    // A file that was cut may have been damaged before: once more, from its beginning.
    for (const bool again : {false, true}) {
        if (m_sources.missing.empty())
            return {};
        const CutFiles cut = again ? CutFiles() : m_cut;
        const BuildPlan plan = planFromPack(m_target, m_sources.missing, cut);
        auto done = run(packPath(m_target.pack.hash), m_target.pack.size, m_target.pack.frames,
                        plan, nullptr);
        if (!done)
            return done;
        const bool onlyCut =
            std::ranges::all_of(m_failed, [&cut](FileNumber file) { return cut.contains(file); });
        if (!m_failed.empty() && !onlyCut)
            break;
    }
    if (m_sources.missing.empty())
        return {};
    return failure(vlupd::BROKEN_OR_MISSING, m_target.files[m_sources.missing.front()].path +
                                                 " differs from the manifest after unpacking");
}

// Fetches the frames of a plan and builds their files; takes what was built off the missing ones.
Expected<void> Stager::run(const std::string& path, std::uint64_t size,
                           const std::vector<Frame>& frames, const BuildPlan& plan,
                           const DeltaIndex* delta)
{
    FrameBuilder builder(m_target, frames, plan, *m_folder, *m_finisher, m_written);
    if (delta != nullptr)
        builder.useBase(*delta, [this](FileNumber number) { return openBase(number); });
    m_operation.replan(0, plan.size(frames));
    auto done = downloadFrames(m_openSource, {path, size, frames}, plan.chains, m_operation,
                               [&](std::size_t transfer, std::size_t frame, auto bytes) {
                                   return builder.take(transfer, frame, bytes);
                               });
    builder.close();
    m_failed = builder.failed();
    m_sources.missing = without(m_sources.missing, builder.made());
    return done;
}

// What a delta that failed has made of files until then.
Expected<void> Stager::findCut()
{
    m_cut.clear();
    for (const FileNumber number : m_sources.missing) {
        const auto entry = m_folder->find(std::to_string(number));
        if (!entry)
            return tl::unexpected(entry.error());
        if (*entry && (*entry)->kind == FileKind::File && (*entry)->size > 0)
            m_cut[number] = (*entry)->size;
    }
    return {};
}

Expected<void> Stager::flush(const std::vector<FileNumber>& files)
{
    if (files.empty())
        return {};
    std::uint64_t counted = m_written / 2;
    const auto count = [&] {
        const std::uint64_t now = (m_written + m_flushed) / 2;
        m_operation.addDone(now - counted);
        counted = now;
    };
    if (auto closed = m_finisher->wait(m_operation); !closed)
        return closed;
    // Where closing has flushed, nothing is left but the volume's own memory.
    std::vector<FileNumber> large;
    for (const FileNumber number : files)
        if (syncVolumeWritesContents() && m_target.files[number].size >= smallFile)
            large.push_back(number);
        else
            m_flushed += m_target.files[number].size;
    std::atomic<std::size_t> next{0};
    const std::size_t threads = std::clamp<std::size_t>(std::thread::hardware_concurrency(), 2, 8);
    Workers workers(threads, [&](const std::stop_token& stop) -> Expected<void> {
        for (std::size_t i = next++; i < large.size() && !stop.stop_requested(); i = next++) {
            const std::uint64_t size = m_target.files[large[i]].size;
            const auto file = m_folder->openFile(std::to_string(large[i]), File::Mode::Read);
            if (!file)
                return tl::unexpected(file.error());
            for (std::uint64_t done = 0; done < size && !stop.stop_requested();) {
                const std::uint64_t step = std::min(flushStep, size - done);
                if (auto flushed = file->flushRange(done, step); !flushed)
                    return flushed;
                m_flushed += step;
                done += step;
            }
        }
        return {};
    });
    if (auto flushed = workers.finish(m_operation, count); !flushed)
        return flushed;
    auto synced = runInBackground(m_operation, [this] { return syncVolume(m_folder->path()); });
    return m_operation.cancelled() ? Expected<void>(tl::unexpected(endedByCaller())) : synced;
}

Expected<File> Stager::openBase(FileNumber number) const
{
    const std::string& path = m_base->manifest.files[number].path;
    FolderWalker folders(m_base->folder);
    const auto folder = folders.parentOf(path);
    if (!folder)
        return tl::unexpected(folder.error());
    return (*folder)->openFile(nameOf(path), File::Mode::Read);
}

void Stager::sayPlan(const std::string& way, std::uint64_t bytes)
{
    m_operation.say("plan: " + std::to_string(m_sources.kept.size()) +
                    " new files from installed ones, " + std::to_string(m_sources.missing.size()) +
                    " by " + way + ", " + std::to_string(bytes) + " bytes to fetch");
}

const DeltaReference* Stager::deltaFromBase() const
{
    if (m_base == nullptr)
        return nullptr;
    const auto delta =
        std::ranges::find(m_target.deltas, m_base->hash, &DeltaReference::fromManifest);
    return delta == m_target.deltas.end() ? nullptr : &*delta;
}

} // namespace vl
