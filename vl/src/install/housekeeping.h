#pragma once

#include "vl/src/error.h"
#include "vl/src/install/records.h"
#include "vl/src/operation/operation.h"
#include "vl/src/platform/file.h"

#include <chrono>

// What whoever holds the lock does beside its own work: ending what was interrupted and clearing
// what the state does not name. Nothing here is needed for the installed version to be whole, so
// failures are logged and left to the next one who takes the lock.
namespace vl {

/// The state on the disk, written anew when it had to be repaired. The caller holds the lock.
Expected<State> takeOverState(const RootLayout& layout, Operation& operation);

enum class Tidying {
    Complete,
    Brief, ///< for a program's start: about a second, the next one takes up the rest
};

/// Moves the user's files out of superseded folders, removes these, interrupted installations,
/// the downloads of the one that ended well, trash, manifests that nothing names and temporary
/// files. The caller holds the lock.
void tidyUp(const RootLayout& layout, const State& state, Operation& operation,
            Tidying tidying = Tidying::Complete);

/// Removes download files older than `age` except those that the journal names, which may be 14
/// days old; the journal goes with the last of them. False when a file could not be removed. The
/// caller holds the lock.
bool removeDownloads(const RootLayout& layout, std::chrono::minutes age, Operation& operation);

/// Removes every download file but those that `kept` needs, for the sake of space.
void removeOtherDownloads(const RootLayout& layout, const Journal& kept, Operation& operation);

/// Puts the folder of a version aside under its trash name; not an error when there is none.
Expected<void> moveToTrash(const RootLayout& layout, const TreeId& id,
                           Patience patience = Patience::Usual);

} // namespace vl
