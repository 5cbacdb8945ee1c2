#include "vl/src/platform/windowsprocess.h"

#include <shellapi.h>

#include <cstddef>
#include <string>

namespace fs = std::filesystem;

namespace vl {

namespace {

constexpr DWORD longestText = 32768; // with the NUL behind it

SystemHandle openProcess(DWORD id, DWORD access)
{
    return SystemHandle(OpenProcess(access, FALSE, id));
}

std::wstring commandLineOf(HANDLE process)
{
    constexpr auto processCommandLineInformation = static_cast<PROCESSINFOCLASS>(60);
    constexpr ULONG room = sizeof(UNICODE_STRING) + longestText * sizeof(wchar_t);
    std::vector<std::byte> buffer(room);
    ULONG used = 0;
    if (NtQueryInformationProcess(process, processCommandLineInformation, buffer.data(), room,
                                  &used) < 0)
        return {};
    const auto* text = reinterpret_cast<const UNICODE_STRING*>(buffer.data());
    return {text->Buffer, text->Length / sizeof(wchar_t)};
}

template <class Value> bool readFrom(HANDLE process, const void* address, Value& value)
{
    return ReadProcessMemory(process, address, &value, sizeof(value), nullptr) != 0;
}

// Where the system does not tell (Wine 8), it lies at the beginning of the process's memory.
std::wstring commandLineInMemoryOf(HANDLE process)
{
    PROCESS_BASIC_INFORMATION basics{};
    PEB block{};
    RTL_USER_PROCESS_PARAMETERS parameters{};
    ULONG used = 0;
    if (NtQueryInformationProcess(process, ProcessBasicInformation, &basics, sizeof(basics),
                                  &used) < 0 ||
        !readFrom(process, basics.PebBaseAddress, block) ||
        !readFrom(process, block.ProcessParameters, parameters))
        return {};
    const UNICODE_STRING& there = parameters.CommandLine;
    std::wstring text(there.Length / sizeof(wchar_t), L'\0');
    if (ReadProcessMemory(process, there.Buffer, text.data(), there.Length, nullptr) == 0)
        return {};
    return text;
}

} // namespace

SystemHandle openProcess(DWORD id)
{
    return openProcess(id, PROCESS_QUERY_LIMITED_INFORMATION);
}

fs::path imageOf(HANDLE process, DWORD form)
{
    std::wstring path(longestText, L'\0');
    DWORD length = longestText;
    path.resize(QueryFullProcessImageNameW(process, form, path.data(), &length) != 0 ? length : 0);
    return path;
}

std::vector<fs::path> argumentsOf(DWORD process)
{
    std::wstring commandLine = commandLineOf(openProcess(process).get());
    if (commandLine.empty())
        commandLine = commandLineInMemoryOf(
            openProcess(process, PROCESS_QUERY_INFORMATION | PROCESS_VM_READ).get());
    for (std::size_t at = 0; (at = commandLine.find(L"\"\"", at)) != std::wstring::npos;)
        commandLine.erase(at, 1);
    int count = 0;
    const std::unique_ptr<wchar_t*, decltype(&LocalFree)> words(
        CommandLineToArgvW(commandLine.c_str(), &count), LocalFree);
    return words ? std::vector<fs::path>(words.get(), words.get() + count)
                 : std::vector<fs::path>();
}

} // namespace vl
