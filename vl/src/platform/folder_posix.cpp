#include "vl/src/platform/fileerror.h"
#include "vl/src/platform/fileobserver.h"
#include "vl/src/platform/folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#if defined(__linux__)
#include <sys/vfs.h>
#endif

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>
#include <utility>

namespace fs = std::filesystem;

namespace vl {

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

int descriptor(std::intptr_t handle)
{
    return static_cast<int>(handle);
}

struct DirectoryCloser
{
    void operator()(DIR* directory) const { ::closedir(directory); }
};

FolderEntry entryOf(std::string name, const struct stat& status)
{
    FolderEntry entry;
    entry.name = std::move(name);
    entry.id = {static_cast<std::uint64_t>(status.st_dev),
                static_cast<std::uint64_t>(status.st_ino)};
    if (S_ISDIR(status.st_mode))
        entry.kind = FileKind::Directory;
    if (!S_ISREG(status.st_mode))
        return entry;
    constexpr VolumeTime nanosecondsPerSecond = 1'000'000'000;
    entry.kind = FileKind::File;
    entry.size = static_cast<std::uint64_t>(status.st_size);
    entry.modified = VolumeTime{status.st_mtim.tv_sec} * nanosecondsPerSecond +
                     VolumeTime{status.st_mtim.tv_nsec};
    return entry;
}

int renameWithoutReplacing(int from, const char* name, int to, const char* newName)
{
#if defined(__linux__)
    if (::renameat2(from, name, to, newName, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return -1;
#endif
    // Some file systems cannot do both in one step.
    struct stat status = {};
    if (::fstatat(to, newName, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        errno = EEXIST;
        return -1;
    }
    return ::renameat(from, name, to, newName);
}

bool lacksRight(int error)
{
    return error == EACCES || error == EPERM;
}

// A folder that its owner has closed stands in the way of nobody but himself.
void allowChanges(int folder)
{
    struct stat status = {};
    if (::fstat(folder, &status) == 0)
        (void)::fchmod(folder, (status.st_mode & 07777U) | S_IRWXU);
}

} // namespace

Folder::~Folder()
{
    if (isOpen())
        ::close(descriptor(m_handle));
}

Folder::Folder(Folder&& other) noexcept
    : m_handle(std::exchange(other.m_handle, closedHandle)), m_path(std::move(other.m_path))
{
}

Folder& Folder::operator=(Folder&& other) noexcept
{
    std::swap(m_handle, other.m_handle);
    std::swap(m_path, other.m_path);
    return *this;
}

Expected<Folder> Folder::open(const fs::path& path)
{
    if (const auto fault = fileFault(FileOperation::Open, path))
        return fileFailure("open folder", path, *fault);
    Folder folder;
    folder.m_path = path;
    folder.m_handle = ::open(path.c_str(), folderFlags);
    if (folder.m_handle == closedHandle)
        return fileFailure("open folder", path, errno,
                           errno == ENOENT ? vlupd::NOT_FOUND : vlupd::SYSTEM_CALL_ERROR);
    return folder;
}

Expected<Folder> Folder::openFolder(const std::string& name) const
{
    const fs::path path = m_path / name;
    const auto failed = [&](int error) {
        const bool isNone = error == ENOTDIR || error == ELOOP;
        return fileFailure("open folder", path, error,
                           error == ENOENT ? vlupd::NOT_FOUND
                           : isNone        ? vlupd::BROKEN_OR_MISSING
                                           : vlupd::SYSTEM_CALL_ERROR);
    };
    if (const auto fault = fileFault(FileOperation::Open, path))
        return failed(*fault);
    Folder folder;
    folder.m_handle = ::openat(descriptor(m_handle), name.c_str(), folderFlags | O_NOFOLLOW);
    if (folder.m_handle == closedHandle)
        return failed(errno);
    folder.m_path = path;
    return folder;
}

Expected<Folder> Folder::makeFolder(const std::string& name) const
{
    const fs::path path = m_path / name;
    const auto failed = [&](int error) {
        const bool full = error == ENOSPC || error == EDQUOT;
        return fileFailure("make folder", path, error,
                           full ? vlupd::SYSTEM_CALL_ERROR : vlupd::CREATE_DIR_ERROR);
    };
    auto present = openFolder(name);
    if (present)
        return present;
    if (present.error().code == vlupd::BROKEN_OR_MISSING)
        return failed(ENOTDIR);
    if (present.error().code != vlupd::NOT_FOUND)
        return present;
    if (const auto fault = fileFault(FileOperation::MakeDirectory, path))
        return failed(*fault);
    int made = ::mkdirat(descriptor(m_handle), name.c_str(), 0777);
    if (made != 0 && lacksRight(errno)) {
        allowChanges(descriptor(m_handle));
        made = ::mkdirat(descriptor(m_handle), name.c_str(), 0777);
    }
    if (made != 0 && errno != EEXIST)
        return failed(errno);
    return openFolder(name);
}

Expected<File> Folder::openFile(const std::string& name, File::Mode mode,
                                std::uint32_t permissions) const
{
    return File::openIn(m_handle, name, m_path / name, mode, permissions);
}

Expected<std::optional<FolderEntry>> Folder::find(const std::string& name) const
{
    struct stat status = {};
    if (::fstatat(descriptor(m_handle), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return entryOf(name, status);
    if (errno == ENOENT)
        return std::nullopt;
    return fileFailure("look at", m_path / name, errno);
}

Expected<std::vector<FolderEntry>> Folder::list() const
{
    if (const auto fault = fileFault(FileOperation::Open, m_path))
        return fileFailure("list", m_path, *fault);
    // A handle of its own, because the position in the list belongs to the handle.
    const int opened = ::openat(descriptor(m_handle), ".", folderFlags);
    const std::unique_ptr<DIR, DirectoryCloser> directory(opened < 0 ? nullptr
                                                                     : ::fdopendir(opened));
    if (directory == nullptr)
        return fileFailure("list", m_path, errno);
    std::vector<FolderEntry> entries;
    for (;;) {
        errno = 0;
        const dirent* next = ::readdir(directory.get());
        if (next == nullptr)
            break;
        const std::string_view name(next->d_name);
        if (name == "." || name == "..")
            continue;
        struct stat status = {};
        if (::fstatat(opened, next->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0)
            entries.push_back(entryOf(next->d_name, status));
        else if (errno != ENOENT) // else it was removed meanwhile
            return fileFailure("look at", m_path / next->d_name, errno);
    }
    if (errno != 0)
        return fileFailure("list", m_path, errno);
    return entries;
}

Expected<void> Folder::move(const std::string& name, const Folder& target,
                            const std::string& newName, Patience /*patience*/) const
{
    const auto failed = [&](int error) -> tl::unexpected<Error> {
        Error fault = fileFailure("move", m_path / name, error,
                                  error == ENOENT ? vlupd::NOT_FOUND : vlupd::SYSTEM_CALL_ERROR)
                          .value();
        fault.message += " (to " + toUtf8(target.m_path / newName) + ")";
        return tl::unexpected(std::move(fault));
    };
    if (const auto fault = fileFault(FileOperation::Rename, target.m_path / newName))
        return failed(*fault);
    tellRename(m_path / name, target.m_path / newName);
    const int from = descriptor(m_handle);
    const int to = descriptor(target.m_handle);
    int renamed = renameWithoutReplacing(from, name.c_str(), to, newName.c_str());
    if (renamed != 0 && lacksRight(errno)) {
        allowChanges(from);
        allowChanges(to);
        renamed = renameWithoutReplacing(from, name.c_str(), to, newName.c_str());
    }
    if (renamed != 0)
        return failed(errno);
    return {};
}

Expected<void> Folder::removeFile(const std::string& name, Patience /*patience*/) const
{
    if (const auto fault = fileFault(FileOperation::Remove, m_path / name))
        return fileFailure("remove", m_path / name, *fault);
    int removed = ::unlinkat(descriptor(m_handle), name.c_str(), 0);
    if (removed != 0 && lacksRight(errno)) {
        allowChanges(descriptor(m_handle));
        removed = ::unlinkat(descriptor(m_handle), name.c_str(), 0);
    }
    if (removed != 0 && errno != ENOENT)
        return fileFailure("remove", m_path / name, errno);
    return {};
}

Expected<bool> Folder::removeFolder(const std::string& name, Patience /*patience*/) const
{
    if (const auto fault = fileFault(FileOperation::Remove, m_path / name))
        return fileFailure("remove", m_path / name, *fault);
    int removed = ::unlinkat(descriptor(m_handle), name.c_str(), AT_REMOVEDIR);
    if (removed != 0 && lacksRight(errno)) {
        allowChanges(descriptor(m_handle));
        removed = ::unlinkat(descriptor(m_handle), name.c_str(), AT_REMOVEDIR);
    }
    if (removed == 0 || errno == ENOENT)
        return true;
    if (errno == ENOTEMPTY || errno == EEXIST || errno == ENOTDIR)
        return false;
    return fileFailure("remove", m_path / name, errno);
}

Expected<std::uint64_t> Folder::volume() const
{
    struct stat status = {};
    if (::fstat(descriptor(m_handle), &status) != 0)
        return fileFailure("look at", m_path, errno);
    return static_cast<std::uint64_t>(status.st_dev);
}

Expected<Volume> volumeOf(const fs::path& folder)
{
    Volume volume;
    struct statvfs status = {};
    if (::statvfs(folder.c_str(), &status) != 0)
        return fileFailure("ask for the free space of", folder, errno);
    volume.clusterSize = status.f_frsize;
    volume.freeBytes = std::uint64_t{status.f_bavail} * status.f_frsize;
    if (fileFault(FileOperation::FreeSpace, folder))
        volume.freeBytes = 0;
#if defined(__linux__)
    constexpr auto fatMagic = 0x4d44; // MSDOS_SUPER_MAGIC of statfs(2); exFAT has another one
    struct statfs system = {};
    if (::statfs(folder.c_str(), &system) == 0 && system.f_type == fatMagic)
        volume.largestFile = UINT32_MAX;
#endif
    return volume;
}

} // namespace vl
