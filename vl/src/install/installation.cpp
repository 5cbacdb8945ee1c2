#include "vl/src/install/installation.h"

#include "vl/src/formats/config.h"
#include "vl/src/install/assembly.h"
#include "vl/src/install/filecheck.h"
#include "vl/src/operation/workers.h"
#include "vl/src/platform/file.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace vl {

namespace {

// Folders, records and the file system's own needs, beyond the bytes of the files.
constexpr std::uint64_t spaceMargin = 16U << 20U;
constexpr std::uint64_t spacePerFile = 4096;

// What is installed stands by now; whatever cannot be cleared is left to the next operation.
void tidyUpInBackground(const RootLayout& layout, const State& state, Operation& operation)
{
    const auto tidied = runInBackground(operation, [&]() -> Expected<void> {
        tidyUp(layout, state, operation);
        return {};
    });
    if (!tidied)
        operation.say(tidied.error().message);
}

/// Manifests of versions between the installed one and the new one: those that the catalogue still
/// names.
class CatalogueManifests final : public ManifestLookup
{
public:
    CatalogueManifests(const RootLayout& layout, CatalogueService& catalogues,
                       const Catalogue& catalogue, Source& source, Operation& operation)
        : m_layout(layout), m_catalogues(catalogues), m_catalogue(catalogue), m_source(source),
          m_operation(operation)
    {
    }

    std::optional<std::uint64_t> cost(const std::string& version, const Hash& manifest) override
    {
        const auto listed = m_catalogue.manifests.find(version);
        if (listed == m_catalogue.manifests.end() || listed->second.hash != manifest)
            return std::nullopt;
        const auto saved = fileInfo(savedManifestPath(m_layout.root(), manifest));
        return saved && *saved ? 0 : listed->second.size;
    }

    Expected<Manifest> get(const std::string& version, const Hash& /*manifest*/) override
    {
        return m_catalogues.manifest(m_catalogue, version, m_source, m_operation);
    }

private:
    const RootLayout& m_layout;
    CatalogueService& m_catalogues;
    const Catalogue& m_catalogue;
    Source& m_source;
    Operation& m_operation;
};

/// One installation on its way from the catalogue to the state file.
class Installation final
{
public:
    Installation(const InstallationContext& context, State state)
        : m_layout(context.layout), m_catalogues(context.catalogues),
          m_transport(context.transport), m_operation(context.operation), m_state(std::move(state))
    {
    }

    Expected<vlupd::UPD_RESULT> run(const std::string& version);

private:
    Expected<void> findOut(const std::string& version);
    Expected<bool> isInstalledWhole();
    std::optional<BaseVersion> findBase();
    Expected<void> fill();
    Expected<void> makeRoom(const Assembly& assembly);
    Expected<void> flush();
    Expected<void> commit();
    void discardTree();

    const RootLayout& m_layout;
    CatalogueService& m_catalogues;
    const SourceOptions& m_transport;
    Operation& m_operation;
    State m_state;
    Config m_config;
    std::shared_ptr<const Catalogue> m_catalogue;
    std::unique_ptr<Source> m_source; ///< for documents
    OpenSource m_openSource;          ///< for frames
    std::shared_ptr<const Manifest> m_manifest;
    InstalledTree m_new;
    std::filesystem::path m_tree;
};

Expected<vlupd::UPD_RESULT> Installation::run(const std::string& version)
{
    if (auto found = findOut(version); !found)
        return tl::unexpected(std::move(found).error());
    const auto whole = isInstalledWhole();
    if (!whole)
        return tl::unexpected(whole.error());
    if (*whole)
        return vlupd::FOUND_LOCALLY;
    auto done = fill();
    if (done)
        done = flush();
    if (done)
        done = commit();
    if (!done) {
        discardTree();
        return tl::unexpected(std::move(done).error());
    }
    tidyUpInBackground(m_layout, m_state, m_operation);
    m_operation.endStage();
    return vlupd::OK;
}

Expected<void> Installation::findOut(const std::string& version)
{
    auto config = readConfig(m_layout.root());
    if (!config)
        return tl::unexpected(std::move(config).error());
    m_config = std::move(*config);
    auto catalogue = m_catalogues.catalogue(true);
    if (!catalogue)
        return tl::unexpected(std::move(catalogue).error());
    m_catalogue = std::move(*catalogue);
    const auto reference = m_catalogue->manifests.find(version);
    if (reference == m_catalogue->manifests.end())
        return failure(vlupd::NOT_FOUND, "the catalogue lists no such version");
    m_openSource = [this](std::size_t transfers) {
        Config share = m_config;
        if (share.maxBytesPerSecond > 0)
            share.maxBytesPerSecond =
                std::max<std::uint64_t>(share.maxBytesPerSecond / transfers, 1);
        return openSource(share, m_layout.root(), m_transport);
    };
    auto source = m_openSource(1);
    if (!source)
        return tl::unexpected(std::move(source).error());
    m_source = std::move(*source);
    for (const auto& folder : {m_layout.versions(), m_layout.downloads(), m_layout.manifests()})
        if (auto made = makeDirectories(folder); !made)
            return made;
    auto manifest = m_catalogues.manifest(*m_catalogue, version, *m_source, m_operation);
    if (!manifest)
        return tl::unexpected(std::move(manifest).error());
    m_manifest = std::make_shared<const Manifest>(std::move(*manifest));
    const auto generation = nextGeneration(m_layout, m_state);
    if (!generation)
        return tl::unexpected(generation.error());
    m_new = {{version, *generation}, reference->second.hash};
    m_tree = m_layout.tree(m_new.id);
    return {};
}

Expected<bool> Installation::isInstalledWhole()
{
    if (!m_state.installed || m_state.installed->id.version != m_new.id.version ||
        m_state.installed->manifest != m_new.manifest)
        return false;
    const auto damage =
        findDamage(*m_manifest, m_layout.tree(m_state.installed->id), {}, m_operation);
    if (!damage)
        return tl::unexpected(damage.error());
    m_operation.say(damage->empty() ? "already installed and whole"
                                    : "already installed, but damaged: " +
                                          std::to_string(damage->size()) + " files are replaced");
    return damage->empty();
}

// Without its manifest, what is installed is of no use here.
std::optional<BaseVersion> Installation::findBase()
{
    if (!m_state.installed)
        return std::nullopt;
    auto manifest = readSavedManifest(m_layout, *m_state.installed);
    if (!manifest) {
        m_operation.say("what is installed cannot be made use of: " + manifest.error().message);
        return std::nullopt;
    }
    return BaseVersion{std::make_shared<const Manifest>(std::move(*manifest)),
                       m_state.installed->manifest, m_layout.tree(m_state.installed->id)};
}

Expected<void> Installation::fill()
{
    Assembly assembly(m_layout, m_manifest, m_new.id, findBase(), m_openSource, m_operation);
    CatalogueManifests manifests(m_layout, m_catalogues, *m_catalogue, *m_source, m_operation);
    assembly.plan(manifests);
    if (auto room = makeRoom(assembly); !room)
        return room;
    return assembly.run();
}

Expected<void> Installation::makeRoom(const Assembly& assembly)
{
    const Journal journal{m_new, assembly.downloads(), std::chrono::system_clock::now()};
    const std::uint64_t needed =
        assembly.spaceNeeded() + spaceMargin + spacePerFile * m_manifest->files.size();
    auto available = freeSpace(m_layout.root());
    if (available && *available < needed) {
        removeOtherDownloads(m_layout, journal, m_operation);
        available = freeSpace(m_layout.root());
    }
    if (!available)
        return tl::unexpected(available.error());
    if (*available < needed)
        return failure(vlupd::SYSTEM_CALL_ERROR, "not enough space on the disk of " +
                                                     toUtf8(m_layout.root()) + ": " +
                                                     std::to_string(needed) + " bytes needed, " +
                                                     std::to_string(*available) + " free");
    m_operation.say(std::to_string(needed) + " bytes of disk space needed, " +
                    std::to_string(*available) + " free");
    return writeJournal(m_layout, journal);
}

Expected<void> Installation::flush()
{
    m_operation.beginStage(vlupd::STAGE_APPLYING, 0, m_manifest->installedSize());
    if (auto flushed = flushTree(*m_manifest, m_tree, m_operation); !flushed)
        return flushed;
    if (auto kept = readSavedManifest(m_layout, m_new); !kept)
        return failure("the manifest was not kept", std::move(kept).error());
    auto flushed = runInBackground(m_operation, [&] { return syncVolume(m_layout.versions()); });
    if (flushed)
        flushed = writeSidecar(m_layout, m_new);
    if (flushed && !m_operation.pump())
        flushed = tl::unexpected(endedByCaller());
    return flushed;
}

Expected<void> Installation::commit()
{
    State state{m_new, m_state.superseded};
    if (m_state.installed)
        state.superseded.push_back(*m_state.installed);
    std::erase_if(state.superseded, [this](const InstalledTree& tree) {
        const auto present = fileInfo(m_layout.tree(tree.id));
        return present && !*present;
    });
    if (auto written = writeState(m_layout, state); !written) {
        const auto committed = stateFileNames(m_layout, m_new.id);
        if (!committed)
            m_tree.clear(); // which of the two is installed cannot be told: neither may go
        if (!committed || !*committed)
            return written;
        m_operation.say(written.error().message);
    }
    m_state = std::move(state);
    return {};
}

void Installation::discardTree()
{
    if (m_tree.empty())
        return;
    std::vector<Expected<void>> done{removeFile(m_layout.sidecar(m_new.id)), removeTree(m_tree)};
    for (std::size_t step = 1; step < maxDeltaSteps; ++step)
        done.push_back(removeTree(m_layout.staging(m_new.id, step)));
    for (const auto& removed : done)
        if (!removed)
            m_operation.say(removed.error().message + "; tried again later");
}

} // namespace

Expected<vlupd::UPD_RESULT> installVersion(const InstallationContext& context,
                                           const std::string& version)
{
    auto state = takeOverState(context.layout, context.operation);
    if (!state)
        return tl::unexpected(std::move(state).error());
    tidyUp(context.layout, *state, context.operation);
    return Installation(context, std::move(*state)).run(version);
}

Expected<void> removeVersion(const RootLayout& layout, const std::string& version,
                             Operation& operation)
{
    auto state = takeOverState(layout, operation);
    if (!state)
        return tl::unexpected(std::move(state).error());
    if (!state->installed || state->installed->id.version != version)
        return failure(vlupd::NOT_FOUND, "not installed");
    const TreeId id = state->installed->id;
    // Aside first: where files are held open this fails, and nothing has changed.
    if (auto moved = moveToTrash(layout, id); !moved)
        return moved;
    const State removed{std::nullopt, state->superseded};
    if (auto written = writeState(layout, removed); !written) {
        const auto stillNamed = stateFileNames(layout, id);
        if (stillNamed && !*stillNamed) {
            operation.say(written.error().message);
        } else {
            // Best effort: a folder that stays aside counts as removed.
            if (auto back = renameReplacing(layout.trash(id), layout.tree(id)); !back)
                operation.say(back.error().message);
            return written;
        }
    }
    tidyUpInBackground(layout, removed, operation);
    return {};
}

} // namespace vl
