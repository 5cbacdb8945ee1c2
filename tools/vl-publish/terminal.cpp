#include "tools/vl-publish/terminal.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>
#ifdef _WIN32
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace vl::publish {
namespace {

using namespace std::chrono_literals;

bool errorsGoToTerminal()
{
#ifdef _WIN32
    // A console that cannot clear a line gets none that is to be cleared.
    HANDLE errors = GetStdHandle(STD_ERROR_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(errors, &mode) != 0 &&
           SetConsoleMode(errors, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
#else
    return isatty(STDERR_FILENO) != 0;
#endif
}

} // namespace

TerminalProgress::TerminalProgress()
    : m_terminal(errorsGoToTerminal()), m_begin(std::chrono::steady_clock::now())
{
}

TerminalProgress::~TerminalProgress()
{
    clearLine();
}

void TerminalProgress::update(std::string_view step, std::uint64_t done, std::uint64_t total)
{
    const auto now = std::chrono::steady_clock::now();
    if (!m_terminal || (m_lineShown && done < total && now - m_lastShown < 100ms))
        return;
    m_lastShown = now;
    const double seconds = std::max(std::chrono::duration<double>(now - m_begin).count(), 0.001);
    const double share = total > 0 ? static_cast<double>(done) / static_cast<double>(total) : 1;
    const auto speed = static_cast<std::uint64_t>(static_cast<double>(done) / seconds);
    clearLine();
    std::cerr << step << ' ' << static_cast<int>(share * 100) << " %  " << readableSize(done)
              << " of " << readableSize(total) << ", " << readableSize(speed) << "/s" << std::flush;
    m_lineShown = true;
}

void TerminalProgress::note(const std::string& text)
{
    clearLine();
    std::cerr << "note: " << text << '\n';
}

void TerminalProgress::clearLine()
{
    if (m_lineShown)
        std::cerr << "\r\033[K";
    m_lineShown = false;
}

std::string readableSize(std::uint64_t bytes)
{
    static constexpr std::array<const char*, 5> units{"B", "KiB", "MiB", "GiB", "TiB"};
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; value >= 1024 && unit + 1 < units.size(); ++unit)
        value /= 1024;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
    return text.data();
}

} // namespace vl::publish
