#include "vl/src/install/layout.h"

#include "vl/src/formats/pathrules.h"
#include "vl/src/platform/file.h"

#include <charconv>

namespace vl {

namespace {

constexpr std::string_view trashPrefix = ".trash-";
constexpr std::string_view generationMark = ".g";

} // namespace

std::string TreeId::folderName() const
{
    return version + std::string(generationMark) + std::to_string(generation);
}

std::optional<TreeId> TreeId::fromFolderName(std::string_view name)
{
    const std::size_t mark = name.rfind(generationMark);
    if (mark == std::string_view::npos)
        return std::nullopt;
    TreeId id{std::string(name.substr(0, mark)), 0};
    const std::string_view digits = name.substr(mark + generationMark.size());
    const char* const end = digits.data() + digits.size();
    const auto [last, error] = std::from_chars(digits.data(), end, id.generation);
    // Written back it must be the same name: no leading zeros, nothing behind the digits.
    if (error != std::errc() || last != end || !versionKeyFault(id.version).empty() ||
        id.folderName() != name)
        return std::nullopt;
    return id;
}

std::filesystem::path RootLayout::partFile(const Hash& pack) const
{
    return downloads() / (toHex(pack) + ".tar.zst.part");
}

std::filesystem::path RootLayout::deltaPartFile(const Hash& delta) const
{
    return downloads() / (toHex(delta) + ".zst.part");
}

std::filesystem::path RootLayout::deltaIndexFile(const Hash& index) const
{
    return downloads() / (toHex(index) + ".index.zst");
}

std::filesystem::path RootLayout::tree(const TreeId& id) const
{
    return versions() / fromUtf8(id.folderName());
}

std::filesystem::path RootLayout::sidecar(const TreeId& id) const
{
    return versions() / fromUtf8(id.folderName() + ".json");
}

std::filesystem::path RootLayout::trash(const TreeId& id) const
{
    return versions() / fromUtf8(std::string(trashPrefix) + id.folderName());
}

std::filesystem::path RootLayout::staging(const TreeId& id, std::size_t step) const
{
    std::filesystem::path path = trash(id);
    path += ".step" + std::to_string(step);
    return path;
}

bool RootLayout::isTrashName(std::string_view name)
{
    return name.starts_with(trashPrefix);
}

bool RootLayout::isDownloadName(std::string_view name)
{
    const std::size_t end = name.find('.');
    return end != std::string_view::npos && hashFromHex(name.substr(0, end));
}

} // namespace vl
