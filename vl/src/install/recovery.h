#pragma once

#include "vl/src/error.h"
#include "vl/src/install/state.h"
#include "vl/src/install/versionswitch.h"
#include "vl/src/operation/operation.h"
#include "vl/src/platform/file.h"

#include <functional>

// What whoever holds the lock of a root does about a switch that has begun. The caller holds it.
namespace vl {

/// A root, as the operations that change it see it.
struct RootContext
{
    const RootLayout& layout;
    SavedManifests& manifests;
    Operation& operation;
};

/// Brings a switch that was interrupted to its end, forward if it can be and else back, and returns
/// the state afterwards: without a begun switch, or with a committed one. Needs no network and
/// waits for no program. What cannot be ended now (a file is held open) is a failure, tried again
/// by the next operation. Ends early when the operation is cancelled.
Expected<State> settle(const RootContext& context);

/// Journals a switch and carries it out up to its commit point, counting the bytes of the new files
/// on the operation. `folders`: those that the switch was planned for; the aside one is empty.
/// `mayGoOn`: asked once the executables have left. False when it said no; then, and on any failure
/// before the commit point, everything is undone.
Expected<bool> carryOut(const RootContext& context, const Switch& journal,
                        const SwitchFolders& folders, const std::function<bool()>& mayGoOn);

} // namespace vl
