#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <streambuf>
#include <string>

#if defined(_WIN32)
#if defined(VLUPD_BUILD)
#define VLUPD_EXPORT __declspec(dllexport)
#else
#define VLUPD_EXPORT // functions need no mark to be imported, and link statically without it
#endif
#else
#define VLUPD_EXPORT __attribute__((visibility("default")))
#endif

/// A version number, ordered by Semantic Versioning 2.0 (https://semver.org, clause 11).
/// Any text is taken: one that is no such version orders below all that are, by its bytes.
class VLUPD_EXPORT SemanticVersion
{
public:
    explicit SemanticVersion(const std::string& text);
    /// Strict weak ordering over all texts; build metadata is ignored.
    bool operator<(const SemanticVersion& other) const;
    /// The text that the value was made from, unchanged.
    std::string String() const;

private:
    std::string m_text;
};

namespace vlupd {

/// How an operation ended. vl/README.md lists which cause gives which code.
enum UPD_RESULT : std::int32_t {
    OK = 0,
    SYSTEM_CALL_ERROR = 1,
    CREATE_DIR_ERROR = 2,
    RSYNC_ERROR = 3,
    NOT_FOUND = 4,
    FOUND_LOCALLY = 5,
    CONTENT_LEN_ERROR = 6,
    VERSION_CHAIN_ERROR = 7,
    APP_DEFINITION_ERROR = 8,
    UNKNOWN_ERROR = 9,
    BROKEN_OR_MISSING = 10,
    UPDATER_DATA_ERROR = 11,
    /// checkFiles only: the installed files differ from what was published.
    INSTALLED_FILES_BROKEN = 12,
};

/// What an installation is doing. Stages are reported in ascending order.
enum UPD_INSTALLATION_STAGE : std::int32_t {
    STAGE_DOWNLOADING = 0,
    /// Never reported.
    STAGE_DOWNLOADING_AGAIN = 1,
    STAGE_UNPACKING = 2,
    STAGE_APPLYING = 3,
};

/// One installed version.
struct UpdaterData_InstalledVersion
{
    /// Absolute path of the folder that the version is installed into, UTF-8.
    std::string installDirectory;
};

/// Downloads, installs, checks and removes versions below one root directory. One object per
/// process. No operation lets an exception out; callbacks and the log buffer are used only on
/// the thread that called the operation. Every operation may be called from any thread.
class VLUPD_EXPORT VLUPD
{
public:
    /// `root`: absolute path of the directory that holds vl.json and receives the versions.
    /// `readOnly`: refuse everything that would change the root. `log`: see setLogBuf.
    VLUPD(const std::filesystem::path& root, bool readOnly, std::basic_streambuf<char>* log);
    ~VLUPD();
    VLUPD(const VLUPD&) = delete;
    VLUPD& operator=(const VLUPD&) = delete;

    /// Sets where log lines go (null: nowhere). The buffer stays the caller's and must outlive
    /// its registration. Each line is one `sputn` of a NUL-terminated text without a line end.
    void setLogBuf(std::basic_streambuf<char>* log);

    /// Installs `version` in place of the installed one, or the same again to repair it. Blocks
    /// until it is installed, for programs of the installed version to end too.
    /// `progress(bytesPerSecond, bytesDone, bytesTotal)` is called at most 20 times a second and
    /// returns false to end the operation, which can be resumed later. `stage` announces stages.
    UPD_RESULT
    installVersion(const std::string& version,
                   std::function<bool(std::uint64_t, std::uint64_t, std::uint64_t)> progress,
                   std::function<void(UPD_INSTALLATION_STAGE)> stage);
    /// Removes the installed `version`. What the user made in its folder stays. Its own files are
    /// deleted after the return. Refused while a program of it runs.
    UPD_RESULT removeVersion(const std::string& version);
    /// Compares the installed `version` with its signed manifest: OK or INSTALLED_FILES_BROKEN,
    /// anything else when the comparison could not be made. `subfolder` limits it to files below
    /// that relative path.
    UPD_RESULT checkFiles(const std::string& version, std::optional<std::string> subfolder);
    /// The versions of the last verified catalogue as an object keyed by version, or null.
    nlohmann::json getAvailableVersions();
    /// The installed versions by key. Never waits for an installation.
    std::map<std::string, UpdaterData_InstalledVersion> getInstalledVersions();
    /// Ends what was interrupted and deletes what is superfluous: files of interrupted
    /// installations, when they are older than `age` and 14 days. Returns after a second at most
    /// and goes on by itself. False when another process or operation is busy or something failed.
    bool cleanDownloads(std::chrono::minutes age);
    /// Absolute path of the executable that the installed `version` lists under `appKey`; nothing
    /// while another version is being put in its place.
    std::optional<std::filesystem::path> getAppExecutablePath(const std::string& version,
                                                              std::string appKey);

private:
    class Implementation;
    std::unique_ptr<Implementation> m_implementation;
};

} // namespace vlupd
