#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace vl {

/// Text of every format and of every log line is UTF-8, whatever the system's narrow encoding is.
inline std::filesystem::path pathFromUtf8(std::string_view text)
{
    return {std::u8string(text.begin(), text.end())};
}

inline std::string utf8FromPath(const std::filesystem::path& path)
{
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

} // namespace vl
