#pragma once

#include <string_view>

namespace vl::publish {

/// True if `glob` matches the whole of `path`, which is relative to the release's folder: UTF-8
/// with
/// "/" separators.
/// - `*` stands for any characters but "/", `?` for one of them, `**` for any characters at all. As
///   a component of its own, `**` also stands for no folder: `a/**/b` matches `a/b`.
/// - A glob without "/" matches the file's name in any folder; `/NAME` only in the topmost.
/// - Everything else stands for itself, byte by byte, on every system.
bool globMatches(std::string_view glob, std::string_view path);

} // namespace vl::publish
