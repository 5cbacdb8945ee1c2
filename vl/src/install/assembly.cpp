#include "vl/src/install/assembly.h"

#include "vl/src/install/treewriter.h"
#include "vl/src/install/unpacker.h"
#include "vl/src/operation/workers.h"
#include "vl/src/platform/file.h"
#include "vl/src/transport/partfile.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

namespace vl {

namespace {

std::vector<std::size_t> without(const std::vector<std::size_t>& files,
                                 const std::vector<std::size_t>& taken)
{
    std::vector<std::size_t> rest;
    std::ranges::set_difference(files, taken, std::back_inserter(rest));
    return rest;
}

} // namespace

Assembly::Assembly(const RootLayout& layout, std::shared_ptr<const Manifest> target,
                   const TreeId& id, std::optional<BaseVersion> base, const OpenSource& openSource,
                   Operation& operation)
    : m_layout(layout), m_target(std::move(target)), m_id(id), m_base(std::move(base)),
      m_openSource(openSource), m_operation(operation), m_tree(layout.tree(id)),
      m_partFile(layout.partFile(m_target->pack.hash))
{
}

void Assembly::plan(ManifestLookup& manifests)
{
    // A look at the size is enough here: what is taken is hashed on the way.
    m_sources =
        findSources(*m_target, m_base ? m_base->manifest.get() : nullptr, [this](std::size_t file) {
            const ManifestFile& entry = m_base->manifest->files[file];
            const auto info = fileInfo(m_base->tree / fromUtf8(entry.path));
            return info && *info && (*info)->kind == FileKind::File && (*info)->size == entry.size;
        });
    m_missing = m_sources.missing;
    const auto frames = framesOf(*m_target, m_missing);
    const std::uint64_t packCost = sizeOf(m_target->pack.frames, frames) -
                                   arrivedBytes(m_partFile, m_target->pack.frames, frames);
    if (!m_base || m_missing.empty())
        return say("frames of the full pack", packCost);
    auto plan =
        findDeltaPlan(m_base->manifest, m_base->manifestHash, m_target, packCost, manifests);
    if (!plan)
        return say("frames of the full pack", packCost);
    const std::size_t steps = plan->steps.size();
    m_delta.emplace(m_layout, std::move(*plan), baseFiles(), m_id, m_openSource, m_operation);
    if (auto prepared = m_delta->prepare(m_missing); !prepared) {
        m_operation.say(prepared.error().message + "; taking frames of the full pack instead");
        m_delta.reset();
        return say("frames of the full pack", packCost);
    }
    say(steps == 1 ? "a delta" : "a chain of " + std::to_string(steps) + " deltas",
        m_delta->downloadSize() - m_delta->arrived());
}

void Assembly::say(const std::string& plan, std::uint64_t bytes)
{
    m_operation.say("plan: " + std::to_string(m_sources.kept.size()) +
                    " files from the installed version, " + std::to_string(m_missing.size()) +
                    " by " + plan + ", " + std::to_string(bytes) + " bytes to fetch");
}

std::uint64_t Assembly::spaceNeeded() const
{
    std::uint64_t download = 0;
    if (m_delta) {
        download = m_delta->downloadSize() - m_delta->arrived() + m_delta->stagingSize();
    } else {
        const auto frames = framesOf(*m_target, m_missing);
        download = sizeOf(m_target->pack.frames, frames) -
                   arrivedBytes(m_partFile, m_target->pack.frames, frames);
    }
    return download + m_target->installedSize();
}

std::vector<std::string> Assembly::downloads() const
{
    std::vector<std::string> names{toHex(m_target->pack.hash)};
    if (m_delta)
        std::ranges::move(m_delta->downloads(), std::back_inserter(names));
    return names;
}

Expected<void> Assembly::run()
{
    if (auto prepared = prepareTree(*m_target, m_tree); !prepared)
        return prepared;
    m_copiers.push_back(
        std::make_unique<FileCopier>(*m_target, m_sources.kept, baseFiles(), m_tree));
    FileCopier& kept = *m_copiers.front();
    kept.start();
    auto fetched = m_delta ? fetchDelta() : fetchPack();
    if (fetched)
        fetched = kept.finish(m_operation, {});
    if (!fetched)
        return fetched;
    fetchInstead(kept.failed());
    // Only now is it known that nothing else has to be fetched.
    if (!m_missing.empty())
        if (fetched = fetchPack(); !fetched)
            return fetched;
    m_operation.endStage();
    return unpackRest();
}

// What the installed version turned out not to have. One file of each contents is fetched.
void Assembly::fetchInstead(const std::vector<std::size_t>& files)
{
    if (files.empty())
        return;
    m_operation.say(std::to_string(files.size()) +
                    " files of the installed version are damaged or have been changed");
    std::map<std::pair<Hash, std::uint64_t>, std::size_t> fetched;
    for (const std::size_t file : files) {
        const ManifestFile& entry = m_target->files[file];
        const auto [same, isFirst] = fetched.try_emplace({entry.hash, entry.size}, file);
        if (isFirst)
            m_missing.push_back(file);
        else
            m_sources.twins.push_back({file, same->second});
    }
}

Expected<void> Assembly::fetchDelta()
{
    beginDownload(m_delta->arrived(), m_delta->downloadSize());
    const auto done = m_delta->run();
    if (m_operation.cancelled())
        return tl::unexpected(endedByCaller());
    if (!done)
        m_operation.say(done.error().message + "; taking frames of the full pack instead");
    m_missing = without(m_missing, m_delta->made());
    for (const std::size_t file : m_delta->made())
        m_madeByDelta += m_target->files[file].size;

    std::vector<FileCopy> carried;
    for (const FileCopy& copy : m_delta->carried())
        if (std::ranges::binary_search(m_missing, copy.target))
            carried.push_back(copy);
    m_copiers.push_back(
        std::make_unique<FileCopier>(*m_target, carried, m_delta->carriedFrom(), m_tree));
    FileCopier& copier = *m_copiers.back();
    copier.start();
    if (auto copied = copier.finish(m_operation, {}); !copied)
        return copied;
    std::vector<std::size_t> came;
    for (const FileCopy& copy : carried)
        if (!std::ranges::binary_search(copier.failed(), copy.target))
            came.push_back(copy.target);
    m_missing = without(m_missing, came);
    return {};
}

// Brings what is missing out of the full pack; the unpacking may go on afterwards.
Expected<void> Assembly::fetchPack()
{
    const Pack& pack = m_target->pack;
    std::ranges::sort(m_missing);
    m_unpackers.push_back(std::make_unique<Unpacker>(*m_target, m_missing, m_partFile, m_tree));
    m_missing.clear();
    Unpacker& unpacker = *m_unpackers.back();
    const std::vector<std::size_t> frames = unpacker.frames();
    const std::uint64_t here = arrivedBytes(m_partFile, pack.frames, frames);
    const std::uint64_t size = sizeOf(pack.frames, frames);
    if (m_begun)
        m_operation.replan(here, size - here);
    else
        beginDownload(here, size);
    unpacker.start();
    if (!m_operation.pump())
        return tl::unexpected(endedByCaller());
    return downloadFrames(m_openSource, {packPath(pack.hash), pack.size, pack.frames}, frames,
                          m_partFile, m_operation,
                          [&unpacker](std::size_t index) { return unpacker.frameReady(index); });
}

void Assembly::beginDownload(std::uint64_t here, std::uint64_t size)
{
    m_begun = true;
    m_operation.beginStage(vlupd::STAGE_DOWNLOADING, here, size);
}

Expected<void> Assembly::unpackRest()
{
    std::uint64_t counted = written();
    const auto count = [&] {
        const std::uint64_t now = written();
        m_operation.addDone(now - counted);
        counted = now;
    };
    m_operation.beginStage(vlupd::STAGE_UNPACKING, counted, m_target->installedSize());
    for (const auto& unpacker : m_unpackers)
        if (auto unpacked = unpacker->finish(m_operation, count); !unpacked)
            return unpacked;
    m_copiers.push_back(std::make_unique<FileCopier>(
        *m_target, m_sources.twins,
        [this](std::size_t file) { return m_tree / fromUtf8(m_target->files[file].path); },
        m_tree));
    FileCopier& twins = *m_copiers.back();
    twins.start();
    if (auto copied = twins.finish(m_operation, count); !copied)
        return copied;
    if (!twins.failed().empty())
        return failure(vlupd::BROKEN_OR_MISSING,
                       m_target->files[twins.failed().front()].path + " could not be copied");
    m_operation.endStage();
    return {};
}

FilePlace Assembly::baseFiles() const
{
    return [this](std::size_t file) {
        return m_base->tree / fromUtf8(m_base->manifest->files[file].path);
    };
}

std::uint64_t Assembly::written() const
{
    std::uint64_t bytes = m_madeByDelta;
    for (const auto& copier : m_copiers)
        bytes += copier->written();
    for (const auto& unpacker : m_unpackers)
        bytes += unpacker->written();
    return bytes;
}

} // namespace vl
