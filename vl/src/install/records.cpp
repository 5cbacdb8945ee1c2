#include "vl/src/install/records.h"

#include "vl/src/formats/pathrules.h"
#include "vl/src/platform/file.h"
#include "vl/src/transport/catalogueservice.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace vl {

namespace {

using Json = nlohmann::json;

constexpr std::uint64_t recordFormat = 1;
constexpr std::uint64_t maxRecordSize = 1U << 20U;

// Members of a record that may be anything: damaged records are met, not believed.
std::optional<std::string> textMember(const Json& object, const char* name)
{
    const auto member = object.is_object() ? object.find(name) : object.end();
    if (!object.is_object() || member == object.end() || !member->is_string())
        return std::nullopt;
    return member->get<std::string>();
}

std::optional<std::uint64_t> numberMember(const Json& object, const char* name)
{
    const auto member = object.is_object() ? object.find(name) : object.end();
    if (!object.is_object() || member == object.end() || !member->is_number_unsigned())
        return std::nullopt;
    return member->get<std::uint64_t>();
}

std::optional<Hash> hashMember(const Json& object, const char* name)
{
    const auto text = textMember(object, name);
    return text ? hashFromHex(*text) : std::nullopt;
}

Json toJson(const InstalledTree& tree)
{
    return {{"version", tree.id.version},
            {"generation", tree.id.generation},
            {"manifest", toHex(tree.manifest)}};
}

std::optional<InstalledTree> treeFromJson(const Json& object)
{
    const auto version = textMember(object, "version");
    const auto generation = numberMember(object, "generation");
    const auto manifest = hashMember(object, "manifest");
    if (!version || !versionKeyFault(*version).empty() || !generation || !manifest)
        return std::nullopt;
    return InstalledTree{{*version, *generation}, *manifest};
}

// A JSON object of the known format; discarded when the text is anything else.
Expected<Json> readRecord(const std::filesystem::path& path)
{
    const auto text = readWholeFile(path, maxRecordSize);
    if (!text)
        return tl::unexpected(text.error());
    Json record = Json::parse(*text, nullptr, false);
    if (numberMember(record, "format") != recordFormat)
        record = Json(Json::value_t::discarded);
    return record;
}

Expected<void> writeRecord(const std::filesystem::path& path, Json record)
{
    record["format"] = recordFormat;
    return writeWholeFile(path, record.dump(2) + "\n");
}

std::optional<State> stateFromJson(const Json& record)
{
    if (record.is_discarded() || !record.contains("installed") || !record.contains("superseded") ||
        !record["superseded"].is_array())
        return std::nullopt;
    State state;
    if (!record["installed"].is_null()) {
        state.installed = treeFromJson(record["installed"]);
        if (!state.installed)
            return std::nullopt;
    }
    for (const Json& object : record["superseded"]) {
        auto tree = treeFromJson(object);
        if (!tree)
            return std::nullopt;
        state.superseded.push_back(std::move(*tree));
    }
    return state;
}

bool isLost(const Error& error)
{
    return error.code != vlupd::SYSTEM_CALL_ERROR;
}

// Whether every file is there with its size; what they hold is for checkFiles to say.
Expected<bool> looksWhole(const RootLayout& layout, const InstalledTree& tree)
{
    const auto manifest = readSavedManifest(layout, tree);
    if (!manifest)
        return isLost(manifest.error()) ? Expected<bool>(false) : tl::unexpected(manifest.error());
    for (const ManifestFile& file : manifest->files) {
        const auto info = fileInfo(layout.tree(tree.id) / fromUtf8(file.path));
        if (!info)
            return tl::unexpected(info.error());
        if (!*info || (*info)->kind != FileKind::File || (*info)->size != file.size)
            return false;
    }
    return true;
}

// Version folders that have a sidecar, the newest first.
Expected<std::vector<InstalledTree>> recordedTrees(const RootLayout& layout)
{
    std::vector<InstalledTree> trees;
    const auto entries = listDirectory(layout.versions());
    if (!entries)
        return tl::unexpected(entries.error());
    for (const TreeEntry& entry : *entries) {
        const auto id = TreeId::fromFolderName(entry.path);
        if (!id || entry.info.kind != FileKind::Directory)
            continue;
        const auto record = readRecord(layout.sidecar(*id));
        if (!record && !isLost(record.error()))
            return tl::unexpected(record.error());
        const auto tree = record ? treeFromJson(*record) : std::nullopt;
        if (tree && tree->id == *id)
            trees.push_back(*tree);
    }
    std::ranges::sort(trees, std::ranges::greater(),
                      [](const InstalledTree& tree) { return tree.id.generation; });
    return trees;
}

// The newest whole version folder; a damaged one rather than none.
Expected<State> rebuildState(const RootLayout& layout)
{
    auto trees = recordedTrees(layout);
    if (!trees)
        return tl::unexpected(std::move(trees).error());
    State state;
    std::size_t chosen = 0;
    for (std::size_t i = 0; i < trees->size(); ++i) {
        const auto whole = looksWhole(layout, (*trees)[i]);
        if (!whole)
            return tl::unexpected(whole.error());
        if (*whole) {
            chosen = i;
            break;
        }
    }
    for (std::size_t i = 0; i < trees->size(); ++i) {
        if (i == chosen)
            state.installed = (*trees)[i];
        else
            state.superseded.push_back((*trees)[i]);
    }
    return state;
}

} // namespace

Expected<StateReading> readState(const RootLayout& layout)
{
    StateReading reading;
    const auto record = readRecord(layout.stateFile());
    if (!record && !isLost(record.error()))
        return tl::unexpected(record.error());
    auto state = record ? stateFromJson(*record) : std::nullopt;
    if (!state) {
        auto rebuilt = rebuildState(layout);
        if (!rebuilt)
            return tl::unexpected(std::move(rebuilt).error());
        state = std::move(*rebuilt);
        if (record || state->installed)
            reading.repaired = toUtf8(layout.stateFile()) + (record ? " is damaged" : " is lost") +
                               "; rebuilt from the version folders";
    }
    if (state->installed) {
        const TreeId& id = state->installed->id;
        const auto tree = fileInfo(layout.tree(id));
        const auto trash = fileInfo(layout.trash(id));
        if (!tree || !trash)
            return tl::unexpected((tree ? trash : tree).error());
        if (!*tree && *trash) {
            reading.repaired = "the removal of " + id.version + " was interrupted";
            state->installed.reset();
        }
    }
    reading.state = std::move(*state);
    return reading;
}

Expected<bool> stateFileNames(const RootLayout& layout, const TreeId& id)
{
    const auto record = readRecord(layout.stateFile());
    if (!record && !isLost(record.error()))
        return tl::unexpected(record.error());
    const auto state = record ? stateFromJson(*record) : std::nullopt;
    return state && state->installed && state->installed->id == id;
}

Expected<void> writeState(const RootLayout& layout, const State& state)
{
    Json record{{"installed", nullptr}, {"superseded", Json::array()}};
    if (state.installed)
        record["installed"] = toJson(*state.installed);
    for (const InstalledTree& tree : state.superseded)
        record["superseded"].push_back(toJson(tree));
    return writeRecord(layout.stateFile(), std::move(record));
}

Expected<void> writeSidecar(const RootLayout& layout, const InstalledTree& tree)
{
    return writeRecord(layout.sidecar(tree.id), toJson(tree));
}

Expected<std::uint64_t> nextGeneration(const RootLayout& layout, const State& state)
{
    std::uint64_t newest = state.installed ? state.installed->id.generation : 0;
    for (const InstalledTree& tree : state.superseded)
        newest = std::max(newest, tree.id.generation);
    const auto entries = listDirectory(layout.versions());
    if (!entries)
        return tl::unexpected(entries.error());
    for (const TreeEntry& entry : *entries) {
        // Folders, sidecars and trash all carry the number in their names.
        std::string_view name = entry.path;
        if (name.ends_with(".json"))
            name.remove_suffix(5);
        if (const auto id = TreeId::fromFolderName(name))
            newest = std::max(newest, id->generation);
    }
    return newest + 1;
}

Expected<Manifest> readSavedManifest(const RootLayout& layout, const InstalledTree& tree)
{
    const std::filesystem::path path = savedManifestPath(layout.root(), tree.manifest);
    const auto text = readWholeFile(path, maxManifestSize);
    if (!text)
        return tl::unexpected(text.error());
    if (hashOf(*text) != tree.manifest)
        return failure(vlupd::BROKEN_OR_MISSING, toUtf8(path) + " is damaged");
    return readManifest(*text, tree.id.version);
}

bool Journal::needs(std::string_view name) const
{
    return std::ranges::any_of(
        downloads, [name](const std::string& begin) { return name.starts_with(begin); });
}

std::optional<Journal> readJournal(const RootLayout& layout)
{
    const auto record = readRecord(layout.journalFile());
    if (!record)
        return std::nullopt;
    auto tree = treeFromJson(*record);
    const auto downloads = record->find("downloads");
    const auto when = numberMember(*record, "when");
    if (!tree || downloads == record->end() || !downloads->is_array() || !when ||
        *when > UINT32_MAX)
        return std::nullopt;
    const std::chrono::system_clock::time_point time{std::chrono::seconds(*when)};
    Journal journal{std::move(*tree), {}, time};
    for (const Json& name : *downloads)
        if (name.is_string() && !name.get_ref<const std::string&>().empty())
            journal.downloads.push_back(name);
    return journal;
}

Expected<void> writeJournal(const RootLayout& layout, const Journal& journal)
{
    using namespace std::chrono;
    const auto seconds = duration_cast<std::chrono::seconds>(journal.when.time_since_epoch());
    Json record = toJson(journal.tree);
    record["downloads"] = journal.downloads;
    record["when"] = static_cast<std::uint64_t>(seconds.count());
    return writeRecord(layout.journalFile(), std::move(record));
}

} // namespace vl
