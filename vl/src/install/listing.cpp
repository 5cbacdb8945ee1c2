#include "vl/src/install/listing.h"

#include "vl/src/install/layout.h"
#include "vl/src/operation/workers.h"

#include <algorithm>
#include <utility>

namespace vl {

Expected<FolderListing> FolderListing::of(const Folder& folder, Operation& operation)
{
    FolderListing listing;
    if (auto added = listing.add(folder, {}, operation); !added)
        return tl::unexpected(std::move(added).error());
    listing.m_keys.reserve(listing.m_entries.size());
    for (std::size_t i = 0; i < listing.m_entries.size(); ++i)
        listing.m_keys.push_back({pathKey(listing.m_entries[i].path), i});
    std::ranges::sort(listing.m_keys, {}, &Key::text);
    return listing;
}

const ListedEntry* FolderListing::find(std::string_view path) const
{
    const std::string text = pathKey(path);
    // Folders of their own lie between the files of a manifest.
    constexpr std::size_t nearby = 4;
    std::size_t place = m_next;
    while (place < std::min(m_next + nearby, m_keys.size()) && m_keys[place].text < text)
        ++place;
    if (place >= m_keys.size() || m_keys[place].text != text)
        place = static_cast<std::size_t>(std::ranges::lower_bound(m_keys, text, {}, &Key::text) -
                                         m_keys.begin());
    m_next = place;
    return place < m_keys.size() && m_keys[place].text == text ? &m_entries[m_keys[place].entry]
                                                               : nullptr;
}

Expected<void> FolderListing::add(const Folder& folder, const std::string& prefix,
                                  Operation& operation)
{
    auto entries = folder.list();
    if (!entries)
        return tl::unexpected(std::move(entries).error());
    if (!operation.pump())
        return tl::unexpected(endedByCaller());
    for (FolderEntry& entry : *entries) {
        if (prefix.empty() && entry.name == stagingInsideName)
            continue;
        const std::string name = entry.name;
        const bool isFolder = entry.kind == FileKind::Directory;
        m_entries.push_back({prefix + name, std::move(entry)});
        if (!isFolder)
            continue;
        const auto below = folder.openFolder(name);
        if (!below && below.error().code == vlupd::NOT_FOUND)
            continue; // removed meanwhile
        if (!below && below.error().code == vlupd::BROKEN_OR_MISSING) {
            m_entries.back().entry.kind = FileKind::Other; // replaced by a link meanwhile
            continue;
        }
        if (!below)
            return tl::unexpected(below.error());
        if (auto added = add(*below, prefix + name + "/", operation); !added)
            return added;
    }
    return {};
}

} // namespace vl
