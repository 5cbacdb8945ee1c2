#include "tools/utf8terminal.h"
#include "tools/vl-publish/publisher.h"
#include "tools/vl-publish/terminal.h"
#include "vl/src/formats/pathrules.h"
#include "vl/src/platform/file.h"

#include <CLI/CLI.hpp>

#include <iomanip>
#include <iostream>
#include <utility>

// vl-publish: makes and checks release repositories. Exit code 0, or 1 with one line that says why.
namespace {

namespace fs = std::filesystem;
using namespace vl;
using namespace vl::publish;

constexpr std::uint64_t maxKeyFileSize = 4096;
constexpr std::uint64_t maxChangelogSize = 1U << 20U;

/// What the command line said.
struct Arguments
{
    std::string repository;
    std::string version;
    std::string folder;
    std::vector<std::string> executables;
    std::vector<std::string> settings;
    std::string secretKey;
    std::string publicKey;
    std::string date;
    std::string name;
    std::string changelog;
    std::string expires;
    int level = defaultLevel;
    std::vector<std::string> deltaFrom;
    bool noDelta = false;
    int deltaLevel = defaultDeltaLevel;
    int olderThan = 0; ///< days
};

Expected<SecretKey> loadSecretKey(const std::string& file)
{
    const auto text = readWholeFile(fromUtf8(file), maxKeyFileSize);
    if (!text)
        return tl::unexpected(text.error());
    auto key = readSecretKey(*text);
    return key ? key : failure(file, std::move(key).error());
}

Expected<AddRequest> makeAddRequest(const Arguments& arguments)
{
    AddRequest request;
    request.repository = fromUtf8(arguments.repository);
    request.version = arguments.version;
    request.folder = fromUtf8(arguments.folder);
    request.settings = arguments.settings;
    request.date = arguments.date;
    request.level = arguments.level;
    request.deltaLevel = arguments.deltaLevel;
    if (arguments.noDelta || !arguments.deltaFrom.empty())
        request.deltaFrom = arguments.deltaFrom;
    if (!arguments.name.empty())
        request.name = arguments.name;
    if (!arguments.expires.empty())
        request.expires = arguments.expires;
    for (const std::string& pair : arguments.executables) {
        const std::size_t equals = pair.find('=');
        if (equals == 0 || equals == std::string::npos || equals + 1 == pair.size())
            return failure(vlupd::APP_DEFINITION_ERROR,
                           "--exec " + pair + ": expected KEY=RELATIVE/PATH");
        if (!request.executables.emplace(pair.substr(0, equals), pair.substr(equals + 1)).second)
            return failure(vlupd::APP_DEFINITION_ERROR,
                           "--exec " + pair + ": the key is there twice");
    }
    if (!arguments.changelog.empty()) {
        const auto text = readWholeFile(fromUtf8(arguments.changelog), maxChangelogSize);
        if (!text)
            return tl::unexpected(text.error());
        request.changelog = nlohmann::json::parse(*text, nullptr, false);
        if (!request.changelog.is_object())
            return failure(vlupd::UPDATER_DATA_ERROR,
                           arguments.changelog + ": the changelog is not a JSON object");
    }
    auto key = loadSecretKey(arguments.secretKey);
    if (!key)
        return tl::unexpected(std::move(key).error());
    request.secretKey = *key;
    return request;
}

Expected<void> runKeygen(const Arguments& arguments)
{
    return generateKeys(fromUtf8(arguments.secretKey), fromUtf8(arguments.publicKey));
}

Expected<void> runAdd(const Arguments& arguments)
{
    const auto request = makeAddRequest(arguments);
    if (!request)
        return tl::unexpected(request.error());
    TerminalProgress progress;
    return addVersion(*request, progress);
}

Expected<void> runRemove(const Arguments& arguments)
{
    const auto key = loadSecretKey(arguments.secretKey);
    if (!key)
        return tl::unexpected(key.error());
    return removeVersion(fromUtf8(arguments.repository), arguments.version, *key);
}

Expected<void> runGc(const Arguments& arguments)
{
    const auto key = loadSecretKey(arguments.secretKey);
    if (!key)
        return tl::unexpected(key.error());
    const auto freed = collectGarbage(fromUtf8(arguments.repository),
                                      std::chrono::days(arguments.olderThan), *key);
    if (!freed)
        return tl::unexpected(freed.error());
    std::cout << "removed: " << readableSize(*freed) << '\n';
    return {};
}

Expected<void> runList(const Arguments& arguments)
{
    const auto versions = listVersions(fromUtf8(arguments.repository));
    if (!versions)
        return tl::unexpected(versions.error());
    for (const ListedVersion& version : *versions) {
        std::cout << std::left << std::setw(16) << version.key << "  " << version.date << "  "
                  << std::right << std::setw(10) << readableSize(version.packSize)
                  << " to download  " << std::setw(10) << readableSize(version.installedSize)
                  << " installed  " << std::setw(6) << version.fileCount << " files  "
                  << version.name << '\n';
    }
    return {};
}

Expected<void> runVerify(const Arguments& arguments)
{
    const auto text = readWholeFile(fromUtf8(arguments.publicKey), maxKeyFileSize);
    if (!text)
        return tl::unexpected(text.error());
    const auto key = readPublicKey(*text);
    if (!key)
        return failure(arguments.publicKey, key.error());
    VerifyReport report;
    {
        TerminalProgress progress;
        report = verifyRepository(fromUtf8(arguments.repository), std::span(&*key, 1), progress);
    }
    for (const std::string& fault : report.faults)
        std::cout << fault << '\n';
    if (!report.faults.empty())
        return failure(vlupd::BROKEN_OR_MISSING,
                       "faults found: " + std::to_string(report.faults.size()));
    std::cout << "no faults: " << report.versions << " versions, " << readableSize(report.packBytes)
              << '\n';
    return {};
}

int fail(const std::string& message)
{
    std::cerr << "vl-publish: " << message << '\n';
    return 1;
}

int run(std::vector<std::string> commandLine)
{
    CLI::App app("Makes and checks release repositories of the update library.", "vl-publish");
    app.allow_windows_style_options(false); // a path may begin with a slash
    app.require_subcommand(1);
    Arguments arguments;
    Expected<void> (*command)(const Arguments&) = nullptr;
    const auto subcommand = [&app, &command](const char* name, const char* help,
                                             Expected<void> (*function)(const Arguments&)) {
        CLI::App* added = app.add_subcommand(name, help);
        added->callback([&command, function] { command = function; });
        return added;
    };
    const auto repository = [&arguments](CLI::App* to) {
        to->add_option("REPOSITORY", arguments.repository, "folder of the repository")->required();
    };
    const auto version = [&arguments](CLI::App* to) {
        to->add_option("VERSION", arguments.version, "version key, for example 1.2.0")->required();
    };
    const auto secretKey = [&arguments](CLI::App* to) {
        to->add_option("--secret-key", arguments.secretKey, "minisign secret key file")->required();
    };
    const auto publicKey = [&arguments](CLI::App* to) {
        to->add_option("--public-key", arguments.publicKey, "minisign public key file")->required();
    };

    CLI::App* keygen = subcommand("keygen", "Make a new key pair", runKeygen);
    secretKey(keygen);
    publicKey(keygen);

    CLI::App* add = subcommand("add", "Publish a folder as a version", runAdd);
    repository(add);
    version(add);
    add->add_option("FOLDER", arguments.folder, "folder with the version's files")->required();
    add->add_option("--exec", arguments.executables,
                    "KEY=RELATIVE/PATH of an executable; default_exec is the one that is started")
        ->allow_extra_args(false) // one for each --exec, so that it may stand anywhere
        ->required();
    secretKey(add);
    add->add_option("--settings", arguments.settings,
                    "GLOB of settings files, which belong to the user once installed; repeatable")
        ->allow_extra_args(false);
    add->add_option("--date", arguments.date, "release date, YYYY-MM-DD; today if not given");
    add->add_option("--name", arguments.name, "display name, which makes it a special version");
    add->add_option("--changelog", arguments.changelog,
                    "JSON file with lists of texts: features, changes, fixes");
    add->add_option("--expires", arguments.expires,
                    "day after which clients warn about an old catalogue, YYYY-MM-DD");
    add->add_option("--level", arguments.level, "compression level")
        ->check(CLI::Range(1, 22))
        ->capture_default_str();

    auto* deltaFrom = add->add_option("--delta-from", arguments.deltaFrom,
                                      "version to make a delta from, repeatable; the newest two "
                                      "lower ones if not given")
                          ->allow_extra_args(false);
    add->add_flag("--no-delta", arguments.noDelta, "make no delta")->excludes(deltaFrom);

    add->add_option("--delta-level", arguments.deltaLevel, "compression level of deltas")
        ->check(CLI::Range(1, 22))
        ->capture_default_str();

    CLI::App* remove = subcommand("remove", "Take a version off the catalogue", runRemove);
    repository(remove);
    version(remove);
    secretKey(remove);

    CLI::App* gc = subcommand("gc", "Remove what no listed version needs any longer", runGc);
    repository(gc);
    gc->add_option("--older-than", arguments.olderThan, "days that it has not been needed")
        ->check(CLI::Range(0, 36500)) // file times count nanoseconds and overflow after 292 years
        ->required();
    secretKey(gc);

    repository(subcommand("list", "List the versions", runList));

    CLI::App* verify = subcommand("verify", "Check everything that a client would", runVerify);
    repository(verify);
    publicKey(verify);

    try {
        app.parse(std::move(commandLine));
    } catch (const CLI::Success& success) {
        return app.exit(success); // --help
    } catch (const CLI::ParseError& error) {
        return fail(error.what());
    }
    const auto done = command(arguments);
    return done ? 0 : fail(done.error().message);
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(utf8Arguments(argc, argv));
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}
