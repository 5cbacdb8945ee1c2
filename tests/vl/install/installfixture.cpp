#include "tests/vl/install/installfixture.h"

#include "tools/vl-publish/publisher.h"
#include "vl/src/formats/catalogue.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/tidying.h"
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

/// A path without what is added to the names of the user's files that make room.
QString withoutUser(const std::string& path)
{
    return QString::fromStdString(path).remove(QStringLiteral(".user"));
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
    for (const vl::TreeEntry& entry : need(vl::listTree(source)))
        if (declaresSettings && entry.info.kind == vl::FileKind::File &&
            entry.path.ends_with(".ini"))
            request.settings = {"*.ini"};
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

bool tidy(const fs::path& root)
{
    // Another object of this process may still be at it, or be stopped by this one.
    for (int i = 0; i < 500; ++i) {
        vlupd::VLUPD library(root, false, nullptr);
        if (library.cleanDownloads(std::chrono::minutes(0)) &&
            !vl::needsTidying(vl::RootLayout(root)))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

QString Root::leftovers() const
{
    QStringList found;
    if (!tidy(path()))
        found << QStringLiteral("tidying does not end;");
    const std::set<std::string> known{"vl.json",   "vl.lock",   "installed.json",
                                      "catalogue", "manifests", "simulator"};
    for (const auto& entry : need(vl::listDirectory(path())))
        if (!known.contains(entry.path))
            found << QString::fromStdString(entry.path);
    const auto manifests = need(vl::listDirectory(path() / "manifests"));
    const auto isWhole = [](const auto& entry) { return !vl::isTemporaryName(entry.path); };
    if (std::ranges::count_if(manifests, isWhole) > 1)
        found << QStringLiteral("manifests of other versions");
    return found.join(u' ');
}

std::map<std::string, std::uint64_t> Root::staged() const
{
    std::map<std::string, std::uint64_t> files;
    for (const auto& entry : need(vl::listTree(path() / "simulator.vl")))
        if (entry.path.starts_with("staged-") && entry.info.kind == vl::FileKind::File)
            files[entry.path] = entry.info.size;
    return files;
}

std::unique_ptr<Root> copyOf(const Root& root, const Releases& releases,
                             const std::string& repository)
{
    auto copy = std::make_unique<Root>(releases, repository, true);
    // MinGW takes whatever exists already for the thing that is copied.
    for (const auto& entry : fs::directory_iterator(root.path()))
        if (const fs::path name = entry.path().filename(); name != "vl.json")
            fs::copy(entry.path(), copy->path() / name, fs::copy_options::recursive);
    return copy;
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
    if (!version.empty() && (library.installVersion(version, {}, {}) != vlupd::OK ||
                             !library.cleanDownloads(std::chrono::minutes(0))))
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
        // The total of the first stage grows as it is found out what has to be read and fetched.
        for (std::size_t i = 1; i < own.size(); ++i)
            if (own[i].done < own[i - 1].done || own[i].done > own[i].total ||
                (wanted > 0 && own[i].total != own[0].total) ||
                (own[i].done > own[i - 1].done && own[i].speed == 0))
                return QStringLiteral("report %1 of stage %2").arg(i).arg(wanted);
    }
    return {};
}

QString promiseFault(const Root& root, const Releases& releases,
                     const std::set<std::string>& allowed, const Files& mine)
{
    if (!tidy(root.path()))
        return QStringLiteral("what was interrupted cannot be ended");
    LogLines log;
    vlupd::VLUPD library(root.path(), false, &log);
    const auto installed = library.getInstalledVersions();
    const std::string version = installed.empty() ? "" : installed.begin()->first;
    const QString label = QString::fromStdString("'" + version + "' ");
    if (installed.size() > 1 || !allowed.contains(version))
        return label + QStringLiteral("is not an allowed state");
    Files expected = version.empty() ? Files() : releases.files(version);
    Files there = filesIn(root.tree());
    for (const auto& [path, contents] : mine) {
        auto place = there.find(path);
        if (place == there.end() || place->second != contents)
            place = std::ranges::find_if(there, [&, &name = path, &text = contents](auto& file) {
                return file.first != name && file.second == text &&
                       withoutUser(file.first) == withoutUser(name);
            });
        if (place == there.end())
            return label + QStringLiteral("without the user's ") + QString::fromStdString(path);
        if (expected.contains(place->first))
            expected.erase(place->first);
        there.erase(place);
    }
    if (there != expected)
        return label + QStringLiteral("is not whole");
    if (version.empty())
        return {};
    if (const int result = library.checkFiles(version, std::nullopt); result != vlupd::OK)
        return label + QStringLiteral("is whole, but checkFiles gives %1: ").arg(result) +
               QString::fromStdString(log.text());
    return {};
}
