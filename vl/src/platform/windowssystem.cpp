#include "vl/src/platform/windowssystem.h"

#include "vl/src/platform/fileerror.h"

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <system_error>
#include <thread>

namespace fs = std::filesystem;

namespace vl {

namespace {

constexpr std::chrono::milliseconds firstPause{5};
constexpr std::chrono::milliseconds longestPause{250};

constexpr std::wstring_view networkPrefix = LR"(\\)";
constexpr std::wstring_view verbatimPrefix = LR"(\\?\)";
constexpr std::wstring_view devicePrefix = LR"(\\.\)";

int sizeOf(std::size_t size)
{
    return static_cast<int>(size); // paths: far below its limit
}

std::string utf8Of(std::wstring_view wide)
{
    const auto convert = [&](char* to, int room) {
        return WideCharToMultiByte(CP_UTF8, 0, wide.data(), sizeOf(wide.size()), to, room, nullptr,
                                   nullptr);
    };
    std::string text(static_cast<std::size_t>(convert(nullptr, 0)), '\0');
    convert(text.data(), sizeOf(text.size()));
    return text;
}

std::wstring wideOf(std::string_view text)
{
    const auto convert = [&](wchar_t* to, int room) {
        return MultiByteToWideChar(CP_UTF8, 0, text.data(), sizeOf(text.size()), to, room);
    };
    std::wstring wide(static_cast<std::size_t>(convert(nullptr, 0)), L'\0');
    convert(wide.data(), sizeOf(wide.size()));
    return wide;
}

fs::path normalised(const fs::path& path)
{
    std::wstring text = path.lexically_normal().make_preferred().native();
    // A drive's own folder keeps the separator behind it.
    while (text.size() > 3 && text.back() == L'\\')
        text.pop_back();
    return text;
}

std::wstring fromCurrentFolder(const std::wstring& path)
{
    std::wstring full(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(
        GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    return full;
}

} // namespace

// std::filesystem throws where a text is no valid Unicode; the system's own conversions put
// U+FFFD there, and nothing is found by such a name.
std::string toUtf8(const fs::path& path)
{
    std::string text = utf8Of(path.native());
    for (char& c : text)
        if (c == '\\')
            c = '/';
    return text;
}

fs::path fromUtf8(std::string_view text)
{
    return {wideOf(text)};
}

std::string pathKey(std::string_view path)
{
    const std::wstring wide = wideOf(path);
    std::wstring upper = wide;
    // One character for one, as the file system's own table does it.
    LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_UPPERCASE, wide.data(), sizeOf(wide.size()),
                  upper.data(), sizeOf(upper.size()), nullptr, nullptr, 0);
    return utf8Of(upper);
}

fs::path absolutePath(const fs::path& path)
{
    std::wstring text = path.native();
    std::ranges::replace(text, L'/', L'\\');
    const bool onDrive = text.size() >= 3 && text[1] == L':' && text[2] == L'\\';
    if (text.starts_with(verbatimPrefix) || text.starts_with(devicePrefix))
        return text;
    // std::filesystem takes the two separators in front of a server's name for one.
    if (text.starts_with(networkPrefix))
        return std::wstring(networkPrefix) +
               normalised(std::wstring_view(text).substr(networkPrefix.size())).native();
    return normalised(onDrive ? text : fromCurrentFolder(text));
}

std::wstring systemPath(const fs::path& path)
{
    std::wstring text = absolutePath(path).native();
    if (text.empty() || text.starts_with(verbatimPrefix) || text.starts_with(devicePrefix))
        return text;
    const std::wstring prefix(verbatimPrefix);
    return text.starts_with(networkPrefix) ? prefix + L"UNC" + text.substr(1) : prefix + text;
}

// C's words for errno are English whatever the user's language is; the log is English.
std::string systemReason(int error)
{
    return std::strerror(error);
}

tl::unexpected<Error> systemFailure(const char* what, const fs::path& path, SystemError error,
                                    vlupd::UPD_RESULT code)
{
    // The library knows which errno comes closest; the system's words are in its user's language.
    const auto condition = std::system_category().default_error_condition(static_cast<int>(error));
    std::string reason = condition.category() == std::generic_category()
                             ? systemReason(condition.value()) + " "
                             : std::string();
    if (isShut(error))
        reason = "held open by another program ";
    return failure(code, std::string("cannot ") + what + " " + toUtf8(path) + ": " + reason +
                             "(Windows error " + std::to_string(error) + ")");
}

bool isMissing(SystemError error)
{
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

void allowWriting(const std::wstring& systemPath)
{
    const DWORD attributes = GetFileAttributesW(systemPath.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY) != 0)
        SetFileAttributesW(systemPath.c_str(), attributes & ~DWORD{FILE_ATTRIBUTE_READONLY});
}

bool isLink(unsigned long attributes, unsigned long tag)
{
    // What is not told is not followed either.
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           (tag == 0 || IsReparseTagNameSurrogate(tag));
}

bool isShut(SystemError error)
{
    return error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION ||
           error == ERROR_DELETE_PENDING;
}

bool isHeld(SystemError error)
{
    return isShut(error) || error == ERROR_ACCESS_DENIED || error == ERROR_USER_MAPPED_FILE;
}

SystemError retriedWhile(bool (*passes)(SystemError), Patience patience,
                         const std::function<SystemError()>& call)
{
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + durationOf(patience);
    SystemError error = call();
    for (auto pause = firstPause; passes(error) && Clock::now() + pause < end;
         pause = std::min(2 * pause, longestPause)) {
        std::this_thread::sleep_for(pause);
        error = call();
    }
    return error;
}

} // namespace vl
