#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/records.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace vl {

/// What the records say of a root.
struct State
{
    std::optional<VersionRecord> installed;
    std::optional<VersionRecord> removed; ///< its files are to be deleted
    std::optional<Switch> begun;          ///< the switch whose journal is still there
    bool journalDamaged = false;          ///< it is there and of no use
    /// The record of the installed version was lost or damaged; `installed` was rebuilt.
    bool rebuilt = false;
    std::string fault; ///< for the log: what was found damaged or lost; else empty

    /// The switch has reached its commit point: only tidying is left of it.
    bool isCommitted() const;
};

/// The state as it stands; needs no lock. A lost or damaged installed.json is rebuilt from the
/// journal, or from the saved manifests and the files that lie there. Fails as readVersionRecord()
/// does.
Expected<State> readState(const RootLayout& layout);

/// Manifests that are kept on the disk; the ones read last stay in memory. Any thread.
class SavedManifests final
{
public:
    explicit SavedManifests(const RootLayout& layout) : m_layout(layout) {}

    /// NOT_FOUND or BROKEN_OR_MISSING when it is lost or damaged.
    Expected<std::shared_ptr<const Manifest>> get(const VersionRecord& record);
    void put(const Hash& hash, std::shared_ptr<const Manifest> manifest);
    /// Forgets the manifests that are kept in memory.
    void clear();

private:
    const RootLayout& m_layout;
    std::mutex m_mutex;
    std::map<Hash, std::shared_ptr<const Manifest>> m_known;
};

} // namespace vl
