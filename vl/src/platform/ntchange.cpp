#include "vl/src/platform/ntfiles.h"

#include <cstddef>
#include <cstring>

namespace vl {

namespace {

constexpr ULONG remoteDevice = 0x10; // FILE_REMOTE_DEVICE of the driver kit's headers
// The compiler's headers give FileDispositionInfoEx the number of another class.
constexpr auto dispositionInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);

bool isUnsupported(SystemError error)
{
    return error == ERROR_INVALID_FUNCTION || error == ERROR_NOT_SUPPORTED ||
           error == ERROR_INVALID_PARAMETER || error == ERROR_CALL_NOT_IMPLEMENTED;
}

SystemError rename(HANDLE opened, HANDLE folder, const std::wstring& name)
{
    const std::size_t bytes = name.size() * sizeof(wchar_t);
    std::vector<std::byte> buffer(sizeof(FILE_RENAME_INFORMATION) + bytes);
    auto* information = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
    information->ReplaceIfExists = FALSE;
    information->RootDirectory = folder;
    information->FileNameLength = static_cast<ULONG>(bytes);
    std::memcpy(information->FileName, name.data(), bytes);
    IO_STATUS_BLOCK io{};
    return errorOf(NtSetInformationFile(opened, &io, information, static_cast<ULONG>(buffer.size()),
                                        FileRenameInformation));
}

// Network file systems want the whole path; some take a relative one for one in the same folder.
bool isRemote(HANDLE opened)
{
    IO_STATUS_BLOCK io{};
    FILE_FS_DEVICE_INFORMATION device{};
    return NtQueryVolumeInformationFile(opened, &io, &device, sizeof(device),
                                        FileFsDeviceInformation) >= 0 &&
           (device.Characteristics & remoteDevice) != 0;
}

SystemError renameInto(HANDLE opened, HANDLE folder, const std::wstring& name)
{
    if (!isRemote(folder))
        if (const SystemError error = rename(opened, folder, name); !isUnsupported(error))
            return error;
    std::wstring path = finalPath(folder);
    if (path.empty())
        return ERROR_NOT_SUPPORTED;
    path[1] = L'?'; // the system's own prefix of a whole path
    return rename(opened, nullptr, path + L'\\' + name);
}

void setAttributes(HANDLE opened, DWORD attributes)
{
    FILE_BASIC_INFO information{}; // a time of 0 stays
    information.FileAttributes = attributes | FILE_ATTRIBUTE_NORMAL;
    SetFileInformationByHandle(opened, FileBasicInfo, &information, sizeof(information));
}

bool differInCase(const std::wstring& name, const std::wstring& other)
{
    return name != other &&
           CompareStringOrdinal(name.c_str(), -1, other.c_str(), -1, TRUE) == CSTR_EQUAL;
}

bool hasOtherName(HANDLE opened, const std::wstring& name)
{
    const std::wstring path = finalPath(opened);
    return !path.empty() && !path.ends_with(L'\\' + name);
}

} // namespace

SystemError renameOpened(HANDLE opened, const std::wstring& oldName, HANDLE folder,
                         const std::wstring& name)
{
    if (!isComponent(name))
        return ERROR_INVALID_NAME;
    SystemError error = renameInto(opened, folder, name);
    const DWORD attributes = error == ERROR_ACCESS_DENIED ? kindOf(opened).attributes : 0;
    constexpr DWORD readOnly = FILE_ATTRIBUTE_READONLY;
    if ((attributes & (readOnly | FILE_ATTRIBUTE_DIRECTORY)) == readOnly) {
        // Some servers do not rename read-only files.
        setAttributes(opened, attributes & ~readOnly);
        error = renameInto(opened, folder, name);
        setAttributes(opened, attributes);
    }
    // Wine sees no change in one of case alone.
    if (error == ERROR_SUCCESS && differInCase(oldName, name) && hasOtherName(opened, name)) {
        error = renameInto(opened, folder, name + L".vl-case");
        if (error == ERROR_SUCCESS)
            error = renameInto(opened, folder, name);
    }
    return error;
}

SystemError removeOpened(HANDLE opened)
{
    FILE_DISPOSITION_INFO_EX flags{FILE_DISPOSITION_FLAG_DELETE |
                                   FILE_DISPOSITION_FLAG_POSIX_SEMANTICS |
                                   FILE_DISPOSITION_FLAG_IGNORE_READONLY_ATTRIBUTE};
    if (SetFileInformationByHandle(opened, dispositionInfoEx, &flags, sizeof(flags)) != 0)
        return ERROR_SUCCESS;
    if (const SystemError error = GetLastError(); !isUnsupported(error))
        return error;
    const DWORD attributes = kindOf(opened).attributes;
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0)
        setAttributes(opened, attributes & ~DWORD{FILE_ATTRIBUTE_READONLY});
    FILE_DISPOSITION_INFO removal{TRUE};
    return SetFileInformationByHandle(opened, FileDispositionInfo, &removal, sizeof(removal)) != 0
               ? ERROR_SUCCESS
               : GetLastError();
}

} // namespace vl
