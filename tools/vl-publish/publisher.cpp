#include "tools/vl-publish/publisher.h"

#include "tools/vl-publish/deltas.h"
#include "tools/vl-publish/packer.h"
#include "tools/vl-publish/releasefolder.h"
#include "tools/vl-publish/repository.h"
#include "vl/src/formats/delta.h"
#include "vl/src/formats/pathrules.h"
#include "vl/src/platform/file.h"

#include <sodium.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace vl::publish {
namespace fs = std::filesystem;
namespace {

using nlohmann::json;

tl::unexpected<Error> refused(const std::string& why)
{
    return failure(vlupd::UPDATER_DATA_ERROR, why);
}

Expected<void> checkChangelog(const json& changelog)
{
    if (changelog.is_null())
        return {};
    if (!changelog.is_object())
        return refused("the changelog is not a JSON object");
    for (const char* name : {"features", "changes", "fixes"}) {
        const auto list = changelog.find(name);
        if (list == changelog.end())
            continue;
        if (!list->is_array() || !std::all_of(list->begin(), list->end(),
                                              [](const json& item) { return item.is_string(); }))
            return refused(std::string("the changelog's \"") + name + "\" is not a list of texts");
    }
    return {};
}

Expected<void> checkRequest(const AddRequest& request)
{
    if (const std::string fault = versionKeyFault(request.version); !fault.empty())
        return refused("the version \"" + request.version + "\" " + fault);
    if (!request.date.empty() && !isDate(request.date))
        return refused("\"" + request.date + "\" is not a date (yyyy-MM-dd)");
    if (request.expires && !isDate(*request.expires))
        return refused("\"" + *request.expires + "\" is not a date (yyyy-MM-dd)");
    if (std::min(request.level, request.deltaLevel) < 1 ||
        std::max(request.level, request.deltaLevel) > 22)
        return refused("the compression level must be from 1 to 22");
    if (request.executables.empty())
        return refused("the version names no executable");
    std::error_code error;
    const fs::path folder = fs::weakly_canonical(request.folder, error);
    const fs::path repository = fs::weakly_canonical(request.repository, error);
    if (std::mismatch(folder.begin(), folder.end(), repository.begin(), repository.end()).first ==
        folder.end())
        return refused("the repository " + toUtf8(repository) +
                       " lies inside the folder to publish");
    return checkChangelog(request.changelog);
}

Expected<void> checkNotListed(const Catalogue& catalogue, const std::string& version)
{
    for (const auto& [key, reference] : catalogue.manifests) {
        if (key == version)
            return refused("version " + version +
                           " is already listed; remove it first, or "
                           "publish the new files as another version");
        if (foldPath(key) == foldPath(version))
            return refused(std::string("version ").append(version) + " differs from the listed " +
                           key + " in nothing but case or Unicode form");
    }
    return {};
}

/// True for a path that vl-publish gives to files of a repository, which are named by their hash.
bool isPublishedFile(const std::string& path)
{
    const std::size_t begin = path.find('/') + 1;
    const auto hash = hashFromHex(std::string_view(path).substr(begin, path.find('.') - begin));
    return hash && (path == manifestPath(*hash) || path == packPath(*hash) ||
                    path == deltaPath(*hash) || path == deltaIndexPath(*hash));
}

/// Writes the pack under a temporary name and then under that of its hash.
Expected<Manifest> writePack(const AddRequest& request, const std::vector<ReleaseFile>& files,
                             const fs::path& repository, Progress& progress)
{
    const fs::path temporary = temporaryPack(repository);
    auto pack = File::open(temporary, File::Mode::Create);
    if (!pack)
        return tl::unexpected(std::move(pack).error());
    auto manifest = packRelease(request.folder, files, request.level, *pack, progress);
    Expected<void> done;
    if (manifest) {
        done = pack->sync();
        *pack = File();
        if (done)
            done = renameReplacing(temporary, repository / fromUtf8(packPath(manifest->pack.hash)));
        if (done)
            done = syncDirectory(temporary.parent_path());
    }
    if (!manifest || !done)
        (void)removeFile(temporary); // else the next change does it
    if (!done)
        return tl::unexpected(std::move(done).error());
    return manifest;
}

/// Where SOURCE_DATE_EPOCH asks for equal output, the id is made of the first thing published.
std::string newRepositoryId(const AddRequest& request, const Hash& manifestHash)
{
    constexpr std::size_t digits = 32;
    const char* epoch = std::getenv("SOURCE_DATE_EPOCH");
    if (epoch != nullptr && *epoch != '\0')
        return toHex(hashOf(epoch + writePublicKey(publicKeyOf(request.secretKey)) +
                            toHex(manifestHash)))
            .substr(0, digits);
    Hash random{};
    randombytes_buf(random.data(), random.size());
    return toHex(random).substr(0, digits);
}

json catalogueEntry(const AddRequest& request, const std::string& date,
                    const ManifestReference& reference)
{
    json entry{{"date", date},
               {"manifest", {{"size", reference.size}, {"hash", toHex(reference.hash)}}}};
    if (request.name && !request.name->empty())
        entry["name"] = *request.name;
    if (request.changelog.is_object())
        entry["changelog"] = request.changelog;
    return entry;
}

} // namespace

void Progress::update(std::string_view /*step*/, std::uint64_t /*done*/, std::uint64_t /*total*/) {}
void Progress::note(const std::string& /*text*/) {}

Expected<void> addVersion(const AddRequest& request, Progress& progress)
{
    if (auto checked = checkRequest(request); !checked)
        return checked;
    auto date = request.date.empty() ? today() : Expected<std::string>(request.date);
    if (!date)
        return tl::unexpected(std::move(date).error());
    auto files = scanReleaseFolder(request.folder, progress);
    if (!files)
        return tl::unexpected(std::move(files).error());
    if (auto marked = markExecutables(request.executables, *files); !marked)
        return marked;
    if (auto marked = markSettings(request.settings, request.executables, *files); !marked)
        return marked;

    auto change = RepositoryChange::begin(request.repository, request.secretKey, true);
    if (!change)
        return tl::unexpected(std::move(change).error());
    Catalogue& catalogue = change->catalogue();
    if (auto checked = checkNotListed(catalogue, request.version); !checked)
        return checked;

    auto manifest = writePack(request, *files, request.repository, progress);
    if (!manifest)
        return tl::unexpected(std::move(manifest).error());
    manifest->version = request.version;
    manifest->executables = request.executables;
    // The order of paths is what deltas name files by.
    std::ranges::sort(manifest->files, {}, &ManifestFile::path);
    auto deltas =
        writeDeltas(request.repository, catalogue,
                    request.deltaFrom.value_or(defaultDeltaBases(catalogue, request.version)),
                    *manifest, request.folder, request.deltaLevel, progress);
    if (!deltas)
        return tl::unexpected(std::move(deltas).error());
    manifest->deltas = std::move(*deltas);
    const std::string text = writeManifest(*manifest);
    // Whatever a client would refuse must not be signed.
    if (const auto read = readManifest(text, request.version); !read)
        return tl::unexpected(read.error());
    const ManifestReference reference{.size = text.size(), .hash = hashOf(text)};
    const fs::path manifestFile = request.repository / fromUtf8(manifestPath(reference.hash));
    auto written = writeWholeFile(manifestFile, text);
    if (written)
        written = syncDirectory(manifestFile.parent_path());
    if (!written)
        return written;

    if (catalogue.repositoryId.empty())
        catalogue.repositoryId = newRepositoryId(request, reference.hash);
    if (request.expires)
        catalogue.expires = request.expires;
    catalogue.versions[request.version] = catalogueEntry(request, *date, reference);
    return change->commit();
}

Expected<void> removeVersion(const fs::path& repository, const std::string& version,
                             const SecretKey& secretKey)
{
    auto change = RepositoryChange::begin(repository, secretKey, false);
    if (!change)
        return tl::unexpected(std::move(change).error());
    const auto before = change->neededFiles();
    if (change->catalogue().versions.erase(version) == 0)
        return failure(vlupd::NOT_FOUND, "version " + version + " is not listed");
    if (auto committed = change->commit(); !committed)
        return committed;
    // From now on they age.
    const auto after = change->neededFiles();
    std::error_code ignored; // the worst that can happen is that they go early
    for (const std::string& name : before.value_or(std::set<std::string>()))
        if (after && !after->contains(name))
            fs::last_write_time(repository / fromUtf8(name), fs::file_time_type::clock::now(),
                                ignored);
    return {};
}

Expected<std::uint64_t> collectGarbage(const fs::path& repository, std::chrono::hours age,
                                       const SecretKey& secretKey)
{
    auto change = RepositoryChange::begin(repository, secretKey, false);
    if (!change)
        return tl::unexpected(std::move(change).error());
    const auto needed = change->neededFiles();
    if (!needed)
        return tl::unexpected(needed.error());
    std::uint64_t freed = 0;
    for (const std::string folder : {"manifests", "packs", "deltas"}) {
        const auto entries = listDirectory(repository / folder);
        if (!entries)
            return tl::unexpected(entries.error());
        for (const TreeEntry& entry : *entries) {
            const std::string name = folder + "/" + entry.path;
            const bool old = fs::file_time_type::clock::now() - entry.info.modified >= age;
            if (entry.info.kind != FileKind::File || !old || needed->contains(name) ||
                !isPublishedFile(name))
                continue;
            if (auto removed = removeFile(repository / fromUtf8(name)); !removed)
                return tl::unexpected(std::move(removed).error());
            freed += entry.info.size;
        }
    }
    return freed;
}

Expected<std::vector<ListedVersion>> listVersions(const fs::path& repository)
{
    const auto catalogue = loadCatalogue(repository);
    if (!catalogue)
        return tl::unexpected(catalogue.error());
    std::vector<ListedVersion> listed;
    for (const auto& [key, reference] : catalogue->manifests) {
        const auto manifest = loadManifest(repository, key, reference);
        if (!manifest)
            return tl::unexpected(manifest.error());
        const json& entry = catalogue->versions.at(key);
        const auto name = entry.find("name");
        listed.push_back(
            {.key = key,
             .date = entry.at("date").get<std::string>(),
             .name = name != entry.end() && name->is_string() ? name->get<std::string>() : "",
             .packSize = manifest->pack.size,
             .installedSize = manifest->installedSize(),
             .fileCount = manifest->files.size()});
    }
    std::stable_sort(listed.begin(), listed.end(),
                     [](const ListedVersion& a, const ListedVersion& b) {
                         return SemanticVersion(a.key) < SemanticVersion(b.key);
                     });
    return listed;
}

Expected<void> generateKeys(const fs::path& secretKeyFile, const fs::path& publicKeyFile)
{
    for (const fs::path& path : {secretKeyFile, publicKeyFile}) {
        const auto info = fileInfo(path);
        if (!info)
            return tl::unexpected(info.error());
        if (*info)
            return refused(toUtf8(path) + " exists already; a key is never overwritten");
    }
    const auto keys = generateKeyPair();
    if (!keys)
        return tl::unexpected(keys.error());
    auto file = File::open(secretKeyFile, File::Mode::Create, 0600);
    if (!file)
        return tl::unexpected(std::move(file).error());
    const std::string text = writeSecretKey(keys->secretKey);
    auto done = file->writeAt(0, std::as_bytes(std::span(text)));
    if (done)
        done = file->sync();
    if (done)
        done = writeWholeFile(absolutePath(publicKeyFile), writePublicKey(keys->publicKey));
    if (!done)
        (void)removeFile(secretKeyFile); // half a pair would only be in the way
    return done;
}

} // namespace vl::publish
