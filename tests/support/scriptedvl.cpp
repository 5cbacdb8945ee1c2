#include "tests/support/scriptedvl.h"

#include <condition_variable>
#include <mutex>
#include <utility>

namespace {

/// Everything a script and its calls share. Never destroyed: the launcher's library object goes
/// during the destruction of statics and is recorded like the rest.
struct State
{
    std::mutex mutex;
    std::condition_variable changed;
    scripted::Script script;
    std::vector<scripted::Call> calls;
    std::basic_streambuf<char>* logBuffer = nullptr;
    int standing = 0;
    int openings = 0;
};

State& state()
{
    static auto* const instance = new State;
    return *instance;
}

/// Records the call and gives the script as it stands.
scripted::Script called(const std::string& operation, const std::string& argument = {})
{
    const std::lock_guard lock(state().mutex);
    state().calls.push_back({operation, argument, std::this_thread::get_id()});
    return state().script;
}

void standAtGate()
{
    std::unique_lock lock(state().mutex);
    ++state().standing;
    state().changed.notify_all();
    state().changed.wait(lock, [] { return state().openings > 0; });
    --state().openings;
    --state().standing;
}

} // namespace

namespace scripted {

void setScript(Script script)
{
    const std::lock_guard lock(state().mutex);
    state().script = std::move(script);
    state().calls.clear();
}

std::vector<Call> calls()
{
    const std::lock_guard lock(state().mutex);
    return state().calls;
}

std::vector<std::string> callsOf(const std::string& operation)
{
    std::vector<std::string> arguments;
    for (Call& call : calls()) {
        if (call.operation == operation)
            arguments.push_back(std::move(call.argument));
    }
    return arguments;
}

void waitAtGate()
{
    std::unique_lock lock(state().mutex);
    state().changed.wait(lock, [] { return state().standing > 0; });
}

void openGate()
{
    const std::lock_guard lock(state().mutex);
    ++state().openings;
    state().changed.notify_all();
}

std::basic_streambuf<char>* logBuffer()
{
    const std::lock_guard lock(state().mutex);
    return state().logBuffer;
}

} // namespace scripted

namespace vlupd {

class VLUPD::Implementation
{
};

VLUPD::VLUPD(const std::filesystem::path& root, bool readOnly, std::basic_streambuf<char>* log)
{
    called("constructor", root.string() + (readOnly ? " read-only" : ""));
    setLogBuf(log);
}

VLUPD::~VLUPD()
{
    called("destructor", scripted::logBuffer() == nullptr ? "" : "with a log buffer");
}

void VLUPD::setLogBuf(std::basic_streambuf<char>* log)
{
    const std::lock_guard lock(state().mutex);
    state().logBuffer = log;
}

UPD_RESULT
VLUPD::installVersion(const std::string& version,
                      std::function<bool(std::uint64_t, std::uint64_t, std::uint64_t)> progress,
                      std::function<void(UPD_INSTALLATION_STAGE)> stage)
{
    const scripted::Script script = called("installVersion", version);
    for (const scripted::Step& step : script.installation) {
        if (const auto* report = std::get_if<scripted::Progress>(&step)) {
            if (!progress(report->bytesPerSecond, report->bytesDone, report->bytesTotal))
                return UNKNOWN_ERROR;
        } else if (const auto* announced = std::get_if<scripted::Stage>(&step)) {
            stage(announced->stage);
        } else if (const auto* line = std::get_if<scripted::Log>(&step)) {
            if (auto* log = scripted::logBuffer())
                log->sputn(line->text.c_str(), static_cast<std::streamsize>(line->text.size()));
        } else {
            standAtGate();
        }
    }
    if (script.installResult == OK && script.installedAfterwards) {
        const std::lock_guard lock(state().mutex);
        state().script.installed = *script.installedAfterwards;
    }
    return script.installResult;
}

UPD_RESULT VLUPD::removeVersion(const std::string& version)
{
    const UPD_RESULT result = called("removeVersion", version).removeResult;
    if (result == OK) {
        const std::lock_guard lock(state().mutex);
        state().script.installed.erase(version);
    }
    return result;
}

UPD_RESULT VLUPD::checkFiles(const std::string& version, std::optional<std::string> subfolder)
{
    return called("checkFiles", subfolder ? version + ' ' + *subfolder : version).checkResult;
}

nlohmann::json VLUPD::getAvailableVersions()
{
    return called("getAvailableVersions").catalogue;
}

std::map<std::string, UpdaterData_InstalledVersion> VLUPD::getInstalledVersions()
{
    return called("getInstalledVersions").installed;
}

bool VLUPD::cleanDownloads(std::chrono::minutes age)
{
    called("cleanDownloads", std::to_string(age.count()));
    return true;
}

std::optional<std::filesystem::path> VLUPD::getAppExecutablePath(const std::string& version,
                                                                 std::string appKey)
{
    const scripted::Script script = called("getAppExecutablePath", version + ' ' + appKey);
    const auto found = script.executables.find(version);
    if (found == script.executables.end())
        return std::nullopt;
    return found->second;
}

} // namespace vlupd
