#pragma once

#include "vl/src/error.h"
#include "vl/src/install/recovery.h"

#include <chrono>

// Deleting what is superfluous. Nothing here is needed for the installed version to be whole; what
// cannot be done now is left to the next operation. The caller holds the lock.
namespace vl {

/// There is something to be deleted that an earlier operation has left. Needs no lock.
bool needsTidying(const RootLayout& layout);

/// Deletes, of a state that settle() has returned: old files of a committed switch, files of a
/// removed version, what was staged more than `age` and 14 days ago, manifests that nothing names
/// and temporary files. Goes on after a failure and returns the first one. Ends early when the
/// operation is cancelled.
Expected<void> tidy(const RootContext& context, const State& state, std::chrono::minutes age);

/// Deletes the files of `record`, a removed version, and its record at last: unchanged settings
/// files too, changed ones not, and nothing that its manifest does not list.
Expected<void> deleteRemoved(const RootContext& context, const VersionRecord& record);

} // namespace vl
