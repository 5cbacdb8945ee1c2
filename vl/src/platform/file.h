#pragma once

#include "vl/src/error.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// All changes of the disk go through these functions: one place for long paths, for what must be
// flushed, and for the seam that makes file operations fail in tests. A failure's code is
// SYSTEM_CALL_ERROR (CREATE_DIR_ERROR for folders, NOT_FOUND for a missing file that is to be
// read) and its message names operation, path and the system's reason.
namespace vl {

/// An open regular file. Its destructor closes it without a report.
class File final
{
public:
    enum class Mode {
        Read,      ///< must exist; never follows a symbolic link in the last component
        ReadWrite, ///< created when missing
        Create,    ///< must not exist
    };

    File() = default;
    ~File();
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;

    /// `permissions`: of a new file, less what the process's mask takes away; Windows has none.
    static Expected<File> open(const std::filesystem::path& path, Mode mode,
                               std::uint32_t permissions = 0644);

    Expected<std::uint64_t> size() const;
    /// Fills `bytes` from `offset` and returns how many there were (fewer only at the end).
    Expected<std::size_t> readAt(std::uint64_t offset, std::span<std::byte> bytes) const;
    /// Writes all of `bytes` at `offset`.
    Expected<void> writeAt(std::uint64_t offset, std::span<const std::byte> bytes);
    Expected<void> truncate(std::uint64_t size);
    /// Makes this new, empty file share the bytes of `source` until one of them changes. False
    /// where the file system cannot, and nothing has changed then.
    bool cloneFrom(const File& source);
    /// Asks the system to begin writing a range to the disk; a hint that never fails or waits long.
    void startWriteback(std::uint64_t offset, std::uint64_t size);
    /// Writes a range of a file that was opened for writing to the disk and waits for it; Windows
    /// writes the whole file. Durable only after syncVolume().
    Expected<void> flushRange(std::uint64_t offset, std::uint64_t size) const;
    /// On the disk when it returns.
    Expected<void> sync();
    /// Closes a file that is whole. Where syncVolume() does not write contents, they are on the way
    /// to the disk by then: a handle that wrote can flush cheaply, a new one may be refused.
    Expected<void> finish();
    bool isOpen() const { return m_handle != closedHandle; }

private:
    friend class Folder;
    /// Opens `name` in the folder of the handle; `path` is what messages name.
    static Expected<File> openIn(std::intptr_t folder, const std::filesystem::path& name,
                                 const std::filesystem::path& path, Mode mode,
                                 std::uint32_t permissions);

    static constexpr std::intptr_t closedHandle = -1;
    std::intptr_t m_handle = closedHandle;
    std::filesystem::path m_path;
};

enum class FileKind { File, Directory, Other };

struct FileInfo
{
    FileKind kind = FileKind::Other;
    std::uint64_t size = 0;                   ///< of a file, in bytes
    std::filesystem::file_time_type modified; ///< of a file
};

/// What lies at `path`, links not followed; nothing when there is nothing.
Expected<std::optional<FileInfo>> fileInfo(const std::filesystem::path& path);

struct TreeEntry
{
    std::string path; ///< relative to the listed folder, "/" separators, UTF-8
    FileInfo info;
};

/// What lies directly in the folder `path`, links not followed; nothing when there is no folder.
Expected<std::vector<TreeEntry>> listDirectory(const std::filesystem::path& path);
/// Everything below `path`, links not followed, a folder before what lies in it.
Expected<std::vector<TreeEntry>> listTree(const std::filesystem::path& path);

/// The whole file, refused above `maxSize` bytes (CONTENT_LEN_ERROR). NOT_FOUND when it does not
/// exist.
Expected<std::string> readWholeFile(const std::filesystem::path& path, std::uint64_t maxSize);
/// Replaces `path` by `text` in one step: a crash leaves the old text or the new one.
Expected<void> writeWholeFile(const std::filesystem::path& path, std::string_view text);
/// Whether `name` is that of a file which an interrupted writeWholeFile() left behind.
bool isTemporaryName(std::string_view name);

Expected<void> makeDirectories(const std::filesystem::path& path);

/// What to do where Windows refuses because another program has a file open.
enum class Patience {
    Usual, ///< ask again for about two seconds: a virus scanner lets go soon
    None,  ///< somebody else will ask again later
    Long,  ///< ask for a minute: nothing can go on before
};

/// How long each asks. The long one is a minute unless a test has set it.
std::chrono::milliseconds durationOf(Patience patience);
void setLongPatience(std::chrono::milliseconds time);

/// Renames over an existing file; one step.
Expected<void> renameReplacing(const std::filesystem::path& from, const std::filesystem::path& to,
                               Patience patience = Patience::Usual);
/// Makes the entries of a directory durable.
Expected<void> syncDirectory(const std::filesystem::path& path);
/// Makes everything written so far to the volume of `path` durable, names included.
Expected<void> syncVolume(const std::filesystem::path& path);
/// Whether syncVolume() writes the contents of files too, not only their names.
bool syncVolumeWritesContents();
/// Removes one file, read-only ones too; not an error when it does not exist.
Expected<void> removeFile(const std::filesystem::path& path, Patience patience = Patience::Usual);
/// Removes a tree without following links, read-only entries too; not an error when there is none.
/// An error when something is left at the time `until`.
Expected<void> removeTree(
    const std::filesystem::path& path, Patience patience = Patience::Usual,
    std::chrono::steady_clock::time_point until = std::chrono::steady_clock::time_point::max());
/// Bytes that this user may still write on the volume of `path`.
Expected<std::uint64_t> freeSpace(const std::filesystem::path& path);

/// UTF-8 of a path, "/" separators, and back: what every format and log line uses.
std::string toUtf8(const std::filesystem::path& path);
std::filesystem::path fromUtf8(std::string_view text);
/// `path` from the current folder on, without "." and "..".
std::filesystem::path absolutePath(const std::filesystem::path& path);
/// The same text for all UTF-8 paths that are one file because the system ignores case.
std::string pathKey(std::string_view path);

enum class FileOperation {
    Open,
    Read,
    Write,
    Truncate,
    Sync,
    Finish, ///< closing a whole file
    MakeDirectory,
    Rename,
    Remove,
    FreeSpace, ///< a fault here means: no byte is free
};

/// Test seam: asked before every operation, from any thread; a value is the errno to fail with.
/// Empty: no fault. Not to be changed while operations run.
void setFileFault(
    std::function<std::optional<int>(FileOperation, const std::filesystem::path&)> fault);

} // namespace vl
