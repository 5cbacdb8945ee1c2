#include "vl/src/install/folderwalker.h"

#include <utility>

namespace vl {

Expected<const Folder*> FolderWalker::walk(std::string_view path, bool make)
{
    std::string_view rest = parentPathOf(path);
    std::size_t depth = 0;
    while (!rest.empty()) {
        const std::size_t slash = rest.find('/');
        const std::string_view name = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
        if (depth < m_open.size() && m_open[depth].name == name) {
            ++depth;
            continue;
        }
        m_open.resize(depth);
        const Folder& above = depth == 0 ? m_top : m_open.back().folder;
        auto folder =
            make ? above.makeFolder(std::string(name)) : above.openFolder(std::string(name));
        if (!folder)
            return tl::unexpected(std::move(folder).error());
        m_open.push_back({std::string(name), std::move(*folder)});
        ++depth;
    }
    m_open.resize(depth);
    return depth == 0 ? &m_top : &m_open.back().folder;
}

bool hasNoFolder(const Error& error)
{
    return error.code == vlupd::NOT_FOUND || error.code == vlupd::BROKEN_OR_MISSING;
}

std::string nameOf(std::string_view path)
{
    return std::string(path.substr(path.rfind('/') + 1));
}

std::string_view parentPathOf(std::string_view path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

void addParents(std::string_view path, FolderPaths& folders)
{
    for (auto folder = parentPathOf(path); !folder.empty(); folder = parentPathOf(folder))
        if (!folders.insert(folder).second)
            break;
}

} // namespace vl
