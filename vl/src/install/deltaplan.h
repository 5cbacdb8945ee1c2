#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vl {

/// Most deltas that are applied one after the other.
inline constexpr std::size_t maxDeltaSteps = 3;

/// From one version to the next.
struct DeltaStep
{
    DeltaReference reference;
    std::shared_ptr<const Manifest> base;
    std::shared_ptr<const Manifest> target;
};

/// Where the manifests of the versions between two others are found.
class ManifestLookup
{
public:
    virtual ~ManifestLookup() = default;
    /// Bytes that fetching the manifest takes, 0 when it lies on the disk; nothing when it cannot
    /// be had.
    virtual std::optional<std::uint64_t> cost(const std::string& version, const Hash& manifest) = 0;
    virtual Expected<Manifest> get(const std::string& version, const Hash& manifest) = 0;
};

struct DeltaPlan
{
    std::vector<DeltaStep> steps; ///< the oldest version first
    std::uint64_t cost = 0;       ///< bytes to fetch: delta packs, indexes, manifests
};

/// The delta or chain of deltas with the fewest bytes that leads from the version of manifest
/// `baseHash` to `target`, or nothing when there is none that costs less than `limit`. Manifests of
/// versions between are fetched only while they can still pay off.
std::optional<DeltaPlan> findDeltaPlan(const std::shared_ptr<const Manifest>& base,
                                       const Hash& baseHash,
                                       const std::shared_ptr<const Manifest>& target,
                                       std::uint64_t limit, ManifestLookup& lookup);

} // namespace vl
