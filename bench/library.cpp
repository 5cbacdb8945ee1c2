// One operation of the update library as it ships, timed from outside by scripts/bench.
//   bench_library install|check|remove|clean ROOT VERSION [CUT]
// Prints one line for each: "memory" (the process's peak, KiB), "written" (bytes handed to block
// devices), "applying" (seconds from the last stage's beginning to the return), "asked" (bytes of
// disk space asked for) and "room" (the most that free space fell meanwhile, bytes). With CUT, a
// percentage, the process ends like one that was killed once so much of the download is there, and
// prints how many bytes that are; with "apply", as soon as the last stage begins to move files.
#include "vlupd/vlupd.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <streambuf>
#include <string>

namespace {

/// The library's log, a line per write, kept to be shown if the operation fails.
class LogLines final : public std::streambuf
{
public:
    const std::string& lines() const { return m_lines; }

protected:
    std::streamsize xsputn(const char* text, std::streamsize size) override
    {
        m_lines.append(text, static_cast<std::size_t>(size)).append("\n");
        return size;
    }

private:
    std::string m_lines;
};

/// The number behind `name` in a file of /proc.
std::uint64_t procNumber(const char* file, const std::string& name)
{
    std::ifstream lines(file);
    std::string word;
    while (lines >> word && word != name) {
    }
    std::uint64_t number = 0;
    lines >> number;
    return number;
}

/// The number in front of `words` in the log.
std::uint64_t loggedNumber(const std::string& log, const std::string& words)
{
    const std::size_t end = log.find(words);
    const std::size_t begin = end == std::string::npos ? end : log.rfind(' ', end - 1);
    return begin == std::string::npos ? 0 : std::stoull(log.substr(begin + 1, end - begin));
}

std::uint64_t freeBytes(const std::filesystem::path& root)
{
    return std::filesystem::space(root).available;
}

} // namespace

int main(int argc, char** argv)
{
    using Clock = std::chrono::steady_clock;
    const std::string operation = argc == 4 || argc == 5 ? argv[1] : "";
    if (!std::set<std::string>{"install", "check", "remove", "clean"}.contains(operation)) {
        std::cerr << "usage: bench_library install|check|remove|clean ROOT VERSION [CUT]\n";
        return 1;
    }
    const bool cutsApplying = argc == 5 && std::string(argv[4]) == "apply";
    const std::uint64_t cut = argc == 5 && !cutsApplying ? std::stoull(argv[4]) : 101;
    const std::filesystem::path root = argv[2];
    const std::string version = argv[3];
    LogLines log;
    vlupd::VLUPD library(std::filesystem::absolute(root), false, &log);
    const std::uint64_t freeBefore = freeBytes(root);
    std::uint64_t room = 0;
    int stage = -1;
    Clock::time_point applying = Clock::now();
    const auto progress = [&](std::uint64_t, std::uint64_t done, std::uint64_t total) {
        const std::uint64_t now = freeBytes(root);
        room = std::max(room, freeBefore > now ? freeBefore - now : 0);
        const bool enough = total > 0 && done * 100 >= total * cut;
        if ((stage == vlupd::STAGE_DOWNLOADING && enough) ||
            (stage == vlupd::STAGE_APPLYING && cutsApplying && done > 0)) {
            std::cout << done << std::endl;
            std::_Exit(0);
        }
        return true;
    };
    const auto announce = [&](vlupd::UPD_INSTALLATION_STAGE now) {
        stage = now;
        applying = Clock::now();
    };
    vlupd::UPD_RESULT result = vlupd::OK;
    if (operation == "install")
        result = library.installVersion(version, progress, announce);
    else if (operation == "check")
        result = library.checkFiles(version, std::nullopt);
    else if (operation == "remove")
        result = library.removeVersion(version);
    else
        result =
            library.cleanDownloads(std::chrono::minutes(30)) ? vlupd::OK : vlupd::SYSTEM_CALL_ERROR;
    const std::chrono::duration<double> applied = Clock::now() - applying;
    if (result != vlupd::OK) {
        std::cerr << log.lines() << operation << " ended with result " << result << '\n';
        return 1;
    }
    std::cout << "memory " << procNumber("/proc/self/status", "VmHWM:") << "\nwritten "
              << procNumber("/proc/self/io", "write_bytes:") << "\napplying " << applied.count()
              << "\nasked " << loggedNumber(log.lines(), " bytes of disk space needed") << "\nroom "
              << room << '\n';
    return 0;
}
