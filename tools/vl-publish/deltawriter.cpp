#include "tools/vl-publish/deltawriter.h"

#include "tools/vl-publish/repository.h"
#include "tools/vl-publish/similarity.h"
#include "vl/src/install/filesources.h"
#include "vl/src/platform/file.h"

#include <algorithm>
#include <deque>
#include <future>
#include <numeric>
#include <thread>
#include <utility>

namespace vl::publish {
namespace fs = std::filesystem;
namespace {

/// A delta that is larger than this part of the full pack is not worth its place.
constexpr double largestUseful = 0.8;
/// Each frame in the works takes some 400 MiB at the highest levels.
constexpr unsigned maxWorkers = 4;
/// Bytes of the file of the same name that are looked at before and behind a part's own place.
constexpr std::uint64_t margin = 1U << 20U;

Expected<void> readPart(const VersionFolder& version, const FilePart& part,
                        std::span<std::byte> bytes)
{
    const auto file = File::open(version.file(part.file), File::Mode::Read);
    if (!file)
        return tl::unexpected(file.error());
    const auto got = file->readAt(part.offset, bytes);
    if (!got)
        return tl::unexpected(got.error());
    if (*got != bytes.size())
        return failure(vlupd::SYSTEM_CALL_ERROR,
                       toUtf8(version.file(part.file)) + " changed while it was read");
    return {};
}

Expected<std::vector<std::byte>> readParts(const VersionFolder& version,
                                           const std::vector<FilePart>& parts)
{
    std::vector<std::byte> bytes;
    for (const FilePart& part : parts) {
        bytes.resize(bytes.size() + static_cast<std::size_t>(part.size));
        const auto room = std::span(bytes).last(static_cast<std::size_t>(part.size));
        if (auto read = readPart(version, part, room); !read)
            return tl::unexpected(std::move(read).error());
    }
    return bytes;
}

/// Chooses what a frame is made from.
class BaseChooser final
{
public:
    explicit BaseChooser(const DeltaRequest& request)
        : m_request(request), m_anchors(request.base.manifest.installedSize())
    {
        for (const ManifestFile& file : request.base.manifest.files)
            m_sizes.push_back(file.size);
    }

    Expected<void> readBase(Progress& progress)
    {
        const Manifest& manifest = m_request.base.manifest;
        const std::uint64_t total = manifest.installedSize();
        std::uint64_t done = 0;
        for (std::size_t i = 0; i < manifest.files.size(); ++i) {
            if (auto added = m_anchors.add(i, m_request.base.file(i)); !added)
                return added;
            done += manifest.files[i].size;
            progress.update("looking for what stayed", done, total);
        }
        m_anchors.finish();
        return {};
    }

    std::vector<FilePart> choose(const std::vector<FilePart>& target,
                                 std::span<const std::byte> raw) const
    {
        std::vector<AnchorIndex::Match> matches = m_anchors.similarTo(raw, m_sizes);
        for (const FilePart& part : target)
            addNamesake(part, matches);
        // The densest first, as long as there is room.
        std::ranges::stable_sort(matches, std::ranges::greater(), [](const auto& match) {
            return static_cast<double>(match.weight) / static_cast<double>(match.part.size);
        });
        std::vector<FilePart> chosen;
        std::uint64_t room = maxDeltaBaseSize;
        for (const AnchorIndex::Match& match : matches) {
            FilePart part = match.part;
            part.size = std::min(part.size, room);
            room -= part.size;
            if (part.size > 0)
                chosen.push_back(part);
        }
        return merged(std::move(chosen));
    }

private:
    /// The file of the same name, around the same place.
    void addNamesake(const FilePart& part, std::vector<AnchorIndex::Match>& matches) const
    {
        const Manifest& base = m_request.base.manifest;
        const ManifestFile* namesake = base.find(m_request.target.manifest.files[part.file].path);
        if (namesake == nullptr || namesake->size == 0)
            return;
        const std::uint64_t begin = part.offset - std::min(part.offset, margin);
        const std::uint64_t end = std::min(part.offset + part.size + margin, namesake->size);
        if (begin >= end)
            return;
        const std::uint64_t weight = 1 + (end - begin) / (2 * m_anchors.spacing());
        const auto index = static_cast<std::size_t>(namesake - base.files.data());
        matches.push_back({{index, begin, end - begin}, weight});
    }

    static std::vector<FilePart> merged(std::vector<FilePart> parts)
    {
        std::ranges::sort(parts, {},
                          [](const FilePart& part) { return std::pair(part.file, part.offset); });
        std::vector<FilePart> result;
        for (const FilePart& part : parts) {
            if (!result.empty() && result.back().file == part.file &&
                result.back().offset + result.back().size >= part.offset)
                result.back().size =
                    std::max(result.back().offset + result.back().size, part.offset + part.size) -
                    result.back().offset;
            else
                result.push_back(part);
        }
        return result;
    }

    const DeltaRequest& m_request;
    AnchorIndex m_anchors;
    std::vector<std::uint64_t> m_sizes;
};

/// Compresses frames on all processors and writes them in their order.
class FrameRow final
{
public:
    FrameRow(File& file, int level) : m_file(file), m_level(level) {}

    Expected<void> add(DeltaFrame parts, std::vector<std::byte> raw, std::vector<std::byte> base)
    {
        const unsigned workers = std::clamp(std::thread::hardware_concurrency(), 1U, maxWorkers);
        if (m_jobs.size() >= workers)
            if (auto written = writeOldest(); !written)
                return written;
        const std::uint64_t rawSize = raw.size();
        auto compressed = std::async(
            std::launch::async, [level = m_level, raw = std::move(raw), base = std::move(base)] {
                return DeltaEncoder(level).encode(raw, base);
            });
        m_jobs.push_back({std::move(parts), rawSize, std::move(compressed)});
        return {};
    }

    Expected<DeltaIndex> finish()
    {
        while (!m_jobs.empty())
            if (auto written = writeOldest(); !written)
                return tl::unexpected(std::move(written).error());
        return std::move(m_index);
    }

    std::uint64_t size() const { return m_size; }
    Hash hash() { return m_hasher.finish(); }

private:
    struct Job
    {
        DeltaFrame parts;
        std::uint64_t rawSize = 0;
        std::future<Expected<std::vector<std::byte>>> compressed;
    };

    Expected<void> writeOldest()
    {
        Job job = std::move(m_jobs.front());
        m_jobs.pop_front();
        const auto bytes = job.compressed.get();
        if (!bytes)
            return tl::unexpected(bytes.error());
        m_index.frames.push_back({.offset = m_size,
                                  .size = bytes->size(),
                                  .rawOffset = 0,
                                  .rawSize = job.rawSize,
                                  .hash = hashOf(*bytes)});
        m_index.parts.push_back(std::move(job.parts));
        m_hasher.update(*bytes);
        auto written = m_file.writeAt(m_size, *bytes);
        m_size += bytes->size();
        return written;
    }

    File& m_file;
    const int m_level;
    std::uint64_t m_size = 0;
    Hasher m_hasher;
    DeltaIndex m_index;
    std::deque<Job> m_jobs;
};

Expected<void> addFrames(const DeltaRequest& request, const std::vector<std::size_t>& files,
                         const BaseChooser& chooser, FrameRow& row, Progress& progress)
{
    std::vector<FilePart> target;
    std::uint64_t size = 0;
    std::uint64_t done = 0;
    std::uint64_t total = 0;
    for (const std::size_t file : files)
        total += request.target.manifest.files[file].size;
    const auto cut = [&]() -> Expected<void> {
        if (target.empty())
            return {};
        auto raw = readParts(request.target, target);
        if (!raw)
            return tl::unexpected(std::move(raw).error());
        DeltaFrame parts{std::exchange(target, {}), {}};
        parts.base = chooser.choose(parts.target, *raw);
        auto base = readParts(request.base, parts.base);
        if (!base)
            return tl::unexpected(std::move(base).error());
        done += std::exchange(size, 0);
        auto added = row.add(std::move(parts), std::move(*raw), std::move(*base));
        progress.update("making a delta", done, total);
        return added;
    };
    for (const std::size_t file : files) {
        const std::uint64_t fileSize = request.target.manifest.files[file].size;
        for (std::uint64_t offset = 0; offset < fileSize;) {
            const std::uint64_t step = std::min(fileSize - offset, maxDeltaRawSize - size);
            target.push_back({file, offset, step});
            size += step;
            offset += step;
            if (size == maxDeltaRawSize)
                if (auto framed = cut(); !framed)
                    return framed;
        }
    }
    return cut();
}

} // namespace

fs::path VersionFolder::file(std::size_t number) const
{
    return folder /
           (isNumbered ? fs::path(std::to_string(number)) : fromUtf8(manifest.files[number].path));
}

Expected<std::optional<DeltaReference>> writeDelta(const DeltaRequest& request, Progress& progress)
{
    std::vector<FileNumber> all(request.target.manifest.files.size());
    std::iota(all.begin(), all.end(), FileNumber{0});
    const auto files = findSources(request.target.manifest, all, &request.base.manifest,
                                   [](FileNumber) { return true; }, {})
                           .missing;
    if (files.empty())
        return std::nullopt;
    BaseChooser chooser(request);
    if (auto read = chooser.readBase(progress); !read)
        return tl::unexpected(std::move(read).error());
    const fs::path temporary = temporaryDelta(request.repository);
    auto file = File::open(temporary, File::Mode::Create);
    if (!file)
        return tl::unexpected(std::move(file).error());
    FrameRow row(*file, request.level);
    auto done = addFrames(request, files, chooser, row, progress);
    auto index = done ? row.finish() : tl::unexpected(std::move(done).error());
    if (!index)
        return tl::unexpected(std::move(index).error());
    const auto text = compressDeltaIndex(writeDeltaIndex(*index));
    if (!text)
        return tl::unexpected(text.error());
    const DeltaReference reference{.from = request.base.manifest.version,
                                   .fromManifest = request.baseManifest,
                                   .size = row.size(),
                                   .hash = row.hash(),
                                   .indexSize = text->size(),
                                   .indexHash = hashOf(*text)};
    const auto size = static_cast<double>(reference.size + reference.indexSize);
    if (size > largestUseful * static_cast<double>(request.target.manifest.pack.size)) {
        progress.note("no delta from " + reference.from + ": it would save less than a fifth");
        if (auto removed = removeFile(temporary); !removed)
            return tl::unexpected(std::move(removed).error());
        return std::nullopt;
    }
    done = file->sync();
    *file = File();
    if (done)
        done = renameReplacing(temporary, request.repository / fromUtf8(deltaPath(reference.hash)));
    if (done)
        done = writeWholeFile(
            request.repository / fromUtf8(deltaIndexPath(reference.indexHash)),
            std::string_view(reinterpret_cast<const char*>(text->data()), text->size()));
    if (done)
        done = syncDirectory(temporary.parent_path());
    if (!done)
        return tl::unexpected(std::move(done).error());
    return reference;
}

} // namespace vl::publish
