#include "vl/src/install/library.h"

#include "vl/src/formats/config.h"
#include "vl/src/install/filecheck.h"
#include "vl/src/install/housekeeping.h"
#include "vl/src/install/installation.h"
#include "vl/src/platform/file.h"
#include "vl/src/platform/lock.h"
#include "vl/src/platform/stayawake.h"
#include "vl/src/transport/source.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace vl {

namespace {

constexpr std::size_t maxDamageLines = 20;

/// The one operation that may run in this process at a time. Never waits, so that a callback that
/// calls back into the library is refused instead of locked up.
class Turn final
{
public:
    explicit Turn(std::atomic<bool>& busy) : m_busy(busy), m_taken(!busy.exchange(true)) {}
    ~Turn()
    {
        if (m_taken)
            m_busy = false;
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    bool taken() const { return m_taken; }

private:
    std::atomic<bool>& m_busy;
    const bool m_taken;
};

// Memory may be what ran out, so even the log line may be lost.
void logUnexpected(Log& log, const std::string& name, const char* what) noexcept
{
    try {
        log.write(name + ": unexpected: " + what);
    } catch (...) {
        return;
    }
}

} // namespace

Library::Library(const std::filesystem::path& root, bool readOnly,
                 std::basic_streambuf<char>* buffer, const CatalogueService::Limits& limits)
    : m_layout(absolutePath(root)), m_readOnly(readOnly), m_transport(limits.transport),
      m_catalogues(m_layout.root(), readOnly, limits, m_log)
{
    m_log.setBuffer(buffer);
    ask("VLUPD", true, [this]() -> Expected<bool> {
        const auto reading = readState(m_layout);
        if (!reading)
            return tl::unexpected(reading.error());
        if (reading->repaired)
            m_log.write("VLUPD: " + *reading->repaired);
        return true;
    });
}

Library::~Library()
{
    m_log.setBuffer(nullptr);
}

vlupd::UPD_RESULT Library::install(const std::string& version, Operation::Progress progress,
                                   Operation::Stage stage)
{
    const std::string name = "installVersion " + version;
    Operation operation(m_log, std::move(progress), std::move(stage), name);
    return runAlone(name, Access::Change, operation, [&](Operation& running) {
        const StayAwake awake;
        auto result = installVersion({m_layout, m_catalogues, m_transport, running}, version);
        if (result && *result == vlupd::OK)
            running.say("installed");
        return result;
    });
}

vlupd::UPD_RESULT Library::remove(const std::string& version)
{
    const std::string name = "removeVersion " + version;
    Operation operation(m_log, {}, {}, name);
    return runAlone(name, Access::Change, operation,
                    [&](Operation& running) -> Expected<vlupd::UPD_RESULT> {
                        if (auto removed = removeVersion(m_layout, version, running); !removed)
                            return tl::unexpected(std::move(removed).error());
                        running.say("removed");
                        return vlupd::OK;
                    });
}

vlupd::UPD_RESULT Library::check(const std::string& version, const std::string& subfolder)
{
    const std::string name = "checkFiles " + version;
    Operation operation(m_log, {}, {}, name);
    return runAlone(name, Access::Read, operation,
                    [&](Operation& running) { return compare(version, subfolder, running); });
}

bool Library::cleanDownloads(std::chrono::minutes age)
{
    const std::string name = "cleanDownloads";
    Operation operation(m_log, {}, {}, name);
    const auto clean = [&](Operation& running) -> Expected<vlupd::UPD_RESULT> {
        auto state = takeOverState(m_layout, running);
        if (!state)
            return tl::unexpected(std::move(state).error());
        tidyUp(m_layout, *state, running, Tidying::Brief);
        return removeDownloads(m_layout, age, running) ? vlupd::OK : vlupd::SYSTEM_CALL_ERROR;
    };
    return runAlone(name, Access::Change, operation, clean) == vlupd::OK;
}

nlohmann::json Library::availableVersions()
{
    return ask("getAvailableVersions", nlohmann::json(), [&]() -> Expected<nlohmann::json> {
        const auto catalogue = m_catalogues.catalogue(false);
        if (!catalogue)
            return tl::unexpected(catalogue.error());
        return Expected<nlohmann::json>(tl::in_place, (*catalogue)->versions);
    });
}

std::map<std::string, vlupd::UpdaterData_InstalledVersion> Library::installedVersions()
{
    using Versions = std::map<std::string, vlupd::UpdaterData_InstalledVersion>;
    return ask("getInstalledVersions", Versions(), [&]() -> Expected<Versions> {
        const auto reading = readState(m_layout);
        if (!reading)
            return tl::unexpected(reading.error());
        Versions versions;
        if (const auto& tree = reading->state.installed)
            versions[tree->id.version] = {toUtf8(m_layout.tree(tree->id))};
        return versions;
    });
}

std::optional<std::filesystem::path> Library::executable(const std::string& version,
                                                         const std::string& key)
{
    using Answer = std::optional<std::filesystem::path>;
    return ask("getAppExecutablePath " + version, Answer(), [&]() -> Expected<Answer> {
        const auto tree = installedTree(version);
        if (!tree)
            return tl::unexpected(tree.error());
        const auto manifest = readSavedManifest(m_layout, *tree);
        if (!manifest)
            return tl::unexpected(manifest.error());
        const auto executable = manifest->executables.find(key);
        if (executable == manifest->executables.end())
            return failure(vlupd::APP_DEFINITION_ERROR, "the version names no executable " + key);
        return m_layout.tree(tree->id) / fromUtf8(executable->second);
    });
}

vlupd::UPD_RESULT Library::runAlone(const std::string& name, Access access, Operation& operation,
                                    const Work& work)
{
    const Turn turn(m_busy);
    vlupd::UPD_RESULT result = vlupd::UNKNOWN_ERROR;
    try {
        const auto done = turn.taken() ? runLocked(access, operation, work)
                                       : failure(vlupd::SYSTEM_CALL_ERROR,
                                                 "another operation of this program is running");
        result = done ? *done : done.error().code;
        if (!done)
            operation.say(done.error().message);
    } catch (const std::exception& exception) {
        logUnexpected(m_log, name, exception.what());
    } catch (...) {
        logUnexpected(m_log, name, "an exception of an unknown type");
    }
    // A refused one leaves its line to the operation that is running.
    if (turn.taken())
        m_log.deliver();
    return result;
}

Expected<vlupd::UPD_RESULT> Library::runLocked(Access access, Operation& operation,
                                               const Work& work)
{
    if (access == Access::Change && m_readOnly)
        return failure(vlupd::SYSTEM_CALL_ERROR, "the library was opened for reading only");
    const auto lock = access == Access::Change ? FolderLock::tryTake(m_layout.root())
                                               : FolderLock::tryTakeShared(m_layout.root());
    if (!lock)
        return tl::unexpected(lock.error());
    return work(operation);
}

template <class Answer, class Question>
Answer Library::ask(const std::string& name, Answer fallback, const Question& question)
{
    try {
        auto answer = question();
        if (answer)
            fallback = std::move(*answer);
        else
            m_log.write(name + ": " + answer.error().message);
    } catch (const std::exception& exception) {
        logUnexpected(m_log, name, exception.what());
    } catch (...) {
        logUnexpected(m_log, name, "an exception of an unknown type");
    }
    deliverIfIdle();
    return fallback;
}

void Library::deliverIfIdle()
{
    // While an operation runs, the buffer belongs to its thread.
    if (!m_busy)
        m_log.deliver();
}

Expected<InstalledTree> Library::installedTree(const std::string& version) const
{
    auto reading = readState(m_layout);
    if (!reading)
        return tl::unexpected(std::move(reading).error());
    auto& installed = reading->state.installed;
    if (!installed || installed->id.version != version)
        return failure(vlupd::NOT_FOUND, "not installed");
    return std::move(*installed);
}

Expected<Manifest> Library::manifestOf(const InstalledTree& tree, Operation& operation)
{
    auto saved = readSavedManifest(m_layout, tree);
    if (saved || saved.error().code == vlupd::SYSTEM_CALL_ERROR)
        return saved;
    // Lost or damaged: the repository may still have the very same one.
    const auto lost = [&](const std::string& why) {
        return failure(vlupd::BROKEN_OR_MISSING,
                       saved.error().message + "; it cannot be fetched either: " + why);
    };
    const auto config = readConfig(m_layout.root());
    if (!config)
        return lost(config.error().message);
    const auto catalogue = m_catalogues.catalogue(false);
    if (!catalogue)
        return lost(catalogue.error().message);
    const auto reference = (*catalogue)->manifests.find(tree.id.version);
    if (reference == (*catalogue)->manifests.end() || reference->second.hash != tree.manifest)
        return lost("the catalogue no longer lists it");
    auto source = openSource(*config, m_layout.root(), m_transport);
    if (!source)
        return lost(source.error().message);
    auto fetched = m_catalogues.manifest(**catalogue, tree.id.version, **source, operation);
    return fetched ? std::move(fetched) : lost(fetched.error().message);
}

Expected<vlupd::UPD_RESULT> Library::compare(const std::string& version,
                                             const std::string& subfolder, Operation& operation)
{
    const auto tree = installedTree(version);
    if (!tree)
        return tl::unexpected(tree.error());
    const auto manifest = manifestOf(*tree, operation);
    if (!manifest)
        return tl::unexpected(manifest.error());
    const auto damage = findDamage(*manifest, m_layout.tree(tree->id), subfolder, operation);
    if (!damage)
        return tl::unexpected(damage.error());
    for (std::size_t i = 0; i < std::min(damage->size(), maxDamageLines); ++i)
        operation.say((*damage)[i]);
    if (damage->size() > maxDamageLines)
        operation.say("and " + std::to_string(damage->size() - maxDamageLines) +
                      " more damaged files");
    return damage->empty() ? vlupd::OK : vlupd::INSTALLED_FILES_BROKEN;
}

} // namespace vl
