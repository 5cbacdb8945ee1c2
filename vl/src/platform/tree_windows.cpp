#include "vl/src/platform/file.h"
#include "vl/src/platform/fileerror.h"
#include "vl/src/platform/windowssystem.h"

#include <windows.h>

#include <cerrno>
#include <memory>
#include <utility>

namespace fs = std::filesystem;

namespace vl {

namespace {

struct FindCloser
{
    using pointer = HANDLE;
    void operator()(HANDLE search) const { FindClose(search); }
};
using Search = std::unique_ptr<HANDLE, FindCloser>;

// A folder below which something has been removed while others had it open empties late.
bool isHeldOrFilled(SystemError error)
{
    return isHeld(error) || error == ERROR_DIR_NOT_EMPTY;
}

std::uint64_t joined(DWORD high, DWORD low)
{
    return (std::uint64_t{high} << 32U) | low;
}

FileInfo infoOf(const WIN32_FIND_DATAW& entry)
{
    FileInfo info;
    if (isLink(entry.dwFileAttributes, entry.dwReserved0))
        return info;
    if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        info.kind = FileKind::Directory;
        return info;
    }
    info.kind = FileKind::File;
    info.size = joined(entry.nFileSizeHigh, entry.nFileSizeLow);
    // Steps of 100 ns since 1601.
    using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
    using namespace std::chrono;
    constexpr sys_days begin = year(1601) / January / 1;
    const Ticks written(static_cast<std::int64_t>(
        joined(entry.ftLastWriteTime.dwHighDateTime, entry.ftLastWriteTime.dwLowDateTime)));
    info.modified = time_point_cast<fs::file_time_type::duration>(
        fs::file_time_type::clock::from_sys(sys_time<Ticks>(begin) + written));
    return info;
}

// A full disk is a system failure like any other; everything else means the folder cannot be.
vlupd::UPD_RESULT folderFailureCode(bool full)
{
    return full ? vlupd::SYSTEM_CALL_ERROR : vlupd::CREATE_DIR_ERROR;
}

SystemError makeOne(const std::wstring& path)
{
    if (CreateDirectoryW(path.c_str(), nullptr) != 0)
        return ERROR_SUCCESS;
    const SystemError error = GetLastError();
    const DWORD attributes = GetFileAttributesW(path.c_str());
    const bool exists = attributes != INVALID_FILE_ATTRIBUTES;
    if (exists && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return ERROR_SUCCESS;
    return exists ? ERROR_DIRECTORY : error;
}

SystemError makeWithParents(const fs::path& path)
{
    const SystemError error = makeOne(systemPath(path));
    const fs::path parent = path.parent_path();
    if (error != ERROR_PATH_NOT_FOUND || parent.empty() || parent == path)
        return error;
    const SystemError above = makeWithParents(parent);
    return above == ERROR_SUCCESS ? makeOne(systemPath(path)) : above;
}

// One file, empty folder, link or junction.
SystemError removeOne(const std::wstring& path, Patience patience)
{
    return retriedWhile(isHeldOrFilled, patience, [&]() -> SystemError {
        const DWORD attributes = GetFileAttributesW(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            const SystemError error = GetLastError();
            return isMissing(error) ? ERROR_SUCCESS : error;
        }
        allowWriting(path);
        const BOOL removed = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0
                                 ? RemoveDirectoryW(path.c_str())
                                 : DeleteFileW(path.c_str());
        return removed != 0 ? ERROR_SUCCESS : GetLastError();
    });
}

} // namespace

Expected<std::optional<FileInfo>> fileInfo(const fs::path& path)
{
    WIN32_FILE_ATTRIBUTE_DATA found{};
    const std::wstring name = systemPath(path);
    WIN32_FIND_DATAW entry{};
    SystemError error = ERROR_SUCCESS;
    if (GetFileAttributesExW(name.c_str(), GetFileExInfoStandard, &found) == 0) {
        error = GetLastError();
    } else if ((found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        const Search search(FindFirstFileW(name.c_str(), &entry));
        if (search.get() == INVALID_HANDLE_VALUE)
            error = GetLastError();
    } else {
        entry.dwFileAttributes = found.dwFileAttributes;
        entry.ftLastWriteTime = found.ftLastWriteTime;
        entry.nFileSizeHigh = found.nFileSizeHigh;
        entry.nFileSizeLow = found.nFileSizeLow;
    }
    if (isMissing(error))
        return std::nullopt;
    if (error != ERROR_SUCCESS)
        return systemFailure("look at", path, error);
    return infoOf(entry);
}

Expected<std::vector<TreeEntry>> listDirectory(const fs::path& path)
{
    std::vector<TreeEntry> entries;
    WIN32_FIND_DATAW entry{};
    const Search search(FindFirstFileExW((systemPath(path) + L"\\*").c_str(), FindExInfoBasic,
                                         &entry, FindExSearchNameMatch, nullptr,
                                         FIND_FIRST_EX_LARGE_FETCH));
    if (search.get() == INVALID_HANDLE_VALUE) {
        const SystemError error = GetLastError();
        if (isMissing(error) || error == ERROR_DIRECTORY)
            return entries;
        return systemFailure("list", path, error);
    }
    do {
        const std::wstring_view name(entry.cFileName);
        if (name != L"." && name != L"..")
            entries.push_back({toUtf8(name), infoOf(entry)});
    } while (FindNextFileW(search.get(), &entry) != 0);
    if (const SystemError error = GetLastError(); error != ERROR_NO_MORE_FILES)
        return systemFailure("list", path, error);
    return entries;
}

Expected<void> makeDirectories(const fs::path& path)
{
    if (const auto fault = fileFault(FileOperation::MakeDirectory, path))
        return fileFailure("make folder", path, *fault, folderFailureCode(*fault == ENOSPC));
    const SystemError error = makeWithParents(path);
    if (error == ERROR_SUCCESS)
        return {};
    const bool full = error == ERROR_DISK_FULL || error == ERROR_HANDLE_DISK_FULL;
    return systemFailure("make folder", path, error, folderFailureCode(full));
}

Expected<void> removeFile(const fs::path& path, Patience patience)
{
    if (const auto fault = fileFault(FileOperation::Remove, path))
        return fileFailure("remove", path, *fault);
    if (const SystemError error = removeOne(systemPath(path), patience); error != ERROR_SUCCESS)
        return systemFailure("remove", path, error);
    return {};
}

Expected<std::uint64_t> freeSpace(const fs::path& path)
{
    if (fileFault(FileOperation::FreeSpace, path))
        return std::uint64_t{0};
    ULARGE_INTEGER available{};
    if (GetDiskFreeSpaceExW(systemPath(path).c_str(), &available, nullptr, nullptr) == 0)
        return systemFailure("ask for the free space of", path, GetLastError());
    return std::uint64_t{available.QuadPart};
}

} // namespace vl
