// One operation of the update library as it ships, timed from outside by scripts/bench.
//   bench_library install|check ROOT VERSION
// Prints the process's peak memory in KiB.
#include "vlupd/vlupd.h"

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
    const std::string operation = argc == 4 ? argv[1] : "";
    if (operation != "install" && operation != "check") {
        std::cerr << "usage: bench_library install|check ROOT VERSION\n";
        return 1;
    }
    LogLines log;
    vlupd::VLUPD library(argv[2], false, &log);
    const auto progress = [](std::uint64_t, std::uint64_t, std::uint64_t) { return true; };
    const auto stage = [](vlupd::UPD_INSTALLATION_STAGE) {};
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
