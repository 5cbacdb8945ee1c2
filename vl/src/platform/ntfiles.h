#pragma once

#include "vl/src/platform/windowssystem.h"

#include <windows.h>
#include <winternl.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Files and folders through the system's own calls, because those of Windows' usual interface take
// no names relative to an open folder. Shared by the Windows sources of this folder only.
namespace vl {

/// Others may read, write, rename and remove what is open here.
constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Two errors of Windows that the compiler's headers lack.
constexpr SystemError errorIsFolder = 336; ///< ERROR_DIRECTORY_NOT_SUPPORTED
constexpr SystemError errorIsLink = 4395;  ///< ERROR_REPARSE_POINT_ENCOUNTERED

struct HandleCloser
{
    using pointer = HANDLE;
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using SystemHandle = std::unique_ptr<HANDLE, HandleCloser>;

inline HANDLE systemHandle(std::intptr_t handle)
{
    return reinterpret_cast<HANDLE>(handle);
}

/// The usual interface's number for `status`. A file on its way out (ERROR_DELETE_PENDING) and a
/// folder in a file's place (errorIsFolder) are kept apart from lack of rights.
SystemError errorOf(NTSTATUS status);

/// How something is opened, in the words of NtCreateFile(); every use of it is waited for.
struct Opening
{
    ACCESS_MASK access = 0;
    ULONG options = 0;
    ULONG disposition = FILE_OPEN;
};
constexpr Opening toWorkIn{.access = FILE_LIST_DIRECTORY | FILE_TRAVERSE | FILE_READ_ATTRIBUTES,
                           .options = FILE_DIRECTORY_FILE};
constexpr Opening toMove{.access = DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES};

/// Opens what `name` stands for, a link itself too. `folder` is open and `name` one component
/// (ERROR_INVALID_NAME: it is none), or `folder` is null and `name` comes from systemPath().
SystemError openItself(HANDLE folder, const std::wstring& name, const Opening& opening,
                       SystemHandle& opened);
/// As openItself(), but refuses a link (errorIsLink) and opens what another reparse point stands
/// for.
SystemError openUnlessLink(HANDLE folder, const std::wstring& name, const Opening& opening,
                           SystemHandle& opened);
/// Opens what `path`, which comes from systemPath(), stands for; links are followed.
SystemError openFollowing(const std::wstring& path, const Opening& opening, SystemHandle& opened);

struct EntryStatus
{
    DWORD attributes = 0;
    DWORD tag = 0; ///< of a reparse point
    std::uint64_t size = 0;
    std::int64_t written = 0; ///< in steps of 100 ns since 1601

    bool isLink() const { return vl::isLink(attributes, tag); }
    bool isFolder() const { return !isLink() && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
};
/// The status of an entry, of a link itself too. Names as in openItself().
SystemError statusOf(HANDLE folder, const std::wstring& name, EntryStatus& status);
/// Attributes and tag of something open.
EntryStatus kindOf(HANDLE opened);

struct NamedStatus
{
    std::wstring name;
    EntryStatus status;
};
/// Adds everything in an open folder, without opening any of it.
SystemError listFolder(HANDLE folder, std::vector<NamedStatus>& entries);

/// The path of something open, without links and short names; empty where the system does not tell.
/// `form`: VOLUME_NAME_DOS or VOLUME_NAME_NT.
std::wstring finalPath(HANDLE opened, DWORD form = VOLUME_NAME_DOS);

/// Renames something opened with `toMove` into `folder`. ERROR_ALREADY_EXISTS when the name is
/// taken, ERROR_INVALID_NAME when it is no component. `oldName`: by which it was opened.
SystemError renameOpened(HANDLE opened, const std::wstring& oldName, HANDLE folder,
                         const std::wstring& name);
/// Removes something opened with `toMove`, read-only or not. Its name is free at once, or, where
/// the volume cannot do that, when nobody has it open any more.
SystemError removeOpened(HANDLE opened);
/// Whether `name` is one component of a path.
bool isComponent(std::wstring_view name);

} // namespace vl
