#include "vl/src/platform/file.h"
#include "vl/src/platform/fileerror.h"
#include "vl/src/platform/windowssystem.h"

#include <windows.h>
#include <winioctl.h>
#include <winternl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace fs = std::filesystem;

namespace vl {

namespace {

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
// A call counts its bytes in 32 bits.
constexpr std::size_t longestTransfer = 1U << 30U;

HANDLE systemHandle(std::intptr_t handle)
{
    return reinterpret_cast<HANDLE>(handle);
}

OVERLAPPED positionOf(std::uint64_t offset)
{
    OVERLAPPED position{};
    position.Offset = static_cast<DWORD>(offset);
    position.OffsetHigh = static_cast<DWORD>(offset >> 32U);
    return position;
}

DWORD accessFor(File::Mode mode)
{
    return mode == File::Mode::Read ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE;
}

DWORD dispositionFor(File::Mode mode)
{
    switch (mode) {
    case File::Mode::Read:
        return OPEN_EXISTING;
    case File::Mode::ReadWrite:
        return OPEN_ALWAYS;
    case File::Mode::Create:
        return CREATE_NEW;
    }
    return OPEN_EXISTING;
}

// A scanner that has the file to itself goes away again; a right that is lacking does not come.
bool isShut(SystemError error)
{
    return error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION;
}

// Writes what the system keeps of a file, but does not make the disk empty its own memory: many
// files need that only once. False where the system cannot.
bool writeOut(HANDLE file)
{
    using Flush = NTSTATUS(NTAPI*)(HANDLE, ULONG, void*, ULONG, IO_STATUS_BLOCK*);
    static const auto flush = reinterpret_cast<Flush>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtFlushBuffersFileEx")));
    constexpr ULONG noSync = 2; // FLUSH_FLAGS_NO_SYNC of the driver kit's headers
    IO_STATUS_BLOCK status{};
    return flush != nullptr && flush(file, noSync, nullptr, 0, &status) >= 0;
}

SystemError openHandle(const std::wstring& name, File::Mode mode, DWORD flags,
                       std::intptr_t& handle)
{
    return retriedWhile(isShut, Patience::Usual, [&]() -> SystemError {
        // Others may read, write, rename and remove the file meanwhile, as they may elsewhere;
        // children do not inherit the handle.
        HANDLE opened = CreateFileW(name.c_str(), accessFor(mode), shareAll, nullptr,
                                    dispositionFor(mode), FILE_ATTRIBUTE_NORMAL | flags, nullptr);
        handle = reinterpret_cast<std::intptr_t>(opened);
        return opened != INVALID_HANDLE_VALUE ? ERROR_SUCCESS : GetLastError();
    });
}

} // namespace

File::~File()
{
    if (isOpen())
        CloseHandle(systemHandle(m_handle));
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

// Rights are inherited from the folder, and what can be executed is told by the name: the
// permissions say nothing here.
Expected<File> File::open(const fs::path& path, Mode mode, std::uint32_t /*permissions*/)
{
    const auto failed = [&](auto fail, auto error, bool missing) {
        return fail(mode == Mode::Create ? "create" : "open", path, error,
                    mode == Mode::Read && missing ? vlupd::NOT_FOUND : vlupd::SYSTEM_CALL_ERROR);
    };
    const auto notRegular = [&] {
        return failure(vlupd::SYSTEM_CALL_ERROR,
                       "cannot open " + toUtf8(path) + ": not a regular file");
    };
    if (const auto fault = fileFault(FileOperation::Open, path))
        return failed(fileFailure, *fault, *fault == ENOENT);
    const std::wstring name = systemPath(path);
    File file;
    file.m_path = path;
    SystemError error = openHandle(name, mode, FILE_FLAG_OPEN_REPARSE_POINT, file.m_handle);
    if (error == ERROR_SUCCESS) {
        FILE_ATTRIBUTE_TAG_INFO tag{};
        GetFileInformationByHandleEx(systemHandle(file.m_handle), FileAttributeTagInfo, &tag,
                                     sizeof(tag));
        if (isLink(tag.FileAttributes, tag.ReparseTag))
            return notRegular();
        // What a compressing or a cloud file system keeps behind such a point is the file itself.
        if ((tag.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
            CloseHandle(systemHandle(file.m_handle));
            error = openHandle(name, mode, 0, file.m_handle);
        }
    }
    if (error == ERROR_ACCESS_DENIED)
        if (const auto info = fileInfo(path); info && *info && (*info)->kind != FileKind::File)
            return notRegular();
    if (error != ERROR_SUCCESS)
        return failed(systemFailure, error, isMissing(error));
    return file;
}

Expected<std::uint64_t> File::size() const
{
    LARGE_INTEGER size{};
    if (GetFileSizeEx(systemHandle(m_handle), &size) == 0)
        return systemFailure("look at", m_path, GetLastError());
    return static_cast<std::uint64_t>(size.QuadPart);
}

Expected<std::size_t> File::readAt(std::uint64_t offset, std::span<std::byte> bytes) const
{
    if (const auto fault = fileFault(FileOperation::Read, m_path))
        return fileFailure("read", m_path, *fault);
    std::size_t done = 0;
    while (done < bytes.size()) {
        OVERLAPPED position = positionOf(offset + done);
        DWORD count = 0;
        const auto wanted = static_cast<DWORD>(std::min(bytes.size() - done, longestTransfer));
        if (ReadFile(systemHandle(m_handle), bytes.data() + done, wanted, &count, &position) == 0) {
            const SystemError error = GetLastError();
            if (error != ERROR_HANDLE_EOF)
                return systemFailure("read", m_path, error);
            count = 0;
        }
        if (count == 0)
            break;
        done += count;
    }
    return done;
}

Expected<void> File::writeAt(std::uint64_t offset, std::span<const std::byte> bytes)
{
    if (const auto fault = fileFault(FileOperation::Write, m_path))
        return fileFailure("write", m_path, *fault);
    std::size_t done = 0;
    while (done < bytes.size()) {
        OVERLAPPED position = positionOf(offset + done);
        DWORD count = 0;
        const auto wanted = static_cast<DWORD>(std::min(bytes.size() - done, longestTransfer));
        if (WriteFile(systemHandle(m_handle), bytes.data() + done, wanted, &count, &position) == 0)
            return systemFailure("write", m_path, GetLastError());
        done += count;
    }
    return {};
}

Expected<void> File::truncate(std::uint64_t size)
{
    if (const auto fault = fileFault(FileOperation::Truncate, m_path))
        return fileFailure("cut", m_path, *fault);
    FILE_END_OF_FILE_INFO end{};
    end.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
    if (SetFileInformationByHandle(systemHandle(m_handle), FileEndOfFileInfo, &end, sizeof(end)) ==
        0)
        return systemFailure("cut", m_path, GetLastError());
    return {};
}

// NTFS cannot share bytes between files.
bool File::cloneFrom(const File& /*source*/)
{
    return false;
}

void File::allowHoles()
{
    DWORD unused = 0;
    DeviceIoControl(systemHandle(m_handle), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &unused,
                    nullptr);
}

// There is no such hint; the system begins by itself after a second.
void File::startWriteback(std::uint64_t /*offset*/, std::uint64_t /*size*/) {}

// The system flushes whole files only, so the first range of one takes the longest. It asks for
// the right to write, which a file opened for reading lacks.
Expected<void> File::flushRange(std::uint64_t /*offset*/, std::uint64_t /*size*/) const
{
    if (const auto fault = fileFault(FileOperation::Sync, m_path))
        return fileFailure("flush", m_path, *fault);
    HANDLE writable = INVALID_HANDLE_VALUE;
    SystemError error = retriedWhile(isShut, Patience::Usual, [&]() -> SystemError {
        writable = ReOpenFile(systemHandle(m_handle), GENERIC_WRITE, shareAll, 0);
        return writable != INVALID_HANDLE_VALUE ? ERROR_SUCCESS : GetLastError();
    });
    if (error != ERROR_SUCCESS)
        return systemFailure("flush", m_path, error);
    if (!writeOut(writable) && FlushFileBuffers(writable) == 0)
        error = GetLastError();
    CloseHandle(writable);
    if (error != ERROR_SUCCESS)
        return systemFailure("flush", m_path, error);
    return {};
}

Expected<void> File::sync()
{
    if (const auto fault = fileFault(FileOperation::Sync, m_path))
        return fileFailure("flush", m_path, *fault);
    if (FlushFileBuffers(systemHandle(m_handle)) == 0)
        return systemFailure("flush", m_path, GetLastError());
    return {};
}

// NTFS writes the change of names to its journal as one transaction: after a power loss the name
// stands for the old file or for the new one.
Expected<void> renameReplacing(const fs::path& from, const fs::path& to, Patience patience)
{
    if (const auto fault = fileFault(FileOperation::Rename, to))
        return fileFailure("rename to", to, *fault);
    const std::wstring source = systemPath(from);
    const std::wstring target = systemPath(to);
    const SystemError error = retriedWhile(isHeld, patience, [&]() -> SystemError {
        allowWriting(target);
        return MoveFileExW(source.c_str(), target.c_str(),
                           MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0
                   ? ERROR_SUCCESS
                   : GetLastError();
    });
    if (error != ERROR_SUCCESS)
        return systemFailure("rename to", to, error);
    return {};
}

// Names are in the journal of NTFS, which is written in order: flushing any one handle brings all
// earlier changes of names to the disk. Other file systems may refuse to flush a folder; there is
// nothing more to do then.
Expected<void> syncDirectory(const fs::path& path)
{
    if (const auto fault = fileFault(FileOperation::Sync, path))
        return fileFailure("flush", path, *fault);
    HANDLE opened = CreateFileW(systemPath(path).c_str(), GENERIC_WRITE, shareAll, nullptr,
                                OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (opened == INVALID_HANDLE_VALUE) {
        const SystemError error = GetLastError();
        return isMissing(error) ? systemFailure("flush", path, error) : Expected<void>();
    }
    FlushFileBuffers(opened);
    CloseHandle(opened);
    return {};
}

// Flushing a whole volume is an administrator's right. The contents have been flushed file by
// file, so the names are all that is left.
Expected<void> syncVolume(const fs::path& path)
{
    return syncDirectory(path);
}

bool syncVolumeWritesContents()
{
    return false;
}

} // namespace vl
