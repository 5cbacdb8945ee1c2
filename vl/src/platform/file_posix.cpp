#include "vl/src/platform/file.h"
#include "vl/src/platform/fileerror.h"
#include "vl/src/platform/fileobserver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__linux__)
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace fs = std::filesystem;

namespace vl {

namespace {

int descriptor(std::intptr_t handle)
{
    return static_cast<int>(handle);
}

// Repeats a call that a signal interrupted.
template <class Call> auto retried(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

int openFlags(File::Mode mode)
{
    switch (mode) {
    case File::Mode::Read:
        // Non-blocking, so that a named pipe in a file's place is refused instead of waited for.
        return O_RDONLY | O_NONBLOCK;
    case File::Mode::ReadWrite:
        return O_RDWR | O_CREAT | O_NONBLOCK;
    case File::Mode::Create:
        return O_RDWR | O_CREAT | O_EXCL;
    }
    return O_RDONLY;
}

} // namespace

std::string systemReason(int error)
{
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 32)
    // strerror() speaks the user's language; the log is English.
    if (const char* words = strerrordesc_np(error))
        return words;
#endif
    return std::strerror(error);
}

File::~File()
{
    if (isOpen())
        ::close(descriptor(m_handle));
}

File::File(File&& other) noexcept
    : m_handle(std::exchange(other.m_handle, closedHandle)), m_path(std::move(other.m_path))
{
}

File& File::operator=(File&& other) noexcept
{
    std::swap(m_handle, other.m_handle);
    std::swap(m_path, other.m_path);
    return *this;
}

Expected<File> File::open(const fs::path& path, Mode mode, std::uint32_t permissions)
{
    return openIn(AT_FDCWD, path, path, mode, permissions);
}

Expected<File> File::openIn(std::intptr_t folder, const fs::path& name, const fs::path& path,
                            Mode mode, std::uint32_t permissions)
{
    const auto failed = [&](int error) {
        const bool missing = mode == Mode::Read && error == ENOENT;
        return fileFailure(mode == Mode::Create ? "create" : "open", path, error,
                           missing ? vlupd::NOT_FOUND : vlupd::SYSTEM_CALL_ERROR);
    };
    if (const auto fault = fileFault(FileOperation::Open, path))
        return failed(*fault);
    const int flags = openFlags(mode) | O_CLOEXEC | O_NOFOLLOW;
    const int opened = retried([&] {
        return ::openat(descriptor(folder), name.c_str(), flags, static_cast<mode_t>(permissions));
    });
    if (opened < 0)
        return failed(errno);
    File file;
    file.m_handle = opened;
    file.m_path = path;
    struct stat status = {};
    if (::fstat(opened, &status) != 0)
        return failed(errno);
    if (!S_ISREG(status.st_mode))
        return failure(vlupd::SYSTEM_CALL_ERROR,
                       "cannot open " + toUtf8(path) + ": not a regular file");
    return file;
}

Expected<std::uint64_t> File::size() const
{
    struct stat status = {};
    if (::fstat(descriptor(m_handle), &status) != 0)
        return fileFailure("look at", m_path, errno);
    return static_cast<std::uint64_t>(status.st_size);
}

Expected<std::size_t> File::readAt(std::uint64_t offset, std::span<std::byte> bytes) const
{
    if (const auto fault = fileFault(FileOperation::Read, m_path))
        return fileFailure("read", m_path, *fault);
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = retried([&] {
            return ::pread(descriptor(m_handle), bytes.data() + done, bytes.size() - done,
                           static_cast<off_t>(offset + done));
        });
        if (count < 0)
            return fileFailure("read", m_path, errno);
        if (count == 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

Expected<void> File::writeAt(std::uint64_t offset, std::span<const std::byte> bytes)
{
    if (const auto fault = fileFault(FileOperation::Write, m_path))
        return fileFailure("write", m_path, *fault);
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = retried([&] {
            return ::pwrite(descriptor(m_handle), bytes.data() + done, bytes.size() - done,
                            static_cast<off_t>(offset + done));
        });
        if (count < 0)
            return fileFailure("write", m_path, errno);
        done += static_cast<std::size_t>(count);
    }
    return {};
}

Expected<void> File::truncate(std::uint64_t size)
{
    if (const auto fault = fileFault(FileOperation::Truncate, m_path))
        return fileFailure("cut", m_path, *fault);
    if (retried([&] { return ::ftruncate(descriptor(m_handle), static_cast<off_t>(size)); }) != 0)
        return fileFailure("cut", m_path, errno);
    return {};
}

bool File::cloneFrom(const File& source)
{
#if defined(__linux__)
    return ::ioctl(descriptor(m_handle), FICLONE, descriptor(source.m_handle)) == 0;
#else
    (void)source;
    return false;
#endif
}

void File::startWriteback(std::uint64_t offset, std::uint64_t size)
{
#if defined(__linux__)
    // Thousands of small pieces are written faster together than each by itself.
    constexpr std::uint64_t smallPiece = 64U << 10U;
    if (size < smallPiece)
        return;
    ::sync_file_range(descriptor(m_handle), static_cast<off_t>(offset), static_cast<off_t>(size),
                      SYNC_FILE_RANGE_WRITE);
#else
    (void)offset;
    (void)size;
#endif
}

Expected<void> File::flushRange(std::uint64_t offset, std::uint64_t size) const
{
    if (const auto fault = fileFault(FileOperation::Sync, m_path))
        return fileFailure("flush", m_path, *fault);
    const int file = descriptor(m_handle);
#if defined(__linux__)
    constexpr unsigned writeAndWait =
        SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    const auto flush = [&] {
        return ::sync_file_range(file, static_cast<off_t>(offset), static_cast<off_t>(size),
                                 writeAndWait);
    };
#else
    (void)offset;
    (void)size;
    const auto flush = [&] { return ::fsync(file); };
#endif
    if (retried(flush) != 0)
        return fileFailure("flush", m_path, errno);
    return {};
}

Expected<void> File::sync()
{
    if (const auto fault = fileFault(FileOperation::Sync, m_path))
        return fileFailure("flush", m_path, *fault);
    if (retried([&] { return ::fsync(descriptor(m_handle)); }) != 0)
        return fileFailure("flush", m_path, errno);
    return {};
}

Expected<void> renameReplacing(const fs::path& from, const fs::path& to, Patience /*patience*/)
{
    if (const auto fault = fileFault(FileOperation::Rename, to))
        return fileFailure("rename to", to, *fault);
    tellRename(from, to);
    if (::rename(from.c_str(), to.c_str()) != 0)
        return fileFailure("rename to", to, errno);
    return {};
}

namespace {

template <class Flush> Expected<void> flushDirectory(const fs::path& path, Flush flush)
{
    if (const auto fault = fileFault(FileOperation::Sync, path))
        return fileFailure("flush", path, *fault);
    const int opened = retried([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); });
    if (opened < 0)
        return fileFailure("flush", path, errno);
    const int flushed = retried([&] { return flush(opened); });
    const int error = errno;
    ::close(opened);
    // Some network file systems cannot flush folders and say so; there is nothing more to do.
    if (flushed != 0 && error != EINVAL && error != ENOTSUP)
        return fileFailure("flush", path, error);
    return {};
}

} // namespace

Expected<void> syncDirectory(const fs::path& path)
{
    return flushDirectory(path, [](int opened) { return ::fsync(opened); });
}

Expected<void> syncVolume(const fs::path& path)
{
#if defined(__linux__)
    auto flushed = flushDirectory(path, [](int opened) { return ::syncfs(opened); });
#else
    ::sync();
    auto flushed = syncDirectory(path);
#endif
    if (flushed)
        tellVolumeFlushed(path);
    return flushed;
}

bool syncVolumeWritesContents()
{
#if defined(__linux__)
    return true; // and since Linux 5.8 syncfs(2) fails where one of them could not be written
#else
    return false; // sync() may return before it is done
#endif
}

} // namespace vl
