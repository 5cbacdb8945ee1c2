#pragma once

#include "tools/vl-publish/publisher.h"
#include "vl/src/error.h"
#include "vl/src/formats/catalogue.h"
#include "vl/src/formats/manifest.h"

#include <filesystem>
#include <string>
#include <vector>

// What deltas mean to a whole repository.
namespace vl::publish {

/// The versions from which a delta to `version` is made when nobody says otherwise: the newest two
/// lower ones of `catalogue`.
std::vector<std::string> defaultDeltaBases(const Catalogue& catalogue, const std::string& version);

/// Makes the deltas to the version of `target`, whose files lie in `folder`, from each version of
/// `bases`, and writes what is worth keeping into the repository. `level`: zstd's.
Expected<std::vector<DeltaReference>>
writeDeltas(const std::filesystem::path& repository, const Catalogue& catalogue,
            const std::vector<std::string>& bases, const Manifest& target,
            const std::filesystem::path& folder, int level, Progress& progress);

/// Makes every file of every delta of `target` and compares it with the manifest. Deltas from
/// versions that are no longer listed are only looked at frame by frame. Returns the faults.
std::vector<std::string> verifyDeltas(const std::filesystem::path& repository,
                                      const Catalogue& catalogue, const Manifest& target,
                                      Progress& progress);

} // namespace vl::publish
