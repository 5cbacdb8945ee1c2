#include "vl/src/install/library.h"

#include "vl/src/formats/config.h"
#include "vl/src/install/filecheck.h"
#include "vl/src/install/installation.h"
#include "vl/src/install/tidying.h"
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
// What a program's start may wait for the end of an interrupted switch and for deleting.
constexpr std::chrono::seconds briefTime{1};

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
      m_catalogues(m_layout.root(), readOnly, limits, m_log), m_manifests(m_layout),
      m_tidier(m_layout, m_manifests, m_log)
{
    m_log.setBuffer(buffer);
    ask("VLUPD", true, [this]() -> Expected<bool> {
        const auto state = readState(m_layout);
        if (!state)
            return tl::unexpected(state.error());
        if (!state->fault.empty())
            m_log.write("VLUPD: " + state->fault);
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
        const RootContext root{m_layout, m_manifests, running};
        const auto installed = installVersion({root, m_catalogues, m_transport}, version);
        if (!installed)
            return Expected<vlupd::UPD_RESULT>(tl::unexpected(installed.error()));
        running.say("installed");
        return Expected<vlupd::UPD_RESULT>(vlupd::OK);
    });
}

vlupd::UPD_RESULT Library::remove(const std::string& version)
{
    const std::string name = "removeVersion " + version;
    Operation operation(m_log, {}, {}, name);
    return runAlone(name, Access::Change, operation,
                    [&](Operation& running) -> Expected<vlupd::UPD_RESULT> {
                        const RootContext root{m_layout, m_manifests, running};
                        if (auto removed = removeVersion(root, version); !removed)
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
    const Turn turn(m_busy);
    if (!turn.taken() || m_readOnly) {
        operation.say(m_readOnly ? "the library was opened for reading only"
                                 : "another operation of this program is running");
        deliverIfIdle();
        return false;
    }
    try {
        m_tidier.start(age);
        // What takes longer goes on beside the program.
        const bool ended = m_tidier.waitFor(briefTime);
        m_log.deliver();
        return !ended || m_tidier.isDone();
    } catch (const std::exception& exception) {
        logUnexpected(m_log, name, exception.what());
    }
    return false;
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
        const auto state = readState(m_layout);
        if (!state)
            return tl::unexpected(state.error());
        Versions versions;
        if (state->installed)
            versions[state->installed->version] = {toUtf8(m_layout.versionFolder())};
        return versions;
    });
}

std::optional<std::filesystem::path> Library::executable(const std::string& version,
                                                         const std::string& key)
{
    using Answer = std::optional<std::filesystem::path>;
    return ask("getAppExecutablePath " + version, Answer(), [&]() -> Expected<Answer> {
        const auto state = stateWith(version);
        if (!state)
            return tl::unexpected(state.error());
        const auto manifest = m_manifests.get(*state->installed);
        m_manifests.clear();
        if (!manifest)
            return tl::unexpected(manifest.error());
        const auto executable = (*manifest)->executables.find(key);
        if (executable == (*manifest)->executables.end())
            return failure(vlupd::APP_DEFINITION_ERROR, "the version names no executable " + key);
        return m_layout.versionFolder() / fromUtf8(executable->second);
    });
}

vlupd::UPD_RESULT Library::runAlone(const std::string& name, Access access, Operation& operation,
                                    const Work& work)
{
    const Turn turn(m_busy);
    vlupd::UPD_RESULT result = vlupd::UNKNOWN_ERROR;
    try {
        if (turn.taken())
            m_tidier.stop(); // whatever it was at is taken over
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
        endTurn();
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

// The program goes on while what an operation has left is deleted.
void Library::endTurn()
{
    try {
        m_log.deliver();
        m_manifests.clear();
        if (!m_readOnly && needsTidying(m_layout))
            m_tidier.start({});
    } catch (const std::exception& exception) {
        logUnexpected(m_log, "cleanDownloads", exception.what());
    }
}

// The state in which `version` is installed and no switch is half done.
Expected<State> Library::stateWith(const std::string& version) const
{
    auto state = readState(m_layout);
    if (!state)
        return state;
    if (!state->installed || state->installed->version != version)
        return failure(vlupd::NOT_FOUND, "not installed");
    if ((state->begun && !state->isCommitted()) || state->journalDamaged)
        return failure(vlupd::SYSTEM_CALL_ERROR, "another version is being installed");
    return state;
}

Expected<std::shared_ptr<const Manifest>> Library::manifestOf(const VersionRecord& record,
                                                              Operation& operation)
{
    auto saved = m_manifests.get(record);
    if (saved || saved.error().code == vlupd::SYSTEM_CALL_ERROR)
        return saved;
    // Lost or damaged: the repository may still have the very same one.
    const auto config = readConfig(m_layout.root());
    auto source =
        config ? openSource(*config, m_layout.root(), m_transport) : tl::unexpected(config.error());
    auto fetched =
        source ? m_catalogues.manifestByHash(record.manifest, record.version, **source, operation)
               : tl::unexpected(std::move(source).error());
    if (fetched)
        return std::make_shared<const Manifest>(std::move(*fetched));
    return failure(vlupd::BROKEN_OR_MISSING,
                   saved.error().message +
                       "; it cannot be fetched either: " + fetched.error().message);
}

Expected<vlupd::UPD_RESULT> Library::compare(const std::string& version,
                                             const std::string& subfolder, Operation& operation)
{
    const auto state = stateWith(version);
    if (!state)
        return tl::unexpected(state.error());
    const VersionRecord& record = *state->installed;
    const auto manifest = manifestOf(record, operation);
    if (!manifest)
        return tl::unexpected(manifest.error());
    const auto folder = Folder::open(m_layout.versionFolder());
    if (!folder && folder.error().code != vlupd::NOT_FOUND)
        return tl::unexpected(folder.error());
    const auto damage = findDamage(**manifest, folder ? &*folder : nullptr, subfolder, operation);
    if (!damage)
        return tl::unexpected(damage.error());
    for (std::size_t i = 0; i < std::min(damage->size(), maxDamageLines); ++i)
        operation.say((*damage)[i]);
    if (damage->size() > maxDamageLines)
        operation.say("and " + std::to_string(damage->size() - maxDamageLines) +
                      " more damaged files");
    if (damage->empty())
        return vlupd::OK;
    // Times have not told: the next installation must not believe them.
    VersionRecord struck = record;
    struck.verified = 0;
    if (!m_readOnly && record.verified != 0)
        if (auto written = writeInstalled(m_layout, struck); !written)
            operation.say(written.error().message);
    return vlupd::INSTALLED_FILES_BROKEN;
}

} // namespace vl
