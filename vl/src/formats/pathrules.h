#pragma once

#include <span>
#include <string>
#include <string_view>

namespace vl {

/// Why `path` may not be a file's path inside a version, or an empty text when it may: relative,
/// "/" between non-empty components of at most 255 bytes, 1024 bytes in all, valid UTF-8, no "."
/// or "..", no drive, colon, backslash or control character, no other character that Windows
/// refuses (<>"|?*), no trailing dot or space, no reserved device name (CON, NUL, COM1 ... with
/// any extension), no 8.3 short name (PROGRA~1), which Windows could take for another file, and not
/// ".vl" in any case as the first component, where the library stages files.
std::string pathFault(std::string_view path);

/// Why `key` may not be a version key, or an empty text. A key is one path component of at most
/// 128 bytes.
std::string versionKeyFault(std::string_view key);

/// The path after Unicode normalisation (NFC) and case folding: two paths that are one file on
/// some file system have the same folded form. `path` must be valid UTF-8.
std::string foldPath(std::string_view path);

/// Why files of these paths (each free of pathFault) cannot lie in one folder, or an empty text:
/// two have the same folded form, or one lies below another. Names the two paths.
std::string pathSetFault(std::span<const std::string_view> paths);

} // namespace vl
