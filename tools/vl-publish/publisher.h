#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/minisign.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Makes and checks release repositories. Every function blocks until its work is done, changes a
// repository under its lock, and may be interrupted at any moment: what was listed before stays
// whole, and the next change clears what was left behind. Names and messages are UTF-8.
namespace vl::publish {

/// Follows a long operation; all calls come on the thread of the operation.
class Progress
{
public:
    virtual ~Progress() = default;
    /// `done` of `total` bytes of `step` are behind us. Called often.
    virtual void update(std::string_view step, std::uint64_t done, std::uint64_t total);
    /// Something that is no fault but that the publisher should know.
    virtual void note(const std::string& text);
};

inline constexpr int defaultLevel = 9;
inline constexpr int defaultDeltaLevel = 19;

struct AddRequest
{
    std::filesystem::path repository; ///< made when missing
    std::string version;
    std::filesystem::path folder;                   ///< its files are the version
    std::map<std::string, std::string> executables; ///< key -> path relative to `folder`
    std::vector<std::string> settings;              ///< globs (glob.h) of settings files
    SecretKey secretKey;
    std::string date;                   ///< yyyy-MM-dd; empty: today()
    std::optional<std::string> name;    ///< display name of a special version
    nlohmann::json changelog;           ///< object, or null for none
    std::optional<std::string> expires; ///< yyyy-MM-dd; absent: as it was
    int level = defaultLevel;           ///< zstd's compression level, 1 to 22
    /// Versions to make deltas from; absent: the newest two lower ones.
    std::optional<std::vector<std::string>> deltaFrom;
    int deltaLevel = defaultDeltaLevel; ///< zstd's compression level for deltas, 1 to 22
};

/// Publishes a folder as a new version. Refuses what a client would refuse, symbolic links and
/// special files, a glob of settings files that matches none or an executable, and a version that
/// is already listed. Equal input gives an equal pack and manifest, byte for byte.
Expected<void> addVersion(const AddRequest& request, Progress& progress);

/// Takes a version off the catalogue. Its pack and manifest stay for downloads that run, until
/// collectGarbage().
Expected<void> removeVersion(const std::filesystem::path& repository, const std::string& version,
                             const SecretKey& secretKey);

/// Removes packs, manifests and deltas that no listed version has needed for `age`: clients that
/// still download them would be left without. Files of other names stay. Returns the bytes freed.
Expected<std::uint64_t> collectGarbage(const std::filesystem::path& repository,
                                       std::chrono::hours age, const SecretKey& secretKey);

struct ListedVersion
{
    std::string key;
    std::string date;
    std::string name;                ///< empty for an ordinary version
    std::uint64_t packSize = 0;      ///< bytes to download
    std::uint64_t installedSize = 0; ///< bytes on the disk
    std::size_t fileCount = 0;
};

/// The listed versions in ascending order. Signatures are not looked at.
Expected<std::vector<ListedVersion>> listVersions(const std::filesystem::path& repository);

struct VerifyReport
{
    std::size_t versions = 0;
    std::uint64_t packBytes = 0;
    std::vector<std::string> faults; ///< each names the file and what is wrong with it
};

/// Checks everything that a client would: signature, catalogue, manifests, packs, every frame,
/// every file in them and every delta. Goes on after a fault.
VerifyReport verifyRepository(const std::filesystem::path& repository,
                              std::span<const PublicKey> keys, Progress& progress);

/// Writes a new key pair in minisign's format, the secret key without a password and readable by
/// its owner alone. Refuses to overwrite.
Expected<void> generateKeys(const std::filesystem::path& secretKeyFile,
                            const std::filesystem::path& publicKeyFile);

/// The day of SOURCE_DATE_EPOCH (https://reproducible-builds.org/specs/source-date-epoch/) or else
/// of the clock, in UTC, yyyy-MM-dd.
Expected<std::string> today();

} // namespace vl::publish
