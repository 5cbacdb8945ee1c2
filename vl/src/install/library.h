#pragma once

#include "vl/src/error.h"
#include "vl/src/install/state.h"
#include "vl/src/install/tidier.h"
#include "vl/src/operation/operation.h"
#include "vl/src/transport/catalogueservice.h"
#include "vlupd/vlupd.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <streambuf>
#include <string>

namespace vl {

/// What stands behind the public class: who may run beside whom, what is logged, which code a
/// failure gives. The operations are those of vlupd::VLUPD; none lets an exception out.
class Library final
{
public:
    Library(const std::filesystem::path& root, bool readOnly, std::basic_streambuf<char>* buffer,
            const CatalogueService::Limits& limits = {});
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    void setBuffer(std::basic_streambuf<char>* buffer) { m_log.setBuffer(buffer); }
    vlupd::UPD_RESULT install(const std::string& version, Operation::Progress progress,
                              Operation::Stage stage);
    vlupd::UPD_RESULT remove(const std::string& version);
    vlupd::UPD_RESULT check(const std::string& version, const std::string& subfolder);
    bool cleanDownloads(std::chrono::minutes age);
    nlohmann::json availableVersions();
    std::map<std::string, vlupd::UpdaterData_InstalledVersion> installedVersions();
    std::optional<std::filesystem::path> executable(const std::string& version,
                                                    const std::string& key);

private:
    enum class Access { Read, Change };
    using Work = std::function<Expected<vlupd::UPD_RESULT>(Operation&)>;

    vlupd::UPD_RESULT runAlone(const std::string& name, Access access, Operation& operation,
                               const Work& work);
    Expected<vlupd::UPD_RESULT> runLocked(Access access, Operation& operation, const Work& work);
    template <class Answer, class Question>
    Answer ask(const std::string& name, Answer fallback, const Question& question);
    Expected<State> stateWith(const std::string& version) const;
    Expected<std::shared_ptr<const Manifest>> manifestOf(const VersionRecord& record,
                                                         Operation& operation);
    Expected<vlupd::UPD_RESULT> compare(const std::string& version, const std::string& subfolder,
                                        Operation& operation);
    void endTurn();
    void deliverIfIdle();

    const RootLayout m_layout;
    const bool m_readOnly;
    const SourceOptions m_transport;
    Log m_log;
    CatalogueService m_catalogues;
    SavedManifests m_manifests;
    std::atomic<bool> m_busy{false}; ///< an operation that must be alone runs
    Tidier m_tidier;                 ///< started and stopped by the operation that runs
};

} // namespace vl
