#include "tests/vl/install/installfixture.h"

#include "tools/vl-publish/publisher.h"
#include "vl/src/formats/catalogue.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/platform/file.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <random>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

template <class T> T need(vl::Expected<T> value)
{
    if (!value)
        throw std::runtime_error(value.error().message);
    if constexpr (!std::is_void_v<T>)
        return std::move(*value);
}

std::string textOf(const fs::path& path)
{
    return need(vl::readWholeFile(path, 1U << 30U));
}

} // namespace

Files filesIn(const fs::path& folder)
{
    Files files;
    for (const vl::TreeEntry& entry : need(vl::listTree(folder)))
        if (entry.info.kind != vl::FileKind::Directory)
            files[entry.path] = entry.info.kind == vl::FileKind::File
                                    ? textOf(folder / vl::fromUtf8(entry.path))
                                    : "not a regular file";
    return files;
}

void writeFile(const fs::path& path, const std::string& contents)
{
    need(vl::makeDirectories(path.parent_path()));
    need(vl::writeWholeFile(path, contents));
}

std::string someBytes(std::size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string bytes(size, 'a');
    for (std::size_t i = 0; i < size; i += 2)
        bytes[i] = static_cast<char>(random());
    return bytes;
}

QTemporaryDir temporaryFolder(bool inMemory)
{
    const QString memory = QStringLiteral("/dev/shm");
    if (inMemory && QFileInfo(memory).isWritable())
        return QTemporaryDir(memory + QStringLiteral("/vl-XXXXXX"));
    return {};
}

fs::path pathOf(const QTemporaryDir& folder)
{
    return QDir(folder.path()).filesystemAbsolutePath();
}

Releases::Releases(bool inMemory) : m_directory(temporaryFolder(inMemory))
{
    const fs::path keys = pathOf(m_directory);
    need(vl::publish::generateKeys(keys / "secret.key", keys / "public.key"));
    m_publicKey = textOf(keys / "public.key");
}

void Releases::publish(const std::string& version, const Files& files,
                       const std::optional<std::vector<std::string>>& deltaFrom,
                       const std::vector<std::string>& programs)
{
    const fs::path source = pathOf(m_directory) / "source";
    need(vl::removeTree(source));
    for (const auto& [path, contents] : files)
        writeFile(source / vl::fromUtf8(path), contents);
    for (const std::string& program : programs)
        fs::permissions(source / program, fs::perms::owner_exec, fs::perm_options::add);
    publishFolder(version, source, deltaFrom);
    m_files[version] = files;
}

void Releases::publishFolder(const std::string& version, const fs::path& source,
                             const std::optional<std::vector<std::string>>& deltaFrom) const
{
    vl::publish::AddRequest request;
    request.repository = folder();
    request.version = version;
    request.folder = source;
    request.executables = {{"default_exec", "bin/simulator"}};
    request.secretKey = need(vl::readSecretKey(textOf(pathOf(m_directory) / "secret.key")));
    request.date = "2026-01-01";
    request.level = 1;
    request.deltaLevel = 1;
    request.deltaFrom = deltaFrom;
    vl::publish::Progress progress;
    need(vl::publish::addVersion(request, progress));
}

std::pair<std::string, std::uint64_t> Releases::pack(const std::string& version) const
{
    const vl::Pack pack = manifest(version).pack;
    return {std::string("/") + vl::packPath(pack.hash), pack.size};
}

vl::Manifest Releases::manifest(const std::string& version) const
{
    const auto catalogue = need(vl::readCatalogue(textOf(folder() / "catalogue.json")));
    const std::string path = vl::manifestPath(catalogue.manifests.at(version).hash);
    return need(vl::readManifest(textOf(folder() / path), version));
}

Root::Root(const Releases& releases, const std::string& repository, bool inMemory)
    : m_directory(temporaryFolder(inMemory))
{
    const nlohmann::json config{
        {"repository", repository.empty() ? vl::toUtf8(releases.folder()) : repository},
        {"publicKeys", {releases.publicKey()}}};
    writeFile(path() / "vl.json", config.dump());
}

fs::path Root::tree() const
{
    const auto installed = vlupd::VLUPD(path(), true, nullptr).getInstalledVersions();
    return vl::fromUtf8(installed.empty() ? "" : installed.begin()->second.installDirectory);
}

QString Root::leftovers() const
{
    QStringList found;
    const std::string folder = vl::toUtf8(tree().filename());
    for (const char* place : {".", "versions", "downloads", "manifests", "catalogue"}) {
        const std::string name = place;
        for (const auto& entry : need(vl::listDirectory(path() / name))) {
            const bool known = name == "versions"
                                   ? entry.path == folder || entry.path == folder + ".json"
                                   : name != "downloads" && !vl::isTemporaryName(entry.path) &&
                                         entry.path != "journal.json";
            if (!known)
                found << QString::fromStdString(name + "/" + entry.path);
        }
    }
    if (need(vl::listDirectory(path() / "manifests")).size() > 1)
        found << QStringLiteral("manifests of other versions");
    return found.join(u' ');
}

std::set<std::string> Root::partFiles() const
{
    std::set<std::string> names;
    for (const auto& entry : need(vl::listDirectory(path() / "downloads")))
        names.insert(entry.path);
    return names;
}

std::string LogLines::text() const
{
    std::string all;
    for (const std::string& line : lines)
        all += line + "\n";
    return all;
}

std::streamsize LogLines::xsputn(const char* text, std::streamsize count)
{
    lines.emplace_back(text);
    threads.insert(std::this_thread::get_id());
    return count;
}

Installed::Installed(const Releases& releases, const std::string& version)
    : root(releases, {}, true), library(root.path(), false, &log)
{
    if (!version.empty() && library.installVersion(version, {}, {}) != vlupd::OK)
        throw std::runtime_error(log.text());
}

std::function<bool(std::uint64_t, std::uint64_t, std::uint64_t)> Recorder::progress()
{
    return [this](std::uint64_t speed, std::uint64_t done, std::uint64_t total) {
        reports.push_back({stages.empty() ? -1 : stages.back(), speed, done, total});
        threads.insert(std::this_thread::get_id());
        return goOn(reports.back());
    };
}

std::function<void(vlupd::UPD_INSTALLATION_STAGE)> Recorder::stage()
{
    return [this](vlupd::UPD_INSTALLATION_STAGE stage) {
        stages.push_back(stage);
        threads.insert(std::this_thread::get_id());
    };
}

QString Recorder::fault() const
{
    if (stages != std::vector<int>{0, 2, 3} || threads != std::set{std::this_thread::get_id()})
        return QStringLiteral("stages or threads");
    for (const int wanted : stages) {
        std::vector<Report> own;
        std::ranges::copy_if(reports, std::back_inserter(own),
                             [=](const Report& report) { return report.stage == wanted; });
        if (own.size() < 2 || own.back().done != own.back().total || own.front().speed != 0)
            return QStringLiteral("first or last report of stage %1").arg(wanted);
        for (std::size_t i = 1; i < own.size(); ++i)
            if (own[i].done < own[i - 1].done || own[i].done > own[i].total ||
                own[i].total != own[0].total ||
                (own[i].done > own[i - 1].done && own[i].speed == 0))
                return QStringLiteral("report %1 of stage %2").arg(i).arg(wanted);
    }
    return {};
}

QString promiseFault(const Root& root, const Releases& releases,
                     const std::set<std::string>& allowed)
{
    LogLines log;
    vlupd::VLUPD library(root.path(), false, &log);
    const auto installed = library.getInstalledVersions();
    const std::string version = installed.empty() ? "" : installed.begin()->first;
    const QString label = QString::fromStdString("'" + version + "' ");
    if (installed.size() > 1 || !allowed.contains(version))
        return label + QStringLiteral("is not an allowed state");
    if (version.empty())
        return {};
    if (filesIn(vl::fromUtf8(installed.begin()->second.installDirectory)) !=
        releases.files(version))
        return label + QStringLiteral("is not whole");
    if (const int result = library.checkFiles(version, std::nullopt); result != vlupd::OK)
        return label + QStringLiteral("is whole, but checkFiles gives %1: ").arg(result) +
               QString::fromStdString(log.text());
    return {};
}
