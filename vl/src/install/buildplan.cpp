#include "vl/src/install/buildplan.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

namespace vl {

namespace {

// Whole parts of a cut file need not come again; a part that is there in part does.
void dropWhatIsThere(BuildPlan& plan, const CutFiles& cut)
{
    for (auto frame = plan.parts.begin(); frame != plan.parts.end();) {
        std::erase_if(frame->second, [&cut](const FramePart& part) {
            const auto here = cut.find(part.file);
            return here != cut.end() && part.fileOffset + part.size <= here->second;
        });
        frame = frame->second.empty() ? plan.parts.erase(frame) : std::next(frame);
    }
}

// Frames between the first and the last one of a file belong together.
void findChains(BuildPlan& plan)
{
    std::map<FileNumber, std::size_t> lastFrames;
    for (const auto& [frame, parts] : plan.parts)
        for (const FramePart& part : parts)
            lastFrames[part.file] = frame;
    std::size_t last = 0;
    for (const auto& [frame, parts] : plan.parts) {
        if (plan.chains.empty() || frame > last)
            plan.chains.emplace_back();
        plan.chains.back().push_back(frame);
        for (const FramePart& part : parts)
            last = std::max(last, lastFrames[part.file]);
        last = std::max(last, frame);
    }
}

} // namespace

std::uint64_t BuildPlan::size(std::span<const Frame> frames) const
{
    std::uint64_t bytes = 0;
    for (const auto& [frame, brought] : parts)
        bytes += frames[frame].size;
    return bytes;
}

BuildPlan planFromPack(const Manifest& manifest, std::span<const FileNumber> files,
                       const CutFiles& cut)
{
    BuildPlan plan;
    const std::vector<Frame>& frames = manifest.pack.frames;
    for (const FileNumber number : files) {
        const ManifestFile& file = manifest.files[number];
        const std::uint64_t end = file.rawOffset + file.size;
        auto frame = std::ranges::upper_bound(frames, file.rawOffset, {}, &Frame::rawOffset) - 1;
        for (; frame != frames.end() && frame->rawOffset < end; ++frame) {
            const std::uint64_t from = std::max(frame->rawOffset, file.rawOffset);
            const std::uint64_t to = std::min(frame->rawOffset + frame->rawSize, end);
            plan.parts[static_cast<std::size_t>(frame - frames.begin())].push_back(
                {from - frame->rawOffset, to - from, number, from - file.rawOffset});
        }
    }
    for (auto& [frame, parts] : plan.parts)
        std::ranges::sort(parts, {}, &FramePart::rawOffset);
    dropWhatIsThere(plan, cut);
    findChains(plan);
    return plan;
}

BuildPlan planFromDelta(const DeltaIndex& index, std::span<const FileNumber> files,
                        const CutFiles& cut)
{
    BuildPlan plan;
    const std::set<FileNumber> wanted(files.begin(), files.end());
    for (std::size_t frame = 0; frame < index.parts.size(); ++frame) {
        std::uint64_t rawOffset = 0;
        for (const FilePart& part : index.parts[frame].target) {
            if (wanted.contains(part.file))
                plan.parts[frame].push_back({rawOffset, part.size, part.file, part.offset});
            rawOffset += part.size;
        }
    }
    dropWhatIsThere(plan, cut);
    findChains(plan);
    return plan;
}

} // namespace vl
