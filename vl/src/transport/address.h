#pragma once

#include "vl/src/error.h"

#include <filesystem>
#include <string>

namespace vl {

/// The scheme of an address in lower case, or an empty text when `text` is a folder.
std::string schemeOf(const std::string& text);

/// `address` without user name and password, for log lines. A folder is given back as it is.
std::string withoutCredentials(const std::string& address);

/// The host that an address names, IPv6 in brackets; empty when it cannot be read.
std::string hostOf(const std::string& address);

/// Whether `address` can be read as an http or https address. The message names what is wrong.
Expected<void> checkHttpAddress(const std::string& address);

/// The folder that a file:// address names.
Expected<std::filesystem::path> folderOfFileAddress(const std::string& address);

} // namespace vl
