#pragma once

#include "vl/src/formats/manifest.h"
#include "vlupd/vlupd.h"

#include <QTemporaryDir>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

/// What a folder holds: the contents of its files by path.
using Files = std::map<std::string, std::string>;

Files filesIn(const std::filesystem::path& folder);
void writeFile(const std::filesystem::path& path, const std::string& contents);

/// `size` bytes that compress a little and are the same in every run.
std::string someBytes(std::size_t size, unsigned seed);

/// A temporary folder. `inMemory`: where flushing costs nothing, if the system has such a place.
QTemporaryDir temporaryFolder(bool inMemory = false);
std::filesystem::path pathOf(const QTemporaryDir& folder);

/// A release repository that is made anew for each test program.
class Releases final
{
public:
    explicit Releases(bool inMemory = false);

    /// Publishes `files`; "bin/simulator" is the executable "default_exec". `deltaFrom`: as the
    /// publisher's. `programs`: files that can be executed.
    void publish(const std::string& version, const Files& files,
                 const std::optional<std::vector<std::string>>& deltaFrom = {},
                 const std::vector<std::string>& programs = {"bin/simulator"});
    /// Publishes what lies in a folder.
    void publishFolder(const std::string& version, const std::filesystem::path& source,
                       const std::optional<std::vector<std::string>>& deltaFrom = {}) const;
    const Files& files(const std::string& version) const { return m_files.at(version); }
    std::filesystem::path folder() const { return pathOf(m_directory) / "repository"; }
    const std::string& publicKey() const { return m_publicKey; }
    /// Repository path ("/packs/...") and size of a version's pack.
    std::pair<std::string, std::uint64_t> pack(const std::string& version) const;
    vl::Manifest manifest(const std::string& version) const;

    bool declaresSettings = true; ///< "*.ini" are published as settings files

private:
    QTemporaryDir m_directory;
    std::string m_publicKey;
    std::map<std::string, Files> m_files;
};

/// A root directory with its vl.json.
class Root final
{
public:
    /// `repository`: empty for the folder of `releases` itself.
    explicit Root(const Releases& releases, const std::string& repository = {},
                  bool inMemory = false);

    std::filesystem::path path() const { return pathOf(m_directory); }
    /// The folder of the installed version.
    std::filesystem::path tree() const { return path() / "simulator"; }
    /// Tidies and returns what no ended operation may leave below the root; empty if nothing.
    QString leftovers() const;
    /// Names and sizes of the files that an interrupted installation has built.
    std::map<std::string, std::uint64_t> staged() const;

private:
    QTemporaryDir m_directory;
};

/// A new root in memory with what lies in another one; file times are not copied. `repository`: as
/// Root's.
std::unique_ptr<Root> copyOf(const Root& root, const Releases& releases,
                             const std::string& repository = {});

/// Takes log lines as the launcher's buffer does: text up to the NUL, one line per write.
class LogLines final : public std::streambuf
{
public:
    std::string text() const;
    bool contains(const std::string& words) const { return text().find(words) != text().npos; }
    std::vector<std::string> lines;
    std::set<std::thread::id> threads; ///< that lines came on

protected:
    std::streamsize xsputn(const char* text, std::streamsize count) override;
};

/// A root with an open library whose log is kept; `version`, unless empty, is installed, and
/// nothing goes on in the background.
struct Installed
{
    explicit Installed(const Releases& releases, const std::string& version = "1.0.0");

    Root root;
    LogLines log;
    vlupd::VLUPD library;
};

/// Takes the reports of an installation; `goOn` decides what the callback answers.
struct Recorder
{
    struct Report
    {
        int stage = -1;
        std::uint64_t speed = 0;
        std::uint64_t done = 0;
        std::uint64_t total = 0;
    };

    std::vector<Report> reports;
    std::vector<int> stages;
    std::set<std::thread::id> threads; ///< that callbacks came on
    std::function<bool(const Report&)> goOn = [](const Report&) { return true; };

    std::function<bool(std::uint64_t, std::uint64_t, std::uint64_t)> progress();
    std::function<void(vlupd::UPD_INSTALLATION_STAGE)> stage();
    /// What is wrong with order, threads, monotony, first and last reports of a whole installation.
    QString fault() const;
};

/// Ends what was interrupted, as a program's start does, and waits for its end.
bool tidy(const std::filesystem::path& root);

/// What breaks the promise that one of `allowed` is installed and whole ("": none may be installed)
/// once a next operation has begun, that the user's files are all there (`mine`, without those that
/// had to make room: these in the same place as NAME.user), and that checkFiles tells the truth;
/// empty when it is kept.
QString promiseFault(const Root& root, const Releases& releases,
                     const std::set<std::string>& allowed, const Files& mine = {});
