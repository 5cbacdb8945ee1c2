#include "vl/src/platform/fileerror.h"
#include "vl/src/platform/lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vl {

namespace {

tl::unexpected<Error> lockFailure(const std::filesystem::path& root,
                                  const std::filesystem::path& file, int error, const char* doing)
{
    if (error != EWOULDBLOCK)
        return fileFailure("lock", file, error);
    return failure(vlupd::SYSTEM_CALL_ERROR,
                   std::string("another process is ") + doing + " " + toUtf8(root));
}

} // namespace

RootLock::~RootLock()
{
    if (m_handle != closedHandle)
        ::close(static_cast<int>(m_handle));
}

RootLock::RootLock(RootLock&& other) noexcept
    : m_handle(std::exchange(other.m_handle, closedHandle))
{
}

RootLock& RootLock::operator=(RootLock&& other) noexcept
{
    std::swap(m_handle, other.m_handle);
    return *this;
}

Expected<RootLock> RootLock::tryTake(const std::filesystem::path& root)
{
    const std::filesystem::path path = root / "vl.lock";
    if (const auto fault = fileFault(FileOperation::Open, path))
        return fileFailure("open", path, *fault);
    RootLock lock;
    lock.m_handle = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (lock.m_handle == closedHandle)
        return fileFailure("open", path, errno);
    // The file itself stays: removing it would let two processes lock two files of one name.
    if (::flock(static_cast<int>(lock.m_handle), LOCK_EX | LOCK_NB) != 0)
        return lockFailure(root, path, errno, "using");
    return lock;
}

Expected<RootLock> RootLock::tryTakeShared(const std::filesystem::path& root)
{
    const std::filesystem::path path = root / "vl.lock";
    if (const auto fault = fileFault(FileOperation::Open, path))
        return fileFailure("open", path, *fault);
    RootLock lock;
    lock.m_handle = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (lock.m_handle == closedHandle)
        return errno == ENOENT ? Expected<RootLock>(std::move(lock))
                               : fileFailure("open", path, errno);
    if (::flock(static_cast<int>(lock.m_handle), LOCK_SH | LOCK_NB) != 0)
        return lockFailure(root, path, errno, "changing");
    return lock;
}

} // namespace vl
