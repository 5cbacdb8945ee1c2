#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/filehasher.h"
#include "vl/src/install/listing.h"
#include "vl/src/install/records.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vl {

/// Hashes of files in the version's folder that were read in this installation.
class KnownHashes final
{
public:
    /// The hash, or null when the file was not read or has another time or size by now.
    const std::optional<Hash>* find(const ListedEntry& file) const;
    void add(const ListedEntry& file, const std::optional<Hash>& hash);

private:
    struct Known
    {
        std::uint64_t size = 0;
        VolumeTime modified = 0;
        std::optional<Hash> hash; ///< none: it could not be read
    };
    std::map<std::string, Known> m_known; ///< by path
};

/// What the planning of a switch is told.
struct SwitchQuestion
{
    const Manifest& target;
    const Manifest* base = nullptr; ///< of what lies in the folder; null when nothing is known
    const FolderListing& listing;
    VolumeTime verified = 0; ///< files of `base` modified well before are as they were
    bool readAll = false;    ///< trust no time
    const KnownHashes& known;
};

/// What a switch from the listed folder to `target` consists of.
struct SwitchPlan
{
    /// Files whose hashes the plan needs; when there are any, the rest says nothing yet.
    std::vector<HashJob> unread;

    std::vector<FileNumber> out;      ///< of the base
    std::vector<FileNumber> in;       ///< of the target
    std::vector<FileNumber> programs; ///< of the base: executables that stay but leave meanwhile
    std::vector<UserMove> moves;
    std::vector<std::string> emptied;
    std::vector<std::string> edited; ///< listed files that somebody changed and that are replaced

    /// The folder needs no change.
    bool isEmpty() const { return in.empty() && out.empty() && moves.empty(); }
};

/// Decides for every file of the two versions whether it stays, leaves or comes, and moves what is
/// the user's out of the way of what comes. Touches nothing.
SwitchPlan planSwitch(const SwitchQuestion& question);

/// Whether a file was modified so long before `verified` that its contents are those seen then. The
/// steps of volumes' clocks are up to 2 seconds long (FAT).
bool isUntouched(const FolderEntry& file, VolumeTime verified);

} // namespace vl
