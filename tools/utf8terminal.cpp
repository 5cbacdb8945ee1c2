#include "tools/utf8terminal.h"

#include <cstdlib>
#include <iterator>
#include <utility>

#if defined(_WIN32)

#undef WIN32_LEAN_AND_MEAN // it leaves out CommandLineToArgvW()
#include <windows.h>

#include <cwchar>

std::vector<std::string> utf8Arguments(int /*argc*/, char** /*argv*/)
{
    // The code page is the terminal's, which others use afterwards.
    static const UINT before = GetConsoleOutputCP();
    if (before != 0 && SetConsoleOutputCP(CP_UTF8) != 0)
        std::atexit([] { SetConsoleOutputCP(before); });
    // What main() is given has been squeezed into the code page of the system.
    std::vector<std::string> arguments;
    int count = 0;
    wchar_t** const wide = CommandLineToArgvW(GetCommandLineW(), &count);
    for (int i = count - 1; wide != nullptr && i > 0; --i) {
        const int length = static_cast<int>(std::wcslen(wide[i]));
        const auto convert = [&](char* to, int room) {
            return WideCharToMultiByte(CP_UTF8, 0, wide[i], length, to, room, nullptr, nullptr);
        };
        std::string argument(static_cast<std::size_t>(convert(nullptr, 0)), '\0');
        convert(argument.data(), static_cast<int>(argument.size()));
        arguments.push_back(std::move(argument));
    }
    LocalFree(wide);
    return arguments;
}

#else

std::vector<std::string> utf8Arguments(int argc, char** argv)
{
    if (argc < 2)
        return {};
    return {std::make_reverse_iterator(argv + argc), std::make_reverse_iterator(argv + 1)};
}

#endif
