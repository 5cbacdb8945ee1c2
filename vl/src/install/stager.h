#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/buildplan.h"
#include "vl/src/install/filecopier.h"
#include "vl/src/install/filefinisher.h"
#include "vl/src/install/filesources.h"
#include "vl/src/install/listing.h"
#include "vl/src/install/records.h"
#include "vl/src/install/staging.h"
#include "vl/src/operation/operation.h"
#include "vl/src/transport/framedownload.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vl {

/// A version that lies on the disk, whole or not.
struct BaseVersion
{
    const Manifest& manifest;
    Hash hash{};
    const Folder& folder;
    const FolderListing& listing;
};

/// Builds new files in the staging folder with the fewest bytes over the line: from what an
/// interrupted installation left, from files of the older version by their contents, then by a
/// delta or by frames of the full pack. What one way fails to bring comes by the next.
class Stager final
{
public:
    /// `base`: null when nothing usable lies there. All must outlive the stager.
    Stager(const Manifest& target, const Hash& targetHash, const BaseVersion* base,
           Staging& staging, const OpenSource& openSource, Operation& operation);

    /// Brings the files `wanted` of the target (ascending) into the staging folder, whole, verified
    /// and flushed, through the stages of downloading and unpacking.
    Expected<void> stage(const std::vector<FileNumber>& wanted);
    /// The last failure was lack of room on the volume.
    bool lacksRoom() const { return m_lacksRoom; }

private:
    Expected<void> makeRoom(const std::vector<FileNumber>& files);
    Expected<void> copyKept();
    Expected<void> fetchMissing();
    Expected<std::optional<DeltaIndex>> usefulDelta(std::uint64_t packCost);
    Expected<DeltaIndex> fetchIndex(const DeltaReference& reference);
    Expected<void> fetchByDelta(const DeltaReference& reference, const DeltaIndex& index);
    Expected<void> fetchFromPack();
    Expected<void> run(const std::string& path, std::uint64_t size,
                       const std::vector<Frame>& frames, const BuildPlan& plan,
                       const DeltaIndex* delta);
    Expected<void> findCut();
    Expected<void> flush(const std::vector<FileNumber>& files);
    Expected<File> openBase(FileNumber number) const;
    void sayPlan(const std::string& way, std::uint64_t bytes);
    const DeltaReference* deltaFromBase() const;

    const Manifest& m_target;
    const Hash m_targetHash;
    const BaseVersion* const m_base;
    Staging& m_staging;
    const OpenSource& m_openSource;
    Operation& m_operation;
    std::optional<Folder> m_folder; ///< of the staged files
    FileSources m_sources;
    CutFiles m_cut;
    std::set<FileNumber> m_failed; ///< of the last run
    std::optional<FileFinisher> m_finisher;
    std::atomic<std::uint64_t> m_written{0};
    std::atomic<std::uint64_t> m_flushed{0};
    bool m_lacksRoom = false;
};

} // namespace vl
