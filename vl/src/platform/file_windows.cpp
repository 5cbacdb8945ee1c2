#include "vl/src/platform/file.h"
#include "vl/src/platform/fileerror.h"
#include "vl/src/platform/fileobserver.h"
#include "vl/src/platform/ntfiles.h"

#include <windows.h>
#include <winternl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace fs = std::filesystem;

namespace vl {

namespace {

// A call counts its bytes in 32 bits.
constexpr std::size_t longestTransfer = 1U << 30U;

OVERLAPPED positionOf(std::uint64_t offset)
{
    OVERLAPPED position{};
    position.Offset = static_cast<DWORD>(offset);
    position.OffsetHigh = static_cast<DWORD>(offset >> 32U);
    return position;
}

Opening openingFor(File::Mode mode)
{
    Opening opening{.access = FILE_GENERIC_READ, .options = FILE_NON_DIRECTORY_FILE};
    if (mode == File::Mode::Read)
        return opening;
    opening.access |= FILE_GENERIC_WRITE;
    opening.disposition = mode == File::Mode::Create ? FILE_CREATE : FILE_OPEN_IF;
    return opening;
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

Expected<File> File::open(const fs::path& path, Mode mode, std::uint32_t permissions)
{
    return openIn(closedHandle, systemPath(path), path, mode, permissions);
}

// Rights are inherited from the folder, and what can be executed is told by the name: the
// permissions say nothing here.
Expected<File> File::openIn(std::intptr_t folder, const fs::path& name, const fs::path& path,
                            Mode mode, std::uint32_t /*permissions*/)
{
    const auto failed = [&](auto fail, auto error, bool missing) {
        return fail(mode == Mode::Create ? "create" : "open", path, error,
                    mode == Mode::Read && missing ? vlupd::NOT_FOUND : vlupd::SYSTEM_CALL_ERROR);
    };
    if (const auto fault = fileFault(FileOperation::Open, path))
        return failed(fileFailure, *fault, *fault == ENOENT);
    HANDLE parent = folder == closedHandle ? nullptr : systemHandle(folder);
    SystemHandle opened;
    const SystemError error = retriedWhile(isShut, Patience::Usual, [&] {
        return openUnlessLink(parent, name.native(), openingFor(mode), opened);
    });
    if (error == errorIsFolder || error == errorIsLink)
        return failure(vlupd::SYSTEM_CALL_ERROR,
                       "cannot open " + toUtf8(path) + ": not a regular file");
    if (error != ERROR_SUCCESS)
        return failed(systemFailure, error, isMissing(error));
    File file;
    file.m_handle = reinterpret_cast<std::intptr_t>(opened.release());
    file.m_path = path;
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

// There is no such hint; the system begins by itself after a second.
void File::startWriteback(std::uint64_t /*offset*/, std::uint64_t /*size*/) {}

// The system flushes whole files only, so the first range of one takes the longest.
Expected<void> File::flushRange(std::uint64_t /*offset*/, std::uint64_t /*size*/) const
{
    if (const auto fault = fileFault(FileOperation::Sync, m_path))
        return fileFailure("flush", m_path, *fault);
    if (writeOut(systemHandle(m_handle)) || FlushFileBuffers(systemHandle(m_handle)) != 0)
        return {};
    const SystemError error = GetLastError();
    // There is nothing more to do on a volume that flushes no files.
    if (error == ERROR_INVALID_FUNCTION || error == ERROR_NOT_SUPPORTED ||
        error == ERROR_ACCESS_DENIED)
        return {};
    return systemFailure("flush", m_path, error);
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
    tellRename(from, to);
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
    auto flushed = syncDirectory(path);
    if (flushed)
        tellVolumeFlushed(path);
    return flushed;
}

bool syncVolumeWritesContents()
{
    return false;
}

} // namespace vl
