#include "vl/src/platform/ntfiles.h"

#include <cstddef>
#include <string_view>

namespace vl {

namespace {

// Numbers of the driver kit's headers.
constexpr auto statusDeletePending = static_cast<NTSTATUS>(0xC0000056);
constexpr auto statusFileIsADirectory = static_cast<NTSTATUS>(0xC00000BA);

std::uint64_t joined(DWORD high, DWORD low)
{
    return (std::uint64_t{high} << 32U) | low;
}

DWORD tagOf(HANDLE opened, DWORD attributes)
{
    FILE_ATTRIBUTE_TAG_INFO found{};
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        GetFileInformationByHandleEx(opened, FileAttributeTagInfo, &found, sizeof(found));
    return found.ReparseTag;
}

// A name in the form in which the system's own calls take it.
class ObjectName final
{
public:
    explicit ObjectName(HANDLE folder) { refer(folder); }
    ObjectName(HANDLE folder, const std::wstring& name) : m_name(name)
    {
        // The system's own prefix of a whole path.
        if (folder == nullptr && m_name.size() >= ntPrefix.size())
            m_name.replace(0, ntPrefix.size(), ntPrefix);
        m_isValid = m_name.size() <= longestName && (folder == nullptr || isComponent(m_name));
        refer(folder);
    }
    ObjectName(const ObjectName&) = delete;
    ObjectName& operator=(const ObjectName&) = delete;

    bool isValid() const { return m_isValid; }
    OBJECT_ATTRIBUTES* attributes() { return &m_attributes; }

private:
    static constexpr std::wstring_view ntPrefix = LR"(\??\)"; // as long as those of systemPath()
    static constexpr std::size_t longestName = 32767;

    void refer(HANDLE folder)
    {
        m_text.Buffer = m_name.data();
        m_text.Length = static_cast<USHORT>(m_name.size() * sizeof(wchar_t));
        m_text.MaximumLength = m_text.Length;
        InitializeObjectAttributes(&m_attributes, &m_text, OBJ_CASE_INSENSITIVE, folder, nullptr);
    }

    std::wstring m_name;
    UNICODE_STRING m_text{};
    OBJECT_ATTRIBUTES m_attributes{};
    bool m_isValid = true;
};

SystemError create(ObjectName&& object, const Opening& opening, ULONG options, SystemHandle& opened)
{
    if (!object.isValid())
        return ERROR_INVALID_NAME;
    HANDLE handle = nullptr;
    IO_STATUS_BLOCK io{};
    const NTSTATUS status =
        NtCreateFile(&handle, opening.access | SYNCHRONIZE, object.attributes(), &io, nullptr,
                     FILE_ATTRIBUTE_NORMAL, shareAll, opening.disposition,
                     opening.options | options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    opened.reset(status >= 0 ? handle : nullptr);
    return errorOf(status);
}

} // namespace

SystemError errorOf(NTSTATUS status)
{
    if (status >= 0)
        return ERROR_SUCCESS;
    // The system's own table takes these two for a lack of rights.
    if (status == statusDeletePending)
        return ERROR_DELETE_PENDING;
    if (status == statusFileIsADirectory)
        return errorIsFolder;
    return RtlNtStatusToDosError(status);
}

// A colon would open a stream of the file.
bool isComponent(std::wstring_view name)
{
    return !name.empty() && name != L"." && name != L".." &&
           name.find_first_of(std::wstring_view(L"\\/:\0", 4)) == std::wstring_view::npos;
}

SystemError openItself(HANDLE folder, const std::wstring& name, const Opening& opening,
                       SystemHandle& opened)
{
    return create(ObjectName(folder, name), opening, FILE_OPEN_REPARSE_POINT, opened);
}

SystemError openUnlessLink(HANDLE folder, const std::wstring& name, const Opening& opening,
                           SystemHandle& opened)
{
    if (const SystemError error = openItself(folder, name, opening, opened); error != ERROR_SUCCESS)
        return error;
    const EntryStatus status = kindOf(opened.get());
    if (status.isLink())
        return errorIsLink;
    // What a compressing or a cloud file system keeps behind such a point is the file itself.
    if ((status.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        return create(ObjectName(folder, name), opening, 0, opened);
    return ERROR_SUCCESS;
}

SystemError openFollowing(const std::wstring& path, const Opening& opening, SystemHandle& opened)
{
    return create(ObjectName(nullptr, path), opening, 0, opened);
}

SystemError statusOf(HANDLE folder, const std::wstring& name, EntryStatus& status)
{
    SystemHandle opened;
    constexpr Opening toLook{.access = FILE_READ_ATTRIBUTES};
    if (const SystemError error = openItself(folder, name, toLook, opened); error != ERROR_SUCCESS)
        return error;
    BY_HANDLE_FILE_INFORMATION found{};
    if (GetFileInformationByHandle(opened.get(), &found) == 0)
        return GetLastError();
    status.attributes = found.dwFileAttributes;
    status.tag = tagOf(opened.get(), status.attributes);
    status.size = joined(found.nFileSizeHigh, found.nFileSizeLow);
    status.written = static_cast<std::int64_t>(
        joined(found.ftLastWriteTime.dwHighDateTime, found.ftLastWriteTime.dwLowDateTime));
    return ERROR_SUCCESS;
}

EntryStatus kindOf(HANDLE opened)
{
    EntryStatus status;
    FILE_BASIC_INFO information{};
    if (GetFileInformationByHandleEx(opened, FileBasicInfo, &information, sizeof(information)) != 0)
        status.attributes = information.FileAttributes;
    status.tag = tagOf(opened, status.attributes);
    return status;
}

SystemError listFolder(HANDLE folder, std::vector<NamedStatus>& entries)
{
    // A handle of its own, because the position in the list belongs to the handle.
    SystemHandle list;
    if (const SystemError error = create(ObjectName(folder), toWorkIn, 0, list);
        error != ERROR_SUCCESS)
        return error;
    constexpr DWORD bufferSize = 64U << 10U; // servers give no more at once
    std::vector<std::byte> buffer(bufferSize);
    while (GetFileInformationByHandleEx(list.get(), FileFullDirectoryInfo, buffer.data(),
                                        bufferSize) != 0) {
        for (std::size_t at = 0, next = 1; next != 0; at += next) {
            const auto* found = reinterpret_cast<const FILE_FULL_DIR_INFO*>(buffer.data() + at);
            next = found->NextEntryOffset;
            const std::wstring_view name(found->FileName, found->FileNameLength / sizeof(wchar_t));
            if (name == L"." || name == L"..")
                continue;
            const EntryStatus status{
                .attributes = found->FileAttributes,
                .tag = found->EaSize, // that is, of a reparse point
                .size = static_cast<std::uint64_t>(found->EndOfFile.QuadPart),
                .written = found->LastWriteTime.QuadPart,
            };
            entries.push_back({std::wstring(name), status});
        }
    }
    // A volume's own folder has not even "." in it.
    const SystemError error = GetLastError();
    return error == ERROR_NO_MORE_FILES || error == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : error;
}

std::wstring finalPath(HANDLE opened, DWORD form)
{
    std::wstring path(GetFinalPathNameByHandleW(opened, nullptr, 0, form), L'\0');
    const auto room = static_cast<DWORD>(path.size());
    path.resize(GetFinalPathNameByHandleW(opened, path.data(), room, form));
    return path.size() < room ? path : std::wstring();
}

} // namespace vl
