#include "vl/src/install/state.h"

#include "vl/src/formats/manifestreader.h"
#include "vl/src/platform/file.h"
#include "vl/src/transport/catalogueservice.h"

#include <utility>

namespace vl {

namespace {

constexpr std::size_t maxKnownManifests = 3;

struct Candidate
{
    VersionRecord record;
    double present = 0; ///< part of its files that lie there with their size
};

// A saved manifest and how much of it lies in the version's folder.
std::optional<Candidate> candidateFrom(const RootLayout& layout, const Hash& hash)
{
    const auto text = readWholeFile(savedManifestPath(layout.root(), hash), maxManifestSize);
    if (!text || hashOf(*text) != hash)
        return std::nullopt;
    const auto parsed = parseManifest(*text);
    const auto manifest = parsed ? readManifest(*text, parsed->version) : parsed;
    if (!manifest || manifest->files.empty())
        return std::nullopt;
    std::size_t present = 0;
    for (const ManifestFile& file : manifest->files) {
        const auto info = fileInfo(layout.versionFolder() / fromUtf8(file.path));
        if (info && *info && (*info)->kind == FileKind::File && (*info)->size == file.size)
            ++present;
    }
    return Candidate{{manifest->version, hash},
                     static_cast<double>(present) / static_cast<double>(manifest->files.size())};
}

// The version whose files lie there: most of them at least.
std::optional<VersionRecord> rebuild(const RootLayout& layout)
{
    Candidate best{{}, 0.5};
    // Readers come here again and again until a first installation has ended.
    if (listDirectory(layout.versionFolder()).value_or(std::vector<TreeEntry>()).empty())
        return std::nullopt;
    for (const TreeEntry& entry :
         listDirectory(layout.manifests()).value_or(std::vector<TreeEntry>())) {
        const auto hash = hashFromHex(std::string_view(entry.path).substr(0, entry.path.find('.')));
        const auto candidate = hash ? candidateFrom(layout, *hash) : std::nullopt;
        if (candidate && candidate->present >= best.present)
            best = *candidate;
    }
    return best.record.version.empty() ? std::nullopt : std::optional(best.record);
}

} // namespace

bool State::isCommitted() const
{
    const auto& record = installed ? installed : removed;
    return begun && record && !rebuilt && record->switchNumber == begun->number;
}

Expected<State> readState(const RootLayout& layout)
{
    const auto installed = readVersionRecord(layout.installedFile());
    if (!installed)
        return tl::unexpected(installed.error());
    const auto removed = readVersionRecord(layout.removedFile());
    if (!removed)
        return tl::unexpected(removed.error());
    auto journal = readJournal(layout);
    if (!journal)
        return tl::unexpected(std::move(journal).error());

    State state;
    state.installed = installed->record;
    state.removed = removed->record;
    state.begun = std::move(journal->record);
    state.journalDamaged = journal->reading == Reading::Damaged;
    if (state.journalDamaged)
        state.fault = toUtf8(layout.journalFile()) + " is damaged";
    if (installed->reading == Reading::Good) {
        // A removal ends with the next installation at the latest.
        state.removed.reset();
        if (state.journalDamaged)
            state.installed->verified = 0;
        return state;
    }
    const bool damaged = installed->reading == Reading::Damaged;
    if (state.removed && (state.isCommitted() || (!state.begun && !damaged)))
        return state;
    if (state.begun)
        state.installed = state.begun->fromRemoved ? std::nullopt : state.begun->from;
    else
        state.installed = rebuild(layout);
    if (!state.installed && !damaged)
        return state;
    state.rebuilt = true;
    if (state.installed)
        state.installed->verified = 0;
    state.fault = toUtf8(layout.installedFile()) + (damaged ? " is damaged" : " is lost") +
                  (state.installed ? "; rebuilt for version " + state.installed->version
                                   : "; no version's files are there");
    return state;
}

Expected<std::shared_ptr<const Manifest>> SavedManifests::get(const VersionRecord& record)
{
    {
        const std::lock_guard lock(m_mutex);
        if (const auto known = m_known.find(record.manifest); known != m_known.end())
            return known->second;
    }
    const std::filesystem::path path = savedManifestPath(m_layout.root(), record.manifest);
    const auto text = readWholeFile(path, maxManifestSize);
    if (!text)
        return tl::unexpected(text.error());
    if (hashOf(*text) != record.manifest)
        return failure(vlupd::BROKEN_OR_MISSING, toUtf8(path) + " is damaged");
    auto manifest = readManifest(*text, record.version);
    if (!manifest)
        return tl::unexpected(std::move(manifest).error());
    auto shared = std::make_shared<const Manifest>(std::move(*manifest));
    put(record.manifest, shared);
    return shared;
}

void SavedManifests::put(const Hash& hash, std::shared_ptr<const Manifest> manifest)
{
    const std::lock_guard lock(m_mutex);
    if (m_known.size() >= maxKnownManifests)
        m_known.clear();
    m_known[hash] = std::move(manifest);
}

void SavedManifests::clear()
{
    const std::lock_guard lock(m_mutex);
    m_known.clear();
}

} // namespace vl
