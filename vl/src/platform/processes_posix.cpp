#include "vl/src/platform/processes.h"

#if defined(__linux__)
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>
#endif

namespace fs = std::filesystem;

namespace vl {

#if defined(__linux__)

namespace {

constexpr std::size_t maxListBytes = 64U << 10U; // of a process's arguments or environment
constexpr std::size_t maxLineBytes = 256;        // of a "#!" line: Linux looks no further
// Arguments of a process that are looked at: a "#!" line can put some before the script.
constexpr std::size_t maxCandidates = 4;
constexpr auto blanks = " \t\r";

/// The first line of a script.
struct Interpreter
{
    std::string program;                ///< a path, or a name without "/" that lies in the PATH
    std::vector<std::string> arguments; ///< that it gets before the path of the script
};

std::optional<FileId> fileId(const std::string& path)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0)
        return std::nullopt;
    return FileId{static_cast<std::uint64_t>(status.st_dev),
                  static_cast<std::uint64_t>(status.st_ino)};
}

/// The path of a listed file, relative to the folder; null when the file is not listed.
const std::string* listedPath(const ProgramFiles& files, const std::optional<FileId>& id)
{
    const auto found = id ? files.byId.find(*id) : files.byId.end();
    return found == files.byId.end() ? nullptr : &found->second;
}

/// At most `size` bytes; empty when the file cannot be read.
std::string beginningOf(const std::string& path, std::size_t size)
{
    std::string text;
    const int file = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0)
        return text;
    std::array<char, 4096> part = {};
    bool isMore = true;
    while (isMore && text.size() < size) {
        const ssize_t count = ::read(file, part.data(), std::min(part.size(), size - text.size()));
        isMore = count == std::ssize(part);
        if (count > 0)
            text.append(part.data(), static_cast<std::size_t>(count));
    }
    ::close(file);
    return text;
}

/// The entries of a folder of /proc that are numbers: processes, or descriptors of one.
std::vector<std::string> numbersIn(const std::string& folder)
{
    std::vector<std::string> numbers;
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        std::string name = entry->path().filename().string();
        if (name.find_first_not_of("0123456789") == std::string::npos)
            numbers.push_back(std::move(name));
    }
    return numbers;
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> parts;
    for (std::size_t end = 0; end != std::string_view::npos;) {
        end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return parts;
}

std::string_view trimmed(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

std::optional<Interpreter> interpreterIn(std::string_view script)
{
    if (!script.starts_with("#!"))
        return std::nullopt;
    script.remove_prefix(2);
    const std::string_view line = trimmed(script.substr(0, script.find('\n')));
    const fs::path program = line.substr(0, line.find_first_of(blanks));
    const std::string_view rest = trimmed(line.substr(program.native().size()));
    if (program.filename() != "env") {
        Interpreter interpreter{.program = program, .arguments = {}};
        if (!rest.empty()) // Linux passes it as one argument, blanks included
            interpreter.arguments.emplace_back(rest);
        return interpreter;
    }
    std::istringstream stream{std::string(rest)};
    const std::vector<std::string> words(std::istream_iterator<std::string>(stream), {});
    const auto name = std::ranges::find_if(words, [](const std::string& word) {
        return !word.starts_with('-') && word.find('=') == std::string::npos;
    });
    if (name == words.end())
        return std::nullopt;
    return Interpreter{.program = *name, .arguments = {name + 1, words.end()}};
}

/// The file that the process `process` ("/proc/PID") means by `path`.
std::string seenBy(const std::string& process, const std::string& path)
{
    return process + (path.starts_with('/') ? "/root" : "/cwd/") + path;
}

/// Tells whether `program`, the executable of the process, is that interpreter.
bool isInterpreter(const std::string& process, const FileId& program,
                   const Interpreter& interpreter)
{
    if (interpreter.program.find('/') != std::string::npos)
        return fileId(seenBy(process, interpreter.program)) == program;
    constexpr std::string_view variable = "PATH=";
    for (const std::string& entry : split(beginningOf(process + "/environ", maxListBytes), '\0')) {
        if (!entry.starts_with(variable))
            continue;
        for (const fs::path folder : split(entry.substr(variable.size()), ':')) {
            if (fileId(seenBy(process, folder / interpreter.program)) == program)
                return true;
        }
    }
    return false;
}

/// The listed file called `name` among the open files of a process, as a path; empty when there is
/// none. Shells keep their script open, which shows it after the script has been renamed, or has
/// been started by a relative path and has left the folder.
std::string openScript(const std::string& process, const fs::path& name, const ProgramFiles& files)
{
    const std::string folder = process + "/fd/";
    for (const std::string& number : numbersIn(folder)) {
        std::string place = folder + number;
        const std::string* path = listedPath(files, fileId(place));
        if (path != nullptr && fs::path(*path).filename() == name)
            return place;
    }
    return {};
}

/// The listed script that a process with the executable `program` runs; null when it runs none.
const std::string* scriptOf(const std::string& process, const FileId& program,
                            const ProgramFiles& files)
{
    const auto arguments = split(beginningOf(process + "/cmdline", maxListBytes), '\0');
    std::size_t candidates = 0;
    for (std::size_t i = 1; i < arguments.size() && candidates < maxCandidates; ++i) {
        if (arguments[i].empty() || arguments[i].starts_with('-'))
            continue;
        ++candidates;
        std::string place = seenBy(process, arguments[i]);
        auto id = fileId(place);
        // A script that the system started has a "/" in its path; other words are no paths.
        if (!id && arguments[i].find('/') != std::string::npos) {
            place = openScript(process, fs::path(arguments[i]).filename(), files);
            id = fileId(place);
        }
        const std::string* path = listedPath(files, id);
        if (path == nullptr)
            continue;
        // Only options stand before a script that an interpreter was told to run, and exactly the
        // arguments of its first line where the system found the interpreter there.
        const auto interpreter = interpreterIn(beginningOf(place, maxLineBytes));
        const auto script = arguments.begin() + static_cast<std::ptrdiff_t>(i);
        if (interpreter &&
            (candidates == 1 ||
             std::ranges::equal(arguments.begin() + 1, script, interpreter->arguments.begin(),
                                interpreter->arguments.end())) &&
            isInterpreter(process, program, *interpreter))
            return path;
    }
    return nullptr;
}

} // namespace

std::optional<RunningProgram> findRunning(const ProgramFiles& files)
{
    if (files.byId.empty())
        return std::nullopt;
    const std::string self = std::to_string(::getpid());
    for (const std::string& number : numbersIn("/proc")) {
        if (number == self)
            continue;
        const std::string process = "/proc/" + number;
        const auto program = fileId(process + "/exe");
        if (!program) // a thread of the system, a process that has ended, or another user's
            continue;
        const std::string* path = listedPath(files, program);
        if (path == nullptr)
            path = scriptOf(process, *program, files);
        if (path != nullptr)
            return RunningProgram{.path = *path, .process = std::stoull(number)};
    }
    return std::nullopt;
}

#else

std::optional<RunningProgram> findRunning(const ProgramFiles& /*files*/)
{
    return std::nullopt;
}

#endif

std::string holdersOf(const fs::path& /*path*/)
{
    return {}; // open files hinder no renaming
}

} // namespace vl
