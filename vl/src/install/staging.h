#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/layout.h"
#include "vl/src/install/records.h"
#include "vl/src/operation/operation.h"
#include "vl/src/platform/folder.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vl {

/// The folder on the volume of the version's folder in which new files are built and old ones wait.
/// It lies beside the version's folder, or in it where that is a mount point, a link or a junction.
/// Nothing of it is left when no installation is under way.
class Staging final
{
public:
    /// Opens what is there, without making anything.
    static Expected<Staging> find(const RootLayout& layout);

    /// Makes the folder if need be and returns it.
    Expected<const Folder*> make();
    /// The folder if it exists, else null.
    const Folder* folder() const { return m_folder.isOpen() ? &m_folder : nullptr; }
    /// A folder in it: one that exists, or nothing.
    Expected<std::optional<Folder>> findFolder(const std::string& name) const;

    /// Interrupted installations: the manifests that files are staged for, with the bytes that they
    /// take and when something was staged last.
    struct Staged
    {
        Hash manifest{};
        std::uint64_t bytes = 0;
        VolumeTime modified = 0;
    };
    Expected<std::vector<Staged>> staged() const;
    /// Removes what is staged for a manifest.
    Expected<void> removeStaged(const Hash& manifest, const std::function<bool()>& goOn) const;
    /// Removes a folder in it with everything that lies there.
    Expected<void> removeFolder(const std::string& name, const std::function<bool()>& goOn) const;
    /// Removes the folder itself if it is empty.
    void removeIfEmpty();

private:
    Folder m_parent; ///< in which the folder lies or would lie
    std::string m_name;
    Folder m_folder;
};

/// What an interrupted installation has left of the files `wanted`: after verification by hash.
struct StagedFiles
{
    std::vector<FileNumber> whole;
    /// Files that are cut: how many bytes there are. Not verified: the whole file is, at its end.
    std::map<FileNumber, std::uint64_t> cut;
};

/// Looks through the staged files in `folder`, removes what is wrong or not wanted, and counts the
/// bytes that it reads on `operation`.
Expected<StagedFiles> verifyStaged(const Folder& folder, const Manifest& manifest,
                                   const std::vector<FileNumber>& wanted, Operation& operation);

} // namespace vl
