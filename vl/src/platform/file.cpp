#include "vl/src/platform/file.h"

#include "vl/src/platform/fileerror.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace vl {

namespace {

constexpr std::string_view temporarySuffix = ".vl-tmp";

std::function<std::optional<int>(FileOperation, const fs::path&)>& faultSeam()
{
    static std::function<std::optional<int>(FileOperation, const fs::path&)> seam;
    return seam;
}

// Beside the file, so that the rename stays on one volume; unique, because readers of a root
// without its lock save documents too.
fs::path temporaryBeside(const fs::path& path)
{
    static std::atomic<unsigned> counter{0};
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    return path.parent_path() /
           fromUtf8("." + toUtf8(path.filename()) + "." + std::to_string(stamp) + "-" +
                    std::to_string(counter++) + std::string(temporarySuffix));
}

// A full disk is a system failure like any other; everything else means the folder cannot be.
tl::unexpected<Error> folderFailure(const fs::path& path, int error)
{
    const bool full = error == ENOSPC || error == EDQUOT;
    return fileFailure("make folder", path, error,
                       full ? vlupd::SYSTEM_CALL_ERROR : vlupd::CREATE_DIR_ERROR);
}

FileKind kindOf(fs::file_type type)
{
    if (type == fs::file_type::regular)
        return FileKind::File;
    return type == fs::file_type::directory ? FileKind::Directory : FileKind::Other;
}

Expected<void> listInto(const fs::path& directory, const std::string& prefix,
                        std::vector<TreeEntry>& entries)
{
    auto listed = listDirectory(directory);
    if (!listed)
        return tl::unexpected(std::move(listed).error());
    for (TreeEntry& entry : *listed) {
        const fs::path path = directory / fromUtf8(entry.path);
        entries.push_back({prefix + entry.path, entry.info});
        if (entry.info.kind != FileKind::Directory)
            continue;
        if (auto below = listInto(path, prefix + entry.path + "/", entries); !below)
            return below;
    }
    return {};
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

void setFileFault(std::function<std::optional<int>(FileOperation, const fs::path&)> fault)
{
    faultSeam() = std::move(fault);
}

std::optional<int> fileFault(FileOperation operation, const fs::path& path)
{
    return faultSeam() ? faultSeam()(operation, path) : std::nullopt;
}

tl::unexpected<Error> fileFailure(const char* what, const fs::path& path, int error,
                                  vlupd::UPD_RESULT code)
{
    return failure(code,
                   std::string("cannot ") + what + " " + toUtf8(path) + ": " + systemReason(error));
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

Expected<std::vector<TreeEntry>> listTree(const fs::path& path)
{
    std::vector<TreeEntry> entries;
    if (auto listed = listInto(path, {}, entries); !listed)
        return tl::unexpected(std::move(listed).error());
    return entries;
}

Expected<std::string> readWholeFile(const fs::path& path, std::uint64_t maxSize)
{
    auto file = File::open(path, File::Mode::Read);
    if (!file)
        return tl::unexpected(std::move(file).error());
    const auto size = file->size();
    if (!size)
        return tl::unexpected(size.error());
    if (*size > maxSize)
        return failure(vlupd::CONTENT_LEN_ERROR,
                       "cannot read " + toUtf8(path) + ": it has " + std::to_string(*size) +
                           " bytes, more than the allowed " + std::to_string(maxSize));
    std::string text(static_cast<std::size_t>(*size), '\0');
    const auto read = file->readAt(0, std::as_writable_bytes(std::span(text)));
    if (!read)
        return tl::unexpected(read.error());
    text.resize(*read);
    return text;
}

Expected<void> writeWholeFile(const fs::path& path, std::string_view text)
{
    const fs::path temporary = temporaryBeside(path);
    Expected<void> done;
    {
        auto file = File::open(temporary, File::Mode::Create);
        if (!file)
            return tl::unexpected(std::move(file).error());
        done = file->writeAt(0, std::as_bytes(std::span(text)));
        if (done)
            done = file->sync();
    }
    if (done)
        done = renameReplacing(temporary, path);
    if (!done) {
        (void)removeFile(temporary); // best effort: cleaned up later by its name otherwise
        return done;
    }
    return syncDirectory(path.parent_path());
}

bool isTemporaryName(std::string_view name)
{
    return name.starts_with('.') && name.ends_with(temporarySuffix);
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

Expected<void> removeFile(const fs::path& path)
{
    if (const auto fault = fileFault(FileOperation::Remove, path))
        return fileFailure("remove", path, *fault);
    std::error_code error;
    fs::remove(path, error);
    if (error == std::errc::permission_denied || error == std::errc::operation_not_permitted) {
        // A read-only file (Windows) or its read-only folder (POSIX) stands in the way.
        std::error_code ignored;
        fs::permissions(path, fs::perms::owner_write,
                        fs::perm_options::add | fs::perm_options::nofollow, ignored);
        fs::permissions(path.parent_path(), fs::perms::owner_all, fs::perm_options::add, ignored);
        fs::remove(path, error);
    }
    if (error)
        return fileFailure("remove", path, error.value());
    return {};
}

Expected<void> removeTree(const fs::path& path)
{
    const auto info = fileInfo(path);
    if (!info)
        return tl::unexpected(info.error());
    if (!*info)
        return {};
    if ((*info)->kind == FileKind::Directory) {
        std::error_code error;
        fs::directory_iterator iterator(path, error);
        if (error == std::errc::permission_denied) {
            fs::permissions(path, fs::perms::owner_all, fs::perm_options::add, error);
            iterator = fs::directory_iterator(path, error);
        }
        std::vector<fs::path> children;
        for (; !error && iterator != fs::directory_iterator(); iterator.increment(error))
            children.push_back(iterator->path());
        if (error)
            return fileFailure("list", path, error.value());
        for (const fs::path& child : children)
            if (auto removed = removeTree(child); !removed)
                return removed;
    }
    return removeFile(path);
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
