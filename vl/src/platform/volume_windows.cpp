#include "vl/src/platform/fileerror.h"
#include "vl/src/platform/folder.h"
#include "vl/src/platform/ntfiles.h"

#include <string_view>

namespace vl {

Expected<Volume> volumeOf(const std::filesystem::path& folder)
{
    const auto failed = [&](SystemError error) {
        return systemFailure("ask for the free space of", folder, error);
    };
    const std::wstring name = systemPath(folder);
    ULARGE_INTEGER available{};
    if (GetDiskFreeSpaceExW(name.c_str(), &available, nullptr, nullptr) == 0)
        return failed(GetLastError());
    DWORD sectors = 0;
    DWORD sectorSize = 0;
    DWORD unused = 0;
    if (GetDiskFreeSpaceW(name.c_str(), &sectors, &sectorSize, &unused, &unused) == 0)
        return failed(GetLastError());
    Volume volume;
    volume.clusterSize = std::uint64_t{sectors} * sectorSize;
    if (!fileFault(FileOperation::FreeSpace, folder))
        volume.freeBytes = available.QuadPart;
    SystemHandle opened;
    wchar_t system[MAX_PATH + 1] = L"";
    if (openFollowing(name, toWorkIn, opened) == ERROR_SUCCESS &&
        GetVolumeInformationByHandleW(opened.get(), nullptr, 0, nullptr, nullptr, nullptr, system,
                                      MAX_PATH + 1) != 0 &&
        std::wstring_view(system).starts_with(L"FAT"))
        volume.largestFile = UINT32_MAX; // not of exFAT
    return volume;
}

} // namespace vl
