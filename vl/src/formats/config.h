#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/minisign.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vl {

/// The contents of vl.json.
struct Config
{
    std::string repository;            ///< address, or folder relative to the root
    std::vector<PublicKey> publicKeys; ///< one or two
    std::optional<std::string> repositoryId;
    std::uint64_t maxBytesPerSecond = 0; ///< 0: no limit
    std::string proxy;                   ///< empty: the environment's or the system's
};

/// UPDATER_DATA_ERROR with what is wrong; unknown members are ignored.
Expected<Config> parseConfig(std::string_view text);
/// Reads `root`/vl.json. The message names the file and the fault.
Expected<Config> readConfig(const std::filesystem::path& root);

} // namespace vl
