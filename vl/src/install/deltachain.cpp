#include "vl/src/install/deltachain.h"

#include "vl/src/install/deltaunpacker.h"
#include "vl/src/install/filesources.h"
#include "vl/src/install/treewriter.h"
#include "vl/src/platform/file.h"
#include "vl/src/transport/partfile.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace vl {

struct DeltaChain::Step
{
    DeltaStep delta;
    DeltaIndex index;
    std::vector<std::size_t> made; ///< files of the target that the delta makes
    std::vector<FileCopy> kept;    ///< files of the target that lie in the base as they are
    std::filesystem::path tree;    ///< where the made files go
    std::filesystem::path partFile;
    FilePlace base;                          ///< where the files of the base lie
    std::unique_ptr<DeltaUnpacker> unpacker; ///< goes first: its threads use what stands above

    std::filesystem::path placeOf(std::size_t file) const
    {
        if (std::ranges::binary_search(made, file))
            return tree / fromUtf8(delta.target->files[file].path);
        const auto copy = std::ranges::lower_bound(kept, file, {}, &FileCopy::target);
        return copy != kept.end() && copy->target == file ? base(copy->source)
                                                          : std::filesystem::path();
    }
};

DeltaChain::DeltaChain(const RootLayout& layout, DeltaPlan plan, FilePlace base, const TreeId& id,
                       const OpenSource& openSource, Operation& operation)
    : m_layout(layout), m_base(std::move(base)), m_openSource(openSource), m_operation(operation)
{
    for (DeltaStep& delta : plan.steps) {
        auto step = std::make_unique<Step>();
        step->delta = std::move(delta);
        step->partFile = layout.deltaPartFile(step->delta.reference.hash);
        m_steps.push_back(std::move(step));
    }
    for (std::size_t i = 0; i < m_steps.size(); ++i) {
        const bool last = i + 1 == m_steps.size();
        m_steps[i]->tree = last ? layout.tree(id) : layout.staging(id, i + 1);
        if (i == 0)
            m_steps[i]->base = m_base;
        else
            m_steps[i]->base = [before = m_steps[i - 1].get()](std::size_t file) {
                return before->placeOf(file);
            };
    }
}

DeltaChain::~DeltaChain() = default;

Expected<void> DeltaChain::prepare(const std::vector<std::size_t>& files)
{
    std::vector<std::size_t> wanted = files;
    for (std::size_t i = m_steps.size(); i-- > 0;) {
        Step& step = *m_steps[i];
        auto index = fetchIndex(step.delta);
        if (!index)
            return tl::unexpected(std::move(index).error());
        step.index = std::move(*index);
        planStep(step, wanted);
        step.unpacker = std::make_unique<DeltaUnpacker>(step.index, *step.delta.target, step.made,
                                                        step.base, step.partFile, step.tree);
    }
    return {};
}

Expected<DeltaIndex> DeltaChain::fetchIndex(const DeltaStep& step)
{
    const DeltaReference& reference = step.reference;
    const std::filesystem::path saved = m_layout.deltaIndexFile(reference.indexHash);
    auto text = readWholeFile(saved, reference.indexSize);
    if (!text || hashOf(*text) != reference.indexHash) {
        auto source = m_openSource(1);
        if (!source)
            return tl::unexpected(std::move(source).error());
        DocumentRequest request{.path = deltaIndexPath(reference.indexHash),
                                .maxSize = reference.indexSize};
        request.cancelled = [this] { return !m_operation.pump(); };
        text = (*source)->fetchDocument(request);
        if (!text)
            return tl::unexpected(std::move(text).error());
        if (hashOf(*text) != reference.indexHash)
            return failure(vlupd::BROKEN_OR_MISSING, request.path + " arrived damaged");
        if (auto kept = writeWholeFile(saved, *text); !kept)
            return tl::unexpected(std::move(kept).error());
    }
    const auto expanded = expandDeltaIndex(std::as_bytes(std::span(*text)));
    if (!expanded)
        return tl::unexpected(expanded.error());
    return readDeltaIndex(*expanded, reference, *step.base, *step.target);
}

// Turns the files of the step's target that are wanted into those of its base.
void DeltaChain::planStep(Step& step, std::vector<std::size_t>& wanted)
{
    std::set<std::size_t> makes;
    for (const DeltaFrame& frame : step.index.parts)
        for (const FilePart& part : frame.target)
            makes.insert(part.file);
    std::map<std::pair<Hash, std::uint64_t>, std::size_t> older;
    for (std::size_t i = 0; i < step.delta.base->files.size(); ++i)
        older.emplace(std::pair(step.delta.base->files[i].hash, step.delta.base->files[i].size), i);

    std::set<std::size_t> needed;
    for (const std::size_t file : wanted) {
        const ManifestFile& target = step.delta.target->files[file];
        if (makes.contains(file)) {
            step.made.push_back(file);
        } else if (const auto same = older.find({target.hash, target.size}); same != older.end()) {
            step.kept.push_back({file, same->second});
            needed.insert(same->second);
        }
    }
    for (const DeltaFrame& frame : step.index.parts)
        if (std::ranges::any_of(frame.target, [&](const FilePart& part) {
                return std::ranges::binary_search(step.made, part.file);
            }))
            for (const FilePart& part : frame.base)
                needed.insert(part.file);
    wanted.assign(needed.begin(), needed.end());
}

std::uint64_t DeltaChain::downloadSize() const
{
    std::uint64_t size = 0;
    for (const auto& step : m_steps)
        size += sizeOf(step->index.frames, step->unpacker->frames());
    return size;
}

std::uint64_t DeltaChain::arrived() const
{
    std::uint64_t size = 0;
    for (const auto& step : m_steps)
        size += arrivedBytes(step->partFile, step->index.frames, step->unpacker->frames());
    return size;
}

std::uint64_t DeltaChain::stagingSize() const
{
    std::uint64_t size = 0;
    for (std::size_t i = 0; i + 1 < m_steps.size(); ++i)
        for (const std::size_t file : m_steps[i]->made)
            size += m_steps[i]->delta.target->files[file].size;
    return size;
}

std::vector<std::string> DeltaChain::downloads() const
{
    std::vector<std::string> names;
    for (const auto& step : m_steps)
        for (const Hash& hash : {step->delta.reference.hash, step->delta.reference.indexHash})
            names.push_back(toHex(hash));
    return names;
}

Expected<void> DeltaChain::run()
{
    for (const auto& step : m_steps)
        if (auto done = runStep(*step); !done)
            return done;
    return {};
}

Expected<void> DeltaChain::runStep(Step& step)
{
    const bool last = &step == m_steps.back().get();
    if (!last)
        if (auto prepared = prepareTree(*step.delta.target, step.tree); !prepared)
            return prepared;
    const DeltaReference& reference = step.delta.reference;
    const FrameFile file{deltaPath(reference.hash), reference.size, step.index.frames};
    step.unpacker->start();
    const auto downloaded =
        downloadFrames(m_openSource, file, step.unpacker->frames(), step.partFile, m_operation,
                       [&step](std::size_t index) { return step.unpacker->frameReady(index); });
    // What has arrived is made use of, whatever became of the rest.
    step.unpacker->endOfFrames();
    if (auto finished = step.unpacker->finish(m_operation); !finished)
        return finished;
    const std::size_t wanted = step.made.size();
    step.made = step.unpacker->made();
    if (step.made.size() < wanted)
        m_operation.say("delta from " + reference.from + " to " + step.delta.target->version +
                        ": " + std::to_string(wanted - step.made.size()) +
                        " files do not come out, those they are made from have changed");
    if (last)
        m_made = step.made;
    if (!downloaded)
        return failure("delta from " + reference.from, downloaded.error());
    return {};
}

const std::vector<FileCopy>& DeltaChain::carried() const
{
    return m_steps.back()->kept;
}

const FilePlace& DeltaChain::carriedFrom() const
{
    return m_steps.back()->base;
}

} // namespace vl
