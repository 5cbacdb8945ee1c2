#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/hash.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/layout.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vl {

/// A version folder and the manifest that it was made from.
struct InstalledTree
{
    TreeId id;
    Hash manifest{};
};

/// What the state file says.
struct State
{
    std::optional<InstalledTree> installed;
    /// Replaced, but their folders may still hold files of the user.
    std::vector<InstalledTree> superseded;
};

struct StateReading
{
    State state;
    /// The file on the disk says something else (or nothing): why. It is to be written anew by
    /// whoever holds the lock.
    std::optional<std::string> repaired;
};

/// The state as it stands: from the file; where that is missing or damaged, rebuilt from the
/// version folders; a removal that was interrupted counts as done. Needs no lock. Fails only when
/// something could not be read, which says nothing about what is installed.
Expected<StateReading> readState(const RootLayout& layout);
/// Whether the state file, as it lies there, names `id` as installed. For whoever failed to write
/// it: the failure may have come after the new text took its place.
Expected<bool> stateFileNames(const RootLayout& layout, const TreeId& id);
/// The only commit point.
Expected<void> writeState(const RootLayout& layout, const State& state);

Expected<void> writeSidecar(const RootLayout& layout, const InstalledTree& tree);

/// A generation that no folder, record or rubbish below the root has ever had.
Expected<std::uint64_t> nextGeneration(const RootLayout& layout, const State& state);

/// The manifest kept on the disk, its hash verified. NOT_FOUND or BROKEN_OR_MISSING when it is
/// lost or damaged.
Expected<Manifest> readSavedManifest(const RootLayout& layout, const InstalledTree& tree);

/// An installation that has begun and not ended well.
struct Journal
{
    InstalledTree tree;                 ///< what it was making
    std::vector<std::string> downloads; ///< its download files' names begin with these
    std::chrono::system_clock::time_point when;

    /// Whether the file `name` in the folder of downloads belongs to it.
    bool needs(std::string_view name) const;
};

/// Nothing when there is none or it cannot be understood.
std::optional<Journal> readJournal(const RootLayout& layout);
Expected<void> writeJournal(const RootLayout& layout, const Journal& journal);

} // namespace vl
