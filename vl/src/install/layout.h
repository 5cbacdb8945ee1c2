#pragma once

#include "vl/src/formats/hash.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace vl {

/// The folder below the root that holds the installed version, and the one beside it for what is
/// being built. Where the first is a mount point, a link or a junction, the second lies in it.
inline constexpr auto versionFolderName = "simulator";
inline constexpr auto stagingBesideName = "simulator.vl";
inline constexpr auto stagingInsideName = ".vl";
/// In the staging folder: files that left the version folder, by number in the old manifest.
inline constexpr auto asideFolderName = "aside";

/// In the staging folder: the new files of the version with that manifest, by number in it.
std::string stagedFolderName(const Hash& manifest);
/// The manifest that a folder name of that form names.
std::optional<Hash> manifestOfStagedFolder(std::string_view name);

/// Where everything lies below the root directory.
class RootLayout final
{
public:
    explicit RootLayout(std::filesystem::path root) : m_root(std::move(root)) {}

    const std::filesystem::path& root() const { return m_root; }
    /// Which version is installed.
    std::filesystem::path installedFile() const { return m_root / "installed.json"; }
    /// Which version's files are to be deleted: the renamed installed.json.
    std::filesystem::path removedFile() const { return m_root / "removed.json"; }
    /// The journal of a switch that has begun.
    std::filesystem::path journalFile() const { return m_root / "switch.json"; }
    std::filesystem::path manifests() const { return m_root / "manifests"; }
    std::filesystem::path versionFolder() const { return m_root / versionFolderName; }

private:
    std::filesystem::path m_root;
};

} // namespace vl
