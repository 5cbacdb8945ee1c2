#pragma once

#include "vl/src/formats/hash.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace vl {

/// One installation of a version. The generation lets the same version be installed anew beside
/// itself; it never repeats below one root.
struct TreeId
{
    std::string version;
    std::uint64_t generation = 0;

    bool operator==(const TreeId&) const = default;
    /// "1.2.0.g7"
    std::string folderName() const;
    static std::optional<TreeId> fromFolderName(std::string_view name);
};

/// Where everything lies below the root directory.
class RootLayout final
{
public:
    explicit RootLayout(std::filesystem::path root) : m_root(std::move(root)) {}

    const std::filesystem::path& root() const { return m_root; }
    /// The state file: what it names is installed, everything else is rubbish.
    std::filesystem::path stateFile() const { return m_root / "installed.json"; }
    /// Names the interrupted installation whose downloads are worth keeping.
    std::filesystem::path journalFile() const { return m_root / "journal.json"; }
    std::filesystem::path downloads() const { return m_root / "downloads"; }
    std::filesystem::path manifests() const { return m_root / "manifests"; }
    std::filesystem::path versions() const { return m_root / "versions"; }
    std::filesystem::path partFile(const Hash& pack) const;
    std::filesystem::path deltaPartFile(const Hash& delta) const;
    std::filesystem::path deltaIndexFile(const Hash& index) const;
    /// The folder that holds a version's files.
    std::filesystem::path tree(const TreeId& id) const;
    /// Beside the folder: which version and manifest it holds, should the state file be lost.
    std::filesystem::path sidecar(const TreeId& id) const;
    /// Where a folder goes before its files are removed.
    std::filesystem::path trash(const TreeId& id) const;
    /// Where step `step` on the way to a version puts the files that the next one needs: rubbish
    /// from the beginning.
    std::filesystem::path staging(const TreeId& id, std::size_t step) const;
    static bool isTrashName(std::string_view name);
    /// Whether a file of that name in downloads() or manifests() may be ours. To Windows, the first
    /// is the same folder as the user's own "Downloads".
    static bool isDownloadName(std::string_view name);

private:
    std::filesystem::path m_root;
};

} // namespace vl
