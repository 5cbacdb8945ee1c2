#include "vl/src/formats/pathrules.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>
#include <vector>

namespace vl {
namespace {

/// The folder of a version in which the library stages files, case-folded.
constexpr std::string_view stagingFolder = ".vl";
constexpr std::size_t maxComponentSize = 255; // ext4, NTFS and APFS agree on 255
constexpr std::size_t maxPathSize = 1024;
constexpr std::size_t maxKeySize = 128; // leaves room for what the library adds to folder names

bool isAscii(std::string_view text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string upperAscii(std::string_view text)
{
    std::string upper(text);
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
    return upper;
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

/// CON, NUL, COM1 ...: Windows opens the device whatever extension follows. See "Naming Files,
/// Paths, and Namespaces" in Microsoft's file system documentation.
bool isDeviceName(std::string_view component)
{
    std::string_view stem = component.substr(0, component.find('.'));
    while (!stem.empty() && stem.back() == ' ')
        stem.remove_suffix(1);
    const std::string name = upperAscii(stem);
    static constexpr std::array<std::string_view, 6> names{"CON", "PRN",    "AUX",
                                                           "NUL", "CONIN$", "CONOUT$"};
    if (std::find(names.begin(), names.end(), name) != names.end())
        return true;
    if (!name.starts_with("COM") && !name.starts_with("LPT"))
        return false;
    const std::string_view port = std::string_view(name).substr(3);
    return (port.size() == 1 && isDigit(port[0])) || port == "\u00B9" || port == "\u00B2" ||
           port == "\u00B3";
}

/// NAME~1.EXT as NTFS makes them: such a name may already stand for a longer one.
bool isShortName(std::string_view component)
{
    const std::size_t dot = component.rfind('.');
    const std::string_view stem = component.substr(0, dot);
    const std::size_t extension = dot == std::string_view::npos ? 0 : component.size() - dot - 1;
    const std::size_t tilde = stem.rfind('~');
    return tilde != std::string_view::npos && stem.size() <= 8 && extension <= 3 &&
           tilde + 1 < stem.size() &&
           std::all_of(stem.begin() + static_cast<std::ptrdiff_t>(tilde) + 1, stem.end(), isDigit);
}

std::string characterFault(std::string_view text)
{
    const auto* position = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    auto left = static_cast<utf8proc_ssize_t>(text.size());
    while (left > 0) {
        utf8proc_int32_t character = 0;
        const utf8proc_ssize_t size = utf8proc_iterate(position, left, &character);
        if (size <= 0)
            return "is not valid UTF-8";
        if (character < 0x20 || (character >= 0x7f && character < 0xa0))
            return "holds a control character";
        if (character < 0x80 && std::string_view("\\:<>\"|?*").find(static_cast<char>(character)) !=
                                    std::string_view::npos)
            return std::string("holds the character ") + static_cast<char>(character);
        position += size;
        left -= size;
    }
    return {};
}

std::string componentFault(std::string_view component)
{
    if (component.empty())
        return "has an empty component";
    if (component == "." || component == "..")
        return "has a component \"" + std::string(component) + "\"";
    if (component.size() > maxComponentSize)
        return "has a component of more than 255 bytes";
    if (component.back() == '.' || component.back() == ' ')
        return "has a component that ends in a dot or a space";
    if (isDeviceName(component))
        return "has the reserved name " + std::string(component);
    if (isShortName(component))
        return "has the 8.3 short name " + std::string(component);
    return {};
}

/// Byte order with "/" below everything else, so that what lies below a path follows it at once.
bool treeLess(std::string_view left, std::string_view right)
{
    return std::lexicographical_compare(
        left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
            const auto rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c); };
            return rank(a) < rank(b);
        });
}

} // namespace

std::string pathFault(std::string_view path)
{
    if (path.empty())
        return "is empty";
    if (path.size() > maxPathSize)
        return "is longer than 1024 bytes";
    if (std::string fault = characterFault(path); !fault.empty())
        return fault;
    if (path.front() == '/')
        return "is absolute";
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        if (std::string fault = componentFault(path.substr(begin, end - begin)); !fault.empty())
            return fault;
        begin = end + 1;
    }
    const std::string_view top = path.substr(0, path.find('/'));
    if (foldPath(top) == stagingFolder)
        return "begins with the reserved name " + std::string(top);
    return {};
}

std::string versionKeyFault(std::string_view key)
{
    if (key.find('/') != std::string_view::npos)
        return "holds the character /";
    if (key.size() > maxKeySize)
        return "is longer than 128 bytes";
    return pathFault(key);
}

std::string foldPath(std::string_view path)
{
    if (isAscii(path)) {
        std::string folded(path);
        for (char& c : folded) {
            if (c >= 'A' && c <= 'Z')
                c = static_cast<char>(c - 'A' + 'a');
        }
        return folded;
    }
    // The options name NFC after full case folding; the result is ours to free.
    utf8proc_uint8_t* mapped = nullptr;
    const utf8proc_ssize_t size = utf8proc_map(
        reinterpret_cast<const utf8proc_uint8_t*>(path.data()),
        static_cast<utf8proc_ssize_t>(path.size()), &mapped,
        static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_CASEFOLD));
    if (size < 0)
        return std::string(path);
    std::string folded(reinterpret_cast<const char*>(mapped), static_cast<std::size_t>(size));
    std::free(mapped);
    return folded;
}

std::string pathSetFault(std::span<const std::string_view> paths)
{
    std::vector<std::pair<std::string, std::string_view>> folded;
    folded.reserve(paths.size());
    for (const std::string_view path : paths)
        folded.emplace_back(foldPath(path), path);
    std::sort(folded.begin(), folded.end(),
              [](const auto& a, const auto& b) { return treeLess(a.first, b.first); });
    for (std::size_t i = 1; i < folded.size(); ++i) {
        const auto& [before, beforePath] = folded[i - 1];
        const auto& [after, afterPath] = folded[i];
        const std::string both =
            '"' + std::string(beforePath) + "\" and \"" + std::string(afterPath) + '"';
        if (before == after)
            return both + " are one file where case or Unicode form makes no difference";
        if (after.size() > before.size() && after.starts_with(before) &&
            after[before.size()] == '/')
            return both + ": one would lie below the other, which is a file";
    }
    return {};
}

} // namespace vl
