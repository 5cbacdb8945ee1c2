#include "tools/vl-publish/glob.h"

#include <cstddef>
#include <string>

namespace vl::publish {
namespace {

/// Bytes of the UTF-8 character that `text` begins with.
std::size_t characterSize(std::string_view text)
{
    std::size_t size = 1;
    while (size < text.size() && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80)
        ++size;
    return size;
}

/// Each component of `glob` and `path` begins with its "/".
bool matches(std::string_view glob, std::string_view path)
{
    if (glob.empty())
        return path.empty();
    if (glob.starts_with("/**/") && matches(glob.substr(3), path))
        return true;
    if (glob.front() == '*') {
        const bool crossesFolders = glob.starts_with("**");
        glob.remove_prefix(crossesFolders ? 2 : 1);
        while (!matches(glob, path)) {
            if (path.empty() || (path.front() == '/' && !crossesFolders))
                return false;
            path.remove_prefix(1);
        }
        return true;
    }
    if (path.empty())
        return false;
    if (glob.front() == '?' && path.front() != '/')
        return matches(glob.substr(1), path.substr(characterSize(path)));
    return glob.front() == path.front() && matches(glob.substr(1), path.substr(1));
}

} // namespace

bool globMatches(std::string_view glob, std::string_view path)
{
    const bool anyFolder = glob.find('/') == std::string_view::npos;
    const char* const top = anyFolder ? "/**/" : glob.front() == '/' ? "" : "/";
    return matches(top + std::string(glob), '/' + std::string(path));
}

} // namespace vl::publish
