#pragma once

#include "vlupd/vlupd.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

/// The update library as a test scripts it: the class and symbols of the real one, linked in its
/// place. A test sets a script, runs the launcher's code and reads back what was called.
namespace scripted {

/// Reports progress.
struct Progress
{
    std::uint64_t bytesPerSecond = 0;
    std::uint64_t bytesDone = 0;
    std::uint64_t bytesTotal = 0;
};

/// Announces a stage; any number may be cast to the enumeration.
struct Stage
{
    vlupd::UPD_INSTALLATION_STAGE stage{};
};

/// Writes one line to the log buffer.
struct Log
{
    std::string text;
};

/// Stands still until the test calls `openGate`.
struct Gate
{
};

using Step = std::variant<Progress, Stage, Log, Gate>;
using Installed = std::map<std::string, vlupd::UpdaterData_InstalledVersion>;

struct Script
{
    /// What getAvailableVersions returns, whatever it is.
    nlohmann::json catalogue = nlohmann::json::object();
    Installed installed;
    /// Executables by version, whatever the key asked for.
    std::map<std::string, std::filesystem::path> executables;
    /// What installVersion does before it returns. A progress callback's false ends it early with
    /// UNKNOWN_ERROR.
    std::vector<Step> installation;
    vlupd::UPD_RESULT installResult = vlupd::OK;
    /// What is installed after an installation that returned OK; absent: as before.
    std::optional<Installed> installedAfterwards;
    vlupd::UPD_RESULT removeResult = vlupd::OK;
    vlupd::UPD_RESULT checkResult = vlupd::OK;
};

struct Call
{
    /// The operation's name, "constructor" and "destructor" included.
    std::string operation;
    /// Its first argument as text, with further ones behind a space.
    std::string argument;
    std::thread::id thread;
};

/// Replaces the script and forgets the calls. Any thread, as all of these.
VLUPD_EXPORT void setScript(Script script);
/// All calls since the last `setScript`, in order.
VLUPD_EXPORT std::vector<Call> calls();
/// Only the arguments of the calls of `operation`.
VLUPD_EXPORT std::vector<std::string> callsOf(const std::string& operation);
/// Waits until an installation stands at a gate.
VLUPD_EXPORT void waitAtGate();
/// Lets the installation that stands at a gate, or the next one to reach it, go on.
VLUPD_EXPORT void openGate();
/// The buffer registered last.
VLUPD_EXPORT std::basic_streambuf<char>* logBuffer();

} // namespace scripted
