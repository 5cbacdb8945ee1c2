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

namespace {

// Only the lack of memory leaves an object without its inside, or lets anything out of it; every
// operation then fails.
template <class Inside, class Answer, class Call>
Answer guarded(Inside& inside, Answer fallback, const Call& call) noexcept
{
    try {
        return inside ? call(inside->library) : std::move(fallback);
    } catch (...) {
        return fallback;
    }
}

} // namespace

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
    return guarded(m_implementation, UNKNOWN_ERROR, [&](vl::Library& library) {
        return library.install(version, std::move(progress), std::move(stage));
    });
}

UPD_RESULT VLUPD::removeVersion(const std::string& version)
{
    return guarded(m_implementation, UNKNOWN_ERROR,
                   [&](vl::Library& library) { return library.remove(version); });
}

UPD_RESULT VLUPD::checkFiles(const std::string& version, std::optional<std::string> subfolder)
{
    return guarded(m_implementation, UNKNOWN_ERROR, [&](vl::Library& library) {
        return library.check(version, subfolder.value_or(""));
    });
}

nlohmann::json VLUPD::getAvailableVersions()
{
    return guarded(m_implementation, nlohmann::json(),
                   [](vl::Library& library) { return library.availableVersions(); });
}

std::map<std::string, UpdaterData_InstalledVersion> VLUPD::getInstalledVersions()
{
    return guarded(m_implementation, std::map<std::string, UpdaterData_InstalledVersion>(),
                   [](vl::Library& library) { return library.installedVersions(); });
}

bool VLUPD::cleanDownloads(std::chrono::minutes age)
{
    return guarded(m_implementation, false,
                   [&](vl::Library& library) { return library.cleanDownloads(age); });
}

std::optional<std::filesystem::path> VLUPD::getAppExecutablePath(const std::string& version,
                                                                 std::string appKey)
{
    return guarded(m_implementation, std::optional<std::filesystem::path>(),
                   [&](vl::Library& library) { return library.executable(version, appKey); });
}

} // namespace vlupd
