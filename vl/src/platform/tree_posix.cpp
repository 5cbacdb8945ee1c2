#include "vl/src/platform/file.h"
#include "vl/src/platform/fileerror.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace fs = std::filesystem;

namespace vl {

namespace {

FileKind kindOf(fs::file_type type)
{
    if (type == fs::file_type::regular)
        return FileKind::File;
    return type == fs::file_type::directory ? FileKind::Directory : FileKind::Other;
}

// A full disk is a system failure like any other; everything else means the folder cannot be.
tl::unexpected<Error> folderFailure(const fs::path& path, int error)
{
    const bool full = error == ENOSPC || error == EDQUOT;
    return fileFailure("make folder", path, error,
                       full ? vlupd::SYSTEM_CALL_ERROR : vlupd::CREATE_DIR_ERROR);
}

} // namespace

std::string toUtf8(const fs::path& path)
{
    const std::u8string text = path.generic_u8string();
    return {text.begin(), text.end()};
}

fs::path fromUtf8(std::string_view text)
{
    return {std::u8string(text.begin(), text.end())};
}

std::string pathKey(std::string_view path)
{
    return std::string(path);
}

fs::path absolutePath(const fs::path& path)
{
    std::error_code error;
    const fs::path absolute = fs::absolute(path, error);
    return error ? path : absolute.lexically_normal();
}

Expected<std::optional<FileInfo>> fileInfo(const fs::path& path)
{
    std::error_code error;
    const fs::file_status status = fs::symlink_status(path, error);
    if (status.type() == fs::file_type::not_found)
        return std::nullopt;
    FileInfo info;
    if (status.type() != fs::file_type::none)
        info.kind = kindOf(status.type());
    if (info.kind == FileKind::File) {
        info.size = fs::file_size(path, error);
        if (!error)
            info.modified = fs::last_write_time(path, error);
    }
    if (status.type() == fs::file_type::none || error)
        return fileFailure("look at", path, error.value());
    return info;
}

Expected<std::vector<TreeEntry>> listDirectory(const fs::path& path)
{
    std::vector<TreeEntry> entries;
    std::error_code error;
    fs::directory_iterator iterator(path, error);
    if (error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory)
        return entries;
    for (; !error && iterator != fs::directory_iterator(); iterator.increment(error)) {
        const auto info = fileInfo(iterator->path());
        if (!info)
            return tl::unexpected(info.error());
        if (*info) // else it was removed meanwhile
            entries.push_back({toUtf8(iterator->path().filename()), **info});
    }
    if (error)
        return fileFailure("list", path, error.value());
    return entries;
}

Expected<void> makeDirectories(const fs::path& path)
{
    if (const auto fault = fileFault(FileOperation::MakeDirectory, path))
        return folderFailure(path, *fault);
    std::error_code error;
    fs::create_directories(path, error);
    if (!error && !fs::is_directory(path, error) && !error)
        error = std::make_error_code(std::errc::not_a_directory);
    if (error)
        return folderFailure(path, error.value());
    return {};
}

Expected<void> removeFile(const fs::path& path, Patience /*patience*/)
{
    if (const auto fault = fileFault(FileOperation::Remove, path))
        return fileFailure("remove", path, *fault);
    std::error_code error;
    fs::remove(path, error);
    if (error == std::errc::permission_denied || error == std::errc::operation_not_permitted) {
        // Its read-only folder stands in the way.
        std::error_code ignored;
        fs::permissions(path.parent_path(), fs::perms::owner_all, fs::perm_options::add, ignored);
        fs::remove(path, error);
    }
    if (error)
        return fileFailure("remove", path, error.value());
    return {};
}

Expected<std::uint64_t> freeSpace(const fs::path& path)
{
    if (fileFault(FileOperation::FreeSpace, path))
        return std::uint64_t{0};
    std::error_code error;
    const fs::space_info space = fs::space(path, error);
    if (error)
        return fileFailure("ask for the free space of", path, error.value());
    return static_cast<std::uint64_t>(space.available);
}

} // namespace vl
