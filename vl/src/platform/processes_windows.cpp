#include "vl/src/platform/processes.h"
#include "vl/src/platform/windowsprocess.h"

#include <restartmanager.h>
#include <tlhelp32.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace fs = std::filesystem;

namespace vl {

namespace {

// The key of a path, "/" separators, without the links and short names in it; empty where it cannot
// be opened.
std::string finalKey(const fs::path& path, DWORD form = VOLUME_NAME_DOS)
{
    SystemHandle opened;
    constexpr Opening toLook{.access = FILE_READ_ATTRIBUTES};
    if (openFollowing(systemPath(path), toLook, opened) != ERROR_SUCCESS)
        return {};
    return pathKey(toUtf8(finalPath(opened.get(), form)));
}

std::string plainKey(const fs::path& path)
{
    return pathKey(toUtf8(systemPath(path)));
}

// The listed files under all the names that processes have for them.
class ListedFiles final
{
public:
    explicit ListedFiles(const ProgramFiles& files)
        : m_files(files), m_folders{plainKey(files.folder), finalKey(files.folder),
                                    finalKey(files.folder, VOLUME_NAME_NT)}
    {
        // "/DEVICE/HARDDISKVOLUME1/"
        const std::string& native = m_folders.back();
        constexpr auto devices = std::string_view("/DEVICE/").size();
        const std::size_t end = native.find('/', std::min(native.size(), devices));
        if (end != std::string::npos)
            m_volume = native.substr(0, end + 1);
    }

    std::optional<std::string> find(const fs::path& path) const
    {
        auto found = findKey(plainKey(path));
        return found ? found : findKey(finalKey(path));
    }

    std::optional<std::string> findImageOf(HANDLE process) const
    {
        // The path at the process's begin; the file may have been renamed since.
        const std::string began = pathKey(toUtf8(imageOf(process, PROCESS_NAME_NATIVE)));
        if (auto found = findKey(began))
            return found;
        const fs::path image = imageOf(process);
        // A server that is away would be waited for.
        return began.starts_with(m_volume) ? find(image) : findKey(plainKey(image));
    }

private:
    std::optional<std::string> findKey(const std::string& key) const
    {
        for (const std::string& folder : m_folders) {
            if (folder.empty() || !key.starts_with(folder + "/"))
                continue;
            const auto found = m_files.byPath.find(key.substr(folder.size() + 1));
            if (found != m_files.byPath.end())
                return found->second;
        }
        return std::nullopt;
    }

    const ProgramFiles& m_files;
    std::array<std::string, 3> m_folders;
    std::string m_volume;
};

bool isCommandProcessor(const fs::path& image)
{
    const auto isIn = [&](UINT(WINAPI * ask)(wchar_t*, UINT)) {
        std::array<wchar_t, MAX_PATH> folder{};
        const UINT length = ask(folder.data(), static_cast<UINT>(folder.size()));
        return length != 0 && length < folder.size() &&
               plainKey(image) == plainKey(fs::path(folder.data()) / L"cmd.exe");
    };
    return isIn(GetSystemDirectoryW) || isIn(GetSystemWow64DirectoryW);
}

bool isBatchFile(const fs::path& path)
{
    const std::string extension = pathKey(toUtf8(path.extension()));
    return path.is_absolute() && (extension == ".BAT" || extension == ".CMD");
}

std::optional<std::string> listedProgramOf(DWORD id, const ListedFiles& files)
{
    const SystemHandle process = openProcess(id);
    if (!process)
        return std::nullopt;
    if (auto found = files.findImageOf(process.get()))
        return found;
    if (!isCommandProcessor(imageOf(process.get())))
        return std::nullopt;
    for (const fs::path& argument : argumentsOf(id))
        if (isBatchFile(argument))
            if (auto found = files.find(argument))
                return found;
    return std::nullopt;
}

std::string nameOf(const RM_PROCESS_INFO& holder)
{
    const DWORD id = holder.Process.dwProcessId;
    const fs::path image = imageOf(openProcess(id).get());
    return toUtf8(image.empty() ? fs::path(holder.strAppName) : image.filename()) + " (process " +
           std::to_string(id) + ")";
}

// The processes that a session of the Restart Manager knows to hold its files.
std::vector<RM_PROCESS_INFO> holdersIn(DWORD session)
{
    std::vector<RM_PROCESS_INFO> holders(16);
    for (int attempt = 0; attempt < 3; ++attempt) { // processes come and go meanwhile
        UINT needed = 0;
        auto count = static_cast<UINT>(holders.size());
        DWORD reasons = 0;
        const DWORD error = RmGetList(session, &needed, &count, holders.data(), &reasons);
        if (error == ERROR_SUCCESS) {
            holders.resize(count);
            return holders;
        }
        if (error != ERROR_MORE_DATA)
            break;
        holders.resize(needed + 16);
    }
    return {};
}

} // namespace

std::optional<RunningProgram> findRunning(const ProgramFiles& files)
{
    HANDLE taken = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (taken == INVALID_HANDLE_VALUE)
        return std::nullopt;
    const SystemHandle snapshot(taken);
    const ListedFiles listed(files);
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32FirstW(snapshot.get(), &entry); more != 0;
         more = Process32NextW(snapshot.get(), &entry))
        if (auto path = listedProgramOf(entry.th32ProcessID, listed))
            return RunningProgram{*path, entry.th32ProcessID};
    return std::nullopt;
}

std::string holdersOf(const fs::path& path)
{
    DWORD session = 0;
    std::array<wchar_t, CCH_RM_SESSION_KEY + 1> key{};
    if (RmStartSession(&session, 0, key.data()) != ERROR_SUCCESS)
        return {};
    const std::wstring name =
        path.native().size() < MAX_PATH ? absolutePath(path).native() : systemPath(path);
    const wchar_t* names[] = {name.c_str()};
    std::string holders;
    if (RmRegisterResources(session, 1, names, 0, nullptr, 0, nullptr) == ERROR_SUCCESS)
        for (const RM_PROCESS_INFO& holder : holdersIn(session))
            holders += (holders.empty() ? "" : ", ") + nameOf(holder);
    RmEndSession(session);
    return holders;
}

} // namespace vl
