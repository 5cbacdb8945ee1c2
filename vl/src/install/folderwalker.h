#pragma once

#include "vl/src/error.h"
#include "vl/src/platform/folder.h"

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace vl {

/// Opens the folders that paths below one folder lead through, each in the one above it, so that no
/// link on the way is followed. The folders of the last path stay open: ascending paths open each
/// folder once. Used by one thread.
class FolderWalker final
{
public:
    /// `top` must outlive the walker.
    explicit FolderWalker(const Folder& top) : m_top(top) {}

    /// The folder in which the last component of `path` lies; valid until the next call. NOT_FOUND
    /// or BROKEN_OR_MISSING when there is no such folder.
    Expected<const Folder*> parentOf(std::string_view path) { return walk(path, false); }
    /// The same, made where it is missing.
    Expected<const Folder*> makeParentOf(std::string_view path) { return walk(path, true); }
    /// Closes the folders, so that they can be renamed everywhere.
    void close() { m_open.clear(); }

private:
    struct Step
    {
        std::string name;
        Folder folder;
    };

    Expected<const Folder*> walk(std::string_view path, bool make);

    const Folder& m_top;
    std::vector<Step> m_open; ///< each in the one before it
};

/// True for the failure of FolderWalker::parentOf() that tells that there is no such folder.
bool hasNoFolder(const Error& error);

/// The last component of a path.
std::string nameOf(std::string_view path);
/// All but the last component of a path; empty at the top.
std::string_view parentPathOf(std::string_view path);

/// Paths of folders, each after those that lie in it.
using FolderPaths = std::set<std::string_view, std::greater<>>;
/// Adds the folders that `path` leads through; they refer to its text.
void addParents(std::string_view path, FolderPaths& folders);

} // namespace vl
