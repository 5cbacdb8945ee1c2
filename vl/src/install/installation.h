#pragma once

#include "vl/src/error.h"
#include "vl/src/install/housekeeping.h"
#include "vl/src/install/records.h"
#include "vl/src/operation/operation.h"
#include "vl/src/transport/catalogueservice.h"
#include "vl/src/transport/source.h"

#include <string>

// The operations that change what is installed. The caller holds the lock.
namespace vl {

struct InstallationContext
{
    const RootLayout& layout;
    CatalogueService& catalogues;
    const SourceOptions& transport;
    Operation& operation;
};

/// Installs `version` in place of what is installed: OK or FOUND_LOCALLY. On any failure the old
/// version is untouched and what has been downloaded stays for the next attempt.
Expected<vlupd::UPD_RESULT> installVersion(const InstallationContext& context,
                                           const std::string& version);

/// Removes the installed `version` and everything in its folder. When it fails, the version is
/// whole; once it is recorded as removed, what cannot be deleted is left to the next operation.
Expected<void> removeVersion(const RootLayout& layout, const std::string& version,
                             Operation& operation);

} // namespace vl
