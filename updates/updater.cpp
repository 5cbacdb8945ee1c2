#include "updates/updater.h"

#include "app/paths.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <vector>

namespace {

/// Names of the results from 0 on. checkFiles' "installed files broken" (12) has none: the log
/// shows its number.
constexpr std::array<const char*, 12> resultNames = {
    "OK",
    "SYSTEM_CALL_ERROR",
    "CREATE_DIR_ERROR",
    "RSYNC_ERROR",
    "NOT_FOUND",
    "FOUND_LOCALLY",
    "CONTENT_LEN_ERROR",
    "VERSION_CHAIN_ERROR",
    "APP_DEFINITION_ERROR",
    "UNKNOWN_ERROR",
    "BROKEN_OR_MISSING",
    "UPDATER_DATA_ERROR",
};

/// Null until the first call of updaterInstance().
std::shared_ptr<vlupd::VLUPD>& updaterPointer()
{
    static std::shared_ptr<vlupd::VLUPD> pointer;
    return pointer;
}

/// Whoever owned the registered log buffer is gone when the process ends.
void destroyUpdater(vlupd::VLUPD* updater)
{
    updater->setLogBuf(nullptr);
    delete updater;
}

} // namespace

UpdaterAccess updaterAccess;

bool isUpdaterIdle()
{
    return updaterAccess.available() != 0;
}

vlupd::VLUPD* updaterInstance()
{
    std::shared_ptr<vlupd::VLUPD>& updater = updaterPointer();
    if (!updater) {
        updaterAccess.acquire(1);
        updater.reset(
            new vlupd::VLUPD(applicationDirectory().filesystemAbsolutePath(), false, nullptr),
            destroyUpdater);
        updater->cleanDownloads(std::chrono::minutes(30));
        updaterAccess.release(1);
    }
    return updater.get();
}

std::optional<std::pair<QString, QDir>> latestInstalledVersion()
{
    const std::shared_ptr<vlupd::VLUPD>& updater = updaterPointer();
    if (!updater || !updaterAccess.tryAcquire(1))
        return std::nullopt;
    const auto installed = updater->getInstalledVersions();
    updaterAccess.release(1);
    if (installed.empty())
        return std::nullopt;

    std::vector<SemanticVersion> versions;
    versions.reserve(installed.size());
    for (const auto& entry : installed)
        versions.emplace_back(entry.first);
    std::sort(versions.begin(), versions.end());
    const std::string latest = versions.back().String();

    const auto found = installed.find(latest);
    if (found == installed.end())
        return std::nullopt;
    const QDir directory(QString::fromStdString(found->second.installDirectory));
    if (!directory.exists())
        return std::nullopt;
    return std::pair(QString::fromStdString(latest), directory);
}

std::ostream& vlupd::operator<<(std::ostream& stream, const UPD_RESULT& result)
{
    const auto value = static_cast<std::int32_t>(result);
    if (value >= 0 && value < static_cast<std::int32_t>(resultNames.size()))
        return stream << resultNames[static_cast<std::size_t>(value)];
    return stream << value;
}
