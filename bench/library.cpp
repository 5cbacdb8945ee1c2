// One operation of the update library as it ships, timed from outside by scripts/bench.
//   bench_library install|check ROOT VERSION [CUT]
// Prints the process's peak memory in KiB. With CUT, a percentage, the process ends like one that
// was killed once so much of the download is there, and prints how many bytes that are.
#include "vlupd/vlupd.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
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

/// "VmHWM:   12345 kB" of /proc/self/status: the most that was ever resident.
std::string peakMemory()
{
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word && word != "VmHWM:") {
    }
    status >> word;
    return word;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string operation = argc == 4 || argc == 5 ? argv[1] : "";
    if (operation != "install" && operation != "check") {
        std::cerr << "usage: bench_library install|check ROOT VERSION [CUT]\n";
        return 1;
    }
    const std::uint64_t cut = argc == 5 ? std::stoull(argv[4]) : 101;
    LogLines log;
    vlupd::VLUPD library(argv[2], false, &log);
    bool downloading = false;
    const auto progress = [&](std::uint64_t, std::uint64_t done, std::uint64_t total) {
        if (downloading && total > 0 && done * 100 >= total * cut) {
            std::cout << done << std::endl;
            std::_Exit(0);
        }
        return true;
    };
    const auto stage = [&](vlupd::UPD_INSTALLATION_STAGE now) {
        downloading = now == vlupd::STAGE_DOWNLOADING;
    };
    const vlupd::UPD_RESULT result = operation == "install"
                                         ? library.installVersion(argv[3], progress, stage)
                                         : library.checkFiles(argv[3], std::nullopt);
    if (result != vlupd::OK) {
        std::cerr << log.lines() << operation << " ended with result " << result << '\n';
        return 1;
    }
    std::cout << peakMemory() << '\n';
    return 0;
}
