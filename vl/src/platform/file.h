#pragma once

#include "vl/src/error.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// All changes of the disk go through these functions: one place for long paths, for what must be
// flushed, and for the seam that makes file operations fail in tests. A failure's code is
// SYSTEM_CALL_ERROR (CREATE_DIR_ERROR for folders) and its message names operation, path and the
// system's reason.
namespace vl
{

/// An open file. Closing never reports; call sync() where it matters.
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

    static Expected<File> open(const std::filesystem::path& path, Mode mode);

    Expected<std::uint64_t> size() const;
    /// Fills `bytes` from `offset` and returns how many there were (fewer only at the end).
    Expected<std::size_t> readAt(std::uint64_t offset, std::span<std::byte> bytes) const;
    /// Writes all of `bytes` at `offset`.
    Expected<void> writeAt(std::uint64_t offset, std::span<const std::byte> bytes);
    Expected<void> truncate(std::uint64_t size);
    /// On the disk when it returns.
    Expected<void> sync();
    /// Sets the permission bits (0644, 0755); only the write bit means something on Windows.
    Expected<void> setMode(std::uint32_t mode);
    bool isOpen() const { return m_handle != closedHandle; }

private:
    static constexpr std::intptr_t closedHandle = -1;
    std::intptr_t m_handle = closedHandle;
    std::filesystem::path m_path;
};

/// The whole file, refused above `maxSize` bytes. NOT_FOUND when it does not exist.
Expected<std::string> readWholeFile(const std::filesystem::path& path, std::uint64_t maxSize);
/// Replaces `path` by `text` in one step: a crash leaves the old text or the new one.
Expected<void> writeWholeFile(const std::filesystem::path& path, std::string_view text);

Expected<void> makeDirectories(const std::filesystem::path& path);
/// Renames over an existing file; one step.
Expected<void> renameReplacing(const std::filesystem::path& from, const std::filesystem::path& to);
/// Makes the entries of a directory durable.
Expected<void> syncDirectory(const std::filesystem::path& path);
/// Removes one file, read-only ones too; not an error when it does not exist.
Expected<void> removeFile(const std::filesystem::path& path);
/// Removes a tree without following links, read-only entries too.
Expected<void> removeTree(const std::filesystem::path& path);
/// Shares the blocks of `from` where the file system can, copies otherwise. `to` must not exist.
Expected<void> cloneOrCopy(const std::filesystem::path& from, const std::filesystem::path& to);
/// Bytes that this user may still write on the volume of `path`.
Expected<std::uint64_t> freeSpace(const std::filesystem::path& path);

enum class FileOperation { Open, Read, Write, Truncate, Sync, MakeDirectory, Rename, Remove, Copy };

/// Test seam: asked before every operation; a value is the errno to fail with. Empty: no fault.
/// Not to be changed while operations run.
void setFileFault(std::function<std::optional<int>(FileOperation, const std::filesystem::path&)> fault);

} // namespace vl
