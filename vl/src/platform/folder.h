#pragma once

#include "vl/src/error.h"
#include "vl/src/platform/file.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vl {

/// A point in time by the clock of a volume: nanoseconds since 1970 (UTC).
using VolumeTime = std::int64_t;

/// The file that a name stands for, whatever its name is. Zero where listings do not tell it
/// (Windows).
struct FileId
{
    std::uint64_t volume = 0;
    std::uint64_t number = 0;

    bool operator==(const FileId&) const = default;
    bool operator<(const FileId& other) const
    {
        return std::pair(volume, number) < std::pair(other.volume, other.number);
    }
};

struct FolderEntry
{
    std::string name; ///< one component, UTF-8
    FileKind kind = FileKind::Other;
    std::uint64_t size = 0;  ///< of a file, in bytes
    VolumeTime modified = 0; ///< of a file
    FileId id{};
};

/// An open folder. Everything in it is reached through its handle, by names of one component
/// (UTF-8), and a link is never followed: what replaces the folder's name meanwhile does not
/// matter. Operations pass the test seam of file.h; failures name the path and have the code
/// SYSTEM_CALL_ERROR unless something else is said. Const operations may run on several threads.
class Folder final
{
public:
    Folder() = default;
    ~Folder();
    Folder(Folder&& other) noexcept;
    Folder& operator=(Folder&& other) noexcept;

    /// The folder that `path` stands for. A link or junction in its place is followed, this once.
    /// NOT_FOUND when there is none.
    static Expected<Folder> open(const std::filesystem::path& path);
    /// The folder `name` in this one. NOT_FOUND when there is nothing of that name;
    /// BROKEN_OR_MISSING when it is no folder (a link to one is none).
    Expected<Folder> openFolder(const std::string& name) const;
    /// As openFolder(), but made when there is nothing of that name; CREATE_DIR_ERROR when that
    /// fails or something else has it.
    Expected<Folder> makeFolder(const std::string& name) const;
    /// As File::open().
    Expected<File> openFile(const std::string& name, File::Mode mode,
                            std::uint32_t permissions = 0644) const;
    /// What the name stands for; nothing when there is nothing.
    Expected<std::optional<FolderEntry>> find(const std::string& name) const;
    /// Everything in the folder, in no order, without opening any of it.
    Expected<std::vector<FolderEntry>> list() const;
    /// Renames `name` into `target`, a folder of the same volume. Never replaces: fails when
    /// `newName` is taken. NOT_FOUND when there is no `name`.
    Expected<void> move(const std::string& name, const Folder& target, const std::string& newName,
                        Patience patience = Patience::Usual) const;
    /// Removes a file or link, read-only ones too; not an error when there is none.
    Expected<void> removeFile(const std::string& name, Patience patience = Patience::Usual) const;
    /// Removes a folder if it is empty. False when it is not; true when it is gone.
    Expected<bool> removeFolder(const std::string& name, Patience patience = Patience::Usual) const;

    bool isOpen() const { return m_handle != closedHandle; }
    /// For messages and for the calls that know no handles.
    const std::filesystem::path& path() const { return m_path; }
    /// Tells volumes apart.
    Expected<std::uint64_t> volume() const;

private:
    static constexpr std::intptr_t closedHandle = -1;
    std::intptr_t m_handle = closedHandle;
    std::filesystem::path m_path;
};

/// Removes everything in a folder, links as such, read-only entries too. What cannot be removed is
/// passed over and the first failure returned at the end. `goOn` is asked before each entry; false
/// ends the work with a failure.
Expected<void> emptyFolder(const Folder& folder, Patience patience,
                           const std::function<bool()>& goOn = {});

/// What the volume of a folder can do.
struct Volume
{
    std::uint64_t freeBytes = 0; ///< that this user may still write
    std::uint64_t clusterSize = 4096;
    std::uint64_t largestFile = UINT64_MAX; ///< in bytes; FAT32 ends below 4 GiB
};
Expected<Volume> volumeOf(const std::filesystem::path& folder);

/// The time that a file gets that is written in `folder` now, by the clock that its volume uses.
Expected<VolumeTime> volumeNow(const Folder& folder);

} // namespace vl
