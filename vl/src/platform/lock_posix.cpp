#include "vl/src/platform/fileerror.h"
#include "vl/src/platform/lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <utility>

namespace vl {

namespace {

constexpr std::chrono::milliseconds retryPause{10};

tl::unexpected<Error> lockFailure(const std::filesystem::path& folder,
                                  const std::filesystem::path& file, int error, const char* doing)
{
    if (error != EWOULDBLOCK)
        return fileFailure("lock", file, error);
    return failure(vlupd::SYSTEM_CALL_ERROR,
                   std::string("another process is ") + doing + " " + toUtf8(folder));
}

} // namespace

FolderLock::~FolderLock()
{
    if (m_handle != closedHandle)
        ::close(static_cast<int>(m_handle));
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
    FolderLock lock;
    lock.m_handle = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    // A file that has become read-only can be locked all the same. In a folder that cannot be
    // written to there is nothing to lock it for.
    if (lock.m_handle == closedHandle && errno == EACCES && ::access(folder.c_str(), W_OK) == 0)
        lock.m_handle = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (lock.m_handle == closedHandle)
        return fileFailure("open", path, errno);
    // The file itself stays: removing it would let two processes lock two files of one name.
    const auto end = std::chrono::steady_clock::now() + patience;
    while (::flock(static_cast<int>(lock.m_handle), LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        if (error != EWOULDBLOCK || std::chrono::steady_clock::now() >= end)
            return lockFailure(folder, path, error, "using");
        std::this_thread::sleep_for(retryPause);
    }
    return lock;
}

Expected<FolderLock> FolderLock::tryTakeShared(const std::filesystem::path& folder)
{
    const std::filesystem::path path = folder / "vl.lock";
    if (const auto fault = fileFault(FileOperation::Open, path))
        return fileFailure("open", path, *fault);
    FolderLock lock;
    lock.m_handle = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (lock.m_handle == closedHandle)
        return errno == ENOENT ? Expected<FolderLock>(std::move(lock))
                               : fileFailure("open", path, errno);
    if (::flock(static_cast<int>(lock.m_handle), LOCK_SH | LOCK_NB) != 0)
        return lockFailure(folder, path, errno, "changing");
    return lock;
}

} // namespace vl
