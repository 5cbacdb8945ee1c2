#include "vl/src/install/programfiles.h"

#include <string>
#include <system_error>

namespace vl {

ProgramFiles programFilesOf(const Manifest& manifest, const Folder& folder,
                            const FolderListing& listing)
{
    ProgramFiles files;
    std::error_code error;
    files.folder = std::filesystem::canonical(folder.path(), error);
    for (const ManifestFile& file : manifest.files) {
        const ListedEntry* listed = listing.find(file.path);
        if (listed == nullptr || listed->entry.kind != FileKind::File)
            continue;
        if (listed->entry.id == FileId())
            files.byPath.emplace(pathKey(file.path), file.path);
        else
            files.byId.emplace(listed->entry.id, file.path);
    }
    return files;
}

ProgramFiles programFilesIn(const std::filesystem::path& aside, const Manifest& manifest,
                            const std::vector<FileNumber>& programs,
                            const std::vector<FileNumber>& out)
{
    ProgramFiles files;
    std::error_code error;
    files.folder = std::filesystem::canonical(aside, error);
    for (const auto* numbers : {&programs, &out})
        for (const FileNumber number : *numbers)
            files.byPath.emplace(pathKey(std::to_string(number)), manifest.files[number].path);
    return files;
}

std::string describe(const RunningProgram& program)
{
    return program.path + " (process " + std::to_string(program.process) + ")";
}

} // namespace vl
