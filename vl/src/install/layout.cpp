#include "vl/src/install/layout.h"

namespace vl {

namespace {

constexpr std::string_view stagedPrefix = "staged-";

} // namespace

std::string stagedFolderName(const Hash& manifest)
{
    return std::string(stagedPrefix) + toHex(manifest);
}

std::optional<Hash> manifestOfStagedFolder(std::string_view name)
{
    return name.starts_with(stagedPrefix) ? hashFromHex(name.substr(stagedPrefix.size()))
                                          : std::nullopt;
}

} // namespace vl
