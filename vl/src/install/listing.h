#pragma once

#include "vl/src/error.h"
#include "vl/src/operation/operation.h"
#include "vl/src/platform/folder.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vl {

struct ListedEntry
{
    std::string path; ///< relative to the listed folder, "/" separators, UTF-8
    FolderEntry entry;
};

/// Everything in the version folder at one moment, taken in one pass without opening a file. The
/// library's own staging folder is left out. Used by one thread at a time.
class FolderListing final
{
public:
    FolderListing() = default; ///< of a folder that does not exist
    /// Runs on the calling thread and pumps `operation`; UNKNOWN_ERROR when that ends.
    static Expected<FolderListing> of(const Folder& folder, Operation& operation);

    /// Each folder before what lies in it.
    const std::vector<ListedEntry>& entries() const { return m_entries; }
    /// What the system takes `path` for, or null. Quick for paths in ascending order.
    const ListedEntry* find(std::string_view path) const;

private:
    Expected<void> add(const Folder& folder, const std::string& prefix, Operation& operation);

    struct Key
    {
        std::string text; ///< pathKey() of the entry's path
        std::size_t entry = 0;
    };

    std::vector<ListedEntry> m_entries;
    std::vector<Key> m_keys;        ///< ascending
    mutable std::size_t m_next = 0; ///< the key behind the one found last
};

} // namespace vl
