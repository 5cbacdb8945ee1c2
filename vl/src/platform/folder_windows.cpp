#include "vl/src/platform/fileerror.h"
#include "vl/src/platform/fileobserver.h"
#include "vl/src/platform/folder.h"
#include "vl/src/platform/ntfiles.h"
#include "vl/src/platform/processes.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

namespace fs = std::filesystem;

namespace vl {

namespace {

std::intptr_t released(SystemHandle& handle)
{
    return reinterpret_cast<std::intptr_t>(handle.release());
}

std::wstring wideName(const std::string& name)
{
    return fromUtf8(name).native();
}

VolumeTime volumeTime(std::int64_t written)
{
    constexpr VolumeTime nanosecondsPerStep = 100;
    constexpr std::int64_t stepsUntil1970 = 116'444'736'000'000'000;
    using Limits = std::numeric_limits<VolumeTime>;
    return nanosecondsPerStep * std::clamp(written - stepsUntil1970,
                                           Limits::min() / nanosecondsPerStep,
                                           Limits::max() / nanosecondsPerStep);
}

FolderEntry entryOf(std::string name, const EntryStatus& status)
{
    FolderEntry entry;
    entry.name = std::move(name);
    if (status.isFolder()) {
        entry.kind = FileKind::Directory;
    } else if (!status.isLink()) {
        entry.kind = FileKind::File;
        entry.size = status.size;
        entry.modified = volumeTime(status.written);
    }
    return entry;
}

// Whether everything in a folder has been removed while others had it open.
bool emptiesSoon(HANDLE folder)
{
    std::vector<NamedStatus> entries;
    return listFolder(folder, entries) == ERROR_SUCCESS &&
           std::ranges::all_of(entries, [&](NamedStatus& entry) {
               return statusOf(folder, entry.name, entry.status) == ERROR_DELETE_PENDING;
           });
}

SystemError openPatiently(HANDLE folder, const std::wstring& name, const Opening& opening,
                          SystemHandle& opened)
{
    return retriedWhile(isShut, Patience::Usual,
                        [&] { return openUnlessLink(folder, name, opening, opened); });
}

// As systemFailure(), and names the programs that are in the way.
tl::unexpected<Error> heldFailure(const char* what, const fs::path& path, SystemError error,
                                  vlupd::UPD_RESULT code = vlupd::SYSTEM_CALL_ERROR)
{
    Error fault = systemFailure(what, path, error, code).value();
    if (isHeld(error))
        if (const std::string holders = holdersOf(path); !holders.empty())
            fault.message += ": held open by " + holders;
    return tl::unexpected(std::move(fault));
}

} // namespace

Folder::~Folder()
{
    if (isOpen())
        CloseHandle(systemHandle(m_handle));
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
    SystemHandle opened;
    const SystemError error = retriedWhile(
        isShut, Patience::Usual, [&] { return openFollowing(systemPath(path), toWorkIn, opened); });
    if (error != ERROR_SUCCESS)
        return systemFailure("open folder", path, error,
                             isMissing(error) ? vlupd::NOT_FOUND : vlupd::SYSTEM_CALL_ERROR);
    Folder folder;
    folder.m_handle = released(opened);
    folder.m_path = path;
    return folder;
}

Expected<Folder> Folder::openFolder(const std::string& name) const
{
    const fs::path path = m_path / fromUtf8(name);
    if (const auto fault = fileFault(FileOperation::Open, path))
        return fileFailure("open folder", path, *fault,
                           *fault == ENOENT ? vlupd::NOT_FOUND : vlupd::SYSTEM_CALL_ERROR);
    SystemHandle opened;
    const SystemError error =
        openPatiently(systemHandle(m_handle), wideName(name), toWorkIn, opened);
    const bool isNone = error == ERROR_DIRECTORY || error == errorIsLink;
    if (error != ERROR_SUCCESS)
        return systemFailure("open folder", path, error,
                             isMissing(error) ? vlupd::NOT_FOUND
                             : isNone         ? vlupd::BROKEN_OR_MISSING
                                              : vlupd::SYSTEM_CALL_ERROR);
    Folder folder;
    folder.m_handle = released(opened);
    folder.m_path = path;
    return folder;
}

Expected<Folder> Folder::makeFolder(const std::string& name) const
{
    const fs::path path = m_path / fromUtf8(name);
    auto present = openFolder(name);
    if (present || present.error().code == vlupd::SYSTEM_CALL_ERROR)
        return present;
    if (present.error().code == vlupd::BROKEN_OR_MISSING)
        return failure(vlupd::CREATE_DIR_ERROR, std::move(present).error().message);
    if (const auto fault = fileFault(FileOperation::MakeDirectory, path))
        return fileFailure("make folder", path, *fault,
                           *fault == ENOSPC ? vlupd::SYSTEM_CALL_ERROR : vlupd::CREATE_DIR_ERROR);
    SystemHandle opened;
    Opening toMake = toWorkIn;
    toMake.disposition = FILE_OPEN_IF;
    const SystemError error = openPatiently(systemHandle(m_handle), wideName(name), toMake, opened);
    opened.reset();
    const bool full = error == ERROR_DISK_FULL || error == ERROR_HANDLE_DISK_FULL;
    if (error != ERROR_SUCCESS)
        return systemFailure("make folder", path, error,
                             full ? vlupd::SYSTEM_CALL_ERROR : vlupd::CREATE_DIR_ERROR);
    return openFolder(name);
}

Expected<File> Folder::openFile(const std::string& name, File::Mode mode,
                                std::uint32_t permissions) const
{
    return File::openIn(m_handle, fromUtf8(name), m_path / fromUtf8(name), mode, permissions);
}

Expected<std::optional<FolderEntry>> Folder::find(const std::string& name) const
{
    EntryStatus status;
    const SystemError error = retriedWhile(isShut, Patience::Usual, [&] {
        return statusOf(systemHandle(m_handle), wideName(name), status);
    });
    if (error == ERROR_SUCCESS)
        return entryOf(name, status);
    if (isMissing(error))
        return std::nullopt;
    return systemFailure("look at", m_path / fromUtf8(name), error);
}

Expected<std::vector<FolderEntry>> Folder::list() const
{
    if (const auto fault = fileFault(FileOperation::Open, m_path))
        return fileFailure("list", m_path, *fault);
    std::vector<NamedStatus> found;
    const SystemError error = listFolder(systemHandle(m_handle), found);
    if (error != ERROR_SUCCESS)
        return systemFailure("list", m_path, error);
    std::vector<FolderEntry> entries;
    entries.reserve(found.size());
    for (const NamedStatus& entry : found)
        entries.push_back(entryOf(toUtf8(entry.name), entry.status));
    return entries;
}

Expected<void> Folder::move(const std::string& name, const Folder& target,
                            const std::string& newName, Patience patience) const
{
    const fs::path path = m_path / fromUtf8(name);
    const fs::path newPath = target.m_path / fromUtf8(newName);
    const auto failed = [&](Error fault) -> tl::unexpected<Error> {
        fault.message += " (to " + toUtf8(newPath) + ")";
        return tl::unexpected(std::move(fault));
    };
    const auto code = [](bool missing) {
        return missing ? vlupd::NOT_FOUND : vlupd::SYSTEM_CALL_ERROR;
    };
    if (const auto fault = fileFault(FileOperation::Rename, newPath))
        return failed(fileFailure("move", path, *fault, code(*fault == ENOENT)).value());
    tellRename(path, newPath);
    const std::wstring oldName = wideName(name);
    const SystemError error = retriedWhile(isHeld, patience, [&] {
        SystemHandle entry;
        const SystemError opened = openItself(systemHandle(m_handle), oldName, toMove, entry);
        return opened != ERROR_SUCCESS
                   ? opened
                   : renameOpened(entry.get(), oldName, systemHandle(target.m_handle),
                                  wideName(newName));
    });
    if (error != ERROR_SUCCESS)
        return failed(heldFailure("move", path, error, code(isMissing(error))).value());
    return {};
}

Expected<void> Folder::removeFile(const std::string& name, Patience patience) const
{
    const fs::path path = m_path / fromUtf8(name);
    if (const auto fault = fileFault(FileOperation::Remove, path))
        return fileFailure("remove", path, *fault);
    const SystemError error = retriedWhile(isHeld, patience, [&] {
        SystemHandle entry;
        const SystemError opened =
            openItself(systemHandle(m_handle), wideName(name), toMove, entry);
        if (opened != ERROR_SUCCESS)
            return opened;
        return kindOf(entry.get()).isFolder() ? errorIsFolder : removeOpened(entry.get());
    });
    if (error == errorIsFolder)
        return fileFailure("remove", path, EISDIR);
    if (error != ERROR_SUCCESS && !isMissing(error))
        return heldFailure("remove", path, error);
    return {};
}

Expected<bool> Folder::removeFolder(const std::string& name, Patience patience) const
{
    const fs::path path = m_path / fromUtf8(name);
    if (const auto fault = fileFault(FileOperation::Remove, path))
        return fileFailure("remove", path, *fault);
    const SystemError error = retriedWhile(isHeld, patience, [&]() -> SystemError {
        SystemHandle entry;
        SystemError done = openItself(systemHandle(m_handle), wideName(name), toMove, entry);
        if (done != ERROR_SUCCESS)
            return done;
        if (!kindOf(entry.get()).isFolder())
            return ERROR_DIRECTORY;
        done = removeOpened(entry.get());
        const bool filled = done == ERROR_DIR_NOT_EMPTY;
        return filled && emptiesSoon(entry.get()) ? ERROR_DELETE_PENDING : done;
    });
    if (error == ERROR_SUCCESS || isMissing(error))
        return true;
    if (error == ERROR_DIR_NOT_EMPTY || error == ERROR_DIRECTORY)
        return false;
    return heldFailure("remove", path, error);
}

Expected<std::uint64_t> Folder::volume() const
{
    BY_HANDLE_FILE_INFORMATION information{};
    if (GetFileInformationByHandle(systemHandle(m_handle), &information) == 0)
        return systemFailure("look at", m_path, GetLastError());
    return std::uint64_t{information.dwVolumeSerialNumber};
}

} // namespace vl
