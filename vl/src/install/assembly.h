#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/deltachain.h"
#include "vl/src/install/deltaplan.h"
#include "vl/src/install/filecopier.h"
#include "vl/src/install/filesources.h"
#include "vl/src/install/layout.h"
#include "vl/src/install/unpacker.h"
#include "vl/src/operation/operation.h"
#include "vl/src/transport/framedownload.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vl {

/// The version that lies on the disk already, whole or not.
struct BaseVersion
{
    std::shared_ptr<const Manifest> manifest;
    Hash manifestHash{};
    std::filesystem::path tree;
};

/// Fills the folder of a new version with the fewest bytes over the line: files of the installed
/// version by their contents, then a delta or a chain of deltas or single frames of the full pack,
/// whichever costs least. What one way fails to bring comes by the next, and nothing that has
/// arrived is fetched again.
class Assembly final
{
public:
    /// All but `base` must outlive the assembly.
    Assembly(const RootLayout& layout, std::shared_ptr<const Manifest> target, const TreeId& id,
             std::optional<BaseVersion> base, const OpenSource& openSource, Operation& operation);

    /// Finds out where the bytes will come from. Changes nothing but downloads.
    void plan(ManifestLookup& manifests);
    /// Bytes that the plan will write to the disk, downloads included.
    std::uint64_t spaceNeeded() const;
    /// Names of the download files that the plan uses begin with these.
    std::vector<std::string> downloads() const;
    /// Carries the plan out, through the stages of downloading and unpacking.
    Expected<void> run();

private:
    void fetchInstead(const std::vector<std::size_t>& files);
    Expected<void> fetchDelta();
    Expected<void> fetchPack();
    Expected<void> unpackRest();
    void beginDownload(std::uint64_t here, std::uint64_t size);
    void say(const std::string& plan, std::uint64_t bytes);
    FilePlace baseFiles() const;
    std::uint64_t written() const;

    const RootLayout& m_layout;
    const std::shared_ptr<const Manifest> m_target;
    const TreeId& m_id;
    const std::optional<BaseVersion> m_base;
    const OpenSource& m_openSource;
    Operation& m_operation;
    const std::filesystem::path m_tree;
    const std::filesystem::path m_partFile;
    FileSources m_sources;
    std::vector<std::size_t> m_missing; ///< neither in the installed version nor fetched so far
    std::optional<DeltaChain> m_delta;
    bool m_begun = false; ///< the stage of downloading
    std::uint64_t m_madeByDelta = 0;
    std::vector<std::unique_ptr<FileCopier>> m_copiers;
    std::vector<std::unique_ptr<Unpacker>> m_unpackers;
};

} // namespace vl
