#include "vlupd/vlupd.h"

#include "vl/src/install/library.h"

#include <utility>

namespace vlupd {

class VLUPD::Implementation final
{
public:
    Implementation(const std::filesystem::path& root, bool readOnly,
                   std::basic_streambuf<char>* log)
        : library(root, readOnly, log)
    {
    }

    vl::Library library;
};

// Only the lack of memory leaves an object without its inside; every operation then fails.
VLUPD::VLUPD(const std::filesystem::path& root, bool readOnly, std::basic_streambuf<char>* log)
{
    try {
        m_implementation = std::make_unique<Implementation>(root, readOnly, log);
    } catch (...) {
        m_implementation.reset();
    }
}

VLUPD::~VLUPD() = default;

void VLUPD::setLogBuf(std::basic_streambuf<char>* log)
{
    if (m_implementation)
        m_implementation->library.setBuffer(log);
}

UPD_RESULT
VLUPD::installVersion(const std::string& version,
                      std::function<bool(std::uint64_t, std::uint64_t, std::uint64_t)> progress,
                      std::function<void(UPD_INSTALLATION_STAGE)> stage)
{
    return m_implementation
               ? m_implementation->library.install(version, std::move(progress), std::move(stage))
               : UNKNOWN_ERROR;
}

UPD_RESULT VLUPD::removeVersion(const std::string& version)
{
    return m_implementation ? m_implementation->library.remove(version) : UNKNOWN_ERROR;
}

UPD_RESULT VLUPD::checkFiles(const std::string& version, std::optional<std::string> subfolder)
{
    return m_implementation ? m_implementation->library.check(version, subfolder.value_or(""))
                            : UNKNOWN_ERROR;
}

nlohmann::json VLUPD::getAvailableVersions()
{
    if (!m_implementation)
        return nullptr;
    return m_implementation->library.availableVersions();
}

std::map<std::string, UpdaterData_InstalledVersion> VLUPD::getInstalledVersions()
{
    if (!m_implementation)
        return {};
    return m_implementation->library.installedVersions();
}

bool VLUPD::cleanDownloads(std::chrono::minutes age)
{
    return m_implementation && m_implementation->library.cleanDownloads(age);
}

std::optional<std::filesystem::path> VLUPD::getAppExecutablePath(const std::string& version,
                                                                 std::string appKey)
{
    if (!m_implementation)
        return std::nullopt;
    return m_implementation->library.executable(version, appKey);
}

} // namespace vlupd
