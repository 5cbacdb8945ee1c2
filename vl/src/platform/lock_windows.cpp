#include "vl/src/platform/fileerror.h"
#include "vl/src/platform/lock.h"
#include "vl/src/platform/windowssystem.h"

#include <windows.h>

#include <thread>
#include <utility>

namespace vl {

namespace {

constexpr std::chrono::milliseconds retryPause{10};

HANDLE systemHandle(std::intptr_t handle)
{
    return reinterpret_cast<HANDLE>(handle);
}

// Who may not remove the file while it is open cannot make a second lock of the same name.
HANDLE openLockFile(const std::filesystem::path& path, DWORD access, DWORD disposition)
{
    return CreateFileW(systemPath(path).c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       nullptr, disposition, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT,
                       nullptr);
}

Expected<void> lock(std::intptr_t handle, DWORD kind, const std::filesystem::path& folder,
                    const std::filesystem::path& file, const char* doing,
                    std::chrono::milliseconds patience = {})
{
    const auto end = std::chrono::steady_clock::now() + patience;
    for (;; std::this_thread::sleep_for(retryPause)) {
        OVERLAPPED firstByte{};
        if (LockFileEx(systemHandle(handle), kind | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0,
                       &firstByte) != 0)
            return {};
        const SystemError error = GetLastError();
        if (error != ERROR_LOCK_VIOLATION && error != ERROR_IO_PENDING)
            return systemFailure("lock", file, error);
        if (std::chrono::steady_clock::now() >= end)
            return failure(vlupd::SYSTEM_CALL_ERROR,
                           std::string("another process is ") + doing + " " + toUtf8(folder));
    }
}

} // namespace

FolderLock::~FolderLock()
{
    if (m_handle != closedHandle)
        CloseHandle(systemHandle(m_handle));
}

FolderLock::FolderLock(FolderLock&& other) noexcept
    : m_handle(std::exchange(other.m_handle, closedHandle))
{
}

FolderLock& FolderLock::operator=(FolderLock&& other) noexcept
{
    std::swap(m_handle, other.m_handle);
    return *this;
}

Expected<FolderLock> FolderLock::tryTake(const std::filesystem::path& folder,
                                         std::chrono::milliseconds patience)
{
    const std::filesystem::path path = folder / "vl.lock";
    if (const auto fault = fileFault(FileOperation::Open, path))
        return fileFailure("open", path, *fault);
    FolderLock taken;
    allowWriting(systemPath(path)); // a tick at the folder's properties reaches every file in it
    HANDLE opened = openLockFile(path, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
    if (opened == INVALID_HANDLE_VALUE)
        return systemFailure("open", path, GetLastError());
    taken.m_handle = reinterpret_cast<std::intptr_t>(opened);
    if (auto locked =
            lock(taken.m_handle, LOCKFILE_EXCLUSIVE_LOCK, folder, path, "using", patience);
        !locked)
        return tl::unexpected(std::move(locked).error());
    return taken;
}

Expected<FolderLock> FolderLock::tryTakeShared(const std::filesystem::path& folder)
{
    const std::filesystem::path path = folder / "vl.lock";
    if (const auto fault = fileFault(FileOperation::Open, path))
        return fileFailure("open", path, *fault);
    FolderLock taken;
    HANDLE opened = openLockFile(path, GENERIC_READ, OPEN_EXISTING);
    if (opened == INVALID_HANDLE_VALUE) {
        const SystemError error = GetLastError();
        return isMissing(error) ? Expected<FolderLock>(std::move(taken))
                                : systemFailure("open", path, error);
    }
    taken.m_handle = reinterpret_cast<std::intptr_t>(opened);
    if (auto locked = lock(taken.m_handle, 0, folder, path, "changing"); !locked)
        return tl::unexpected(std::move(locked).error());
    return taken;
}

} // namespace vl
