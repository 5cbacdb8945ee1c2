#pragma once

#include "vl/src/error.h"
#include "vl/src/install/recovery.h"
#include "vl/src/install/state.h"
#include "vl/src/transport/catalogueservice.h"
#include "vl/src/transport/source.h"

#include <string>

// The operations that change what is installed. The caller holds the lock.
namespace vl {

struct InstallationContext
{
    const RootContext& root;
    CatalogueService& catalogues;
    const SourceOptions& transport;
};

/// Installs `version` in place of what is installed, or the same again to repair it. Returns once
/// it is committed; tidy() does the rest. On any failure the old version is as it was, and what has
/// been built stays for the next attempt.
Expected<void> installVersion(const InstallationContext& context, const std::string& version);

/// Removes the installed `version`: from then on it is not installed, and tidy() deletes its files.
/// Refused while a program of it runs. Needs no room on the disk.
Expected<void> removeVersion(const RootContext& context, const std::string& version);

} // namespace vl
