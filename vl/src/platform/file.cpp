#include "vl/src/platform/file.h"

#include "vl/src/platform/fileerror.h"
#include "vl/src/platform/fileobserver.h"

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

std::atomic<std::chrono::milliseconds>& longPatience()
{
    static std::atomic<std::chrono::milliseconds> time{std::chrono::minutes(1)};
    return time;
}

FileObserver& observerSeam()
{
    static FileObserver seam;
    return seam;
}

// Beside the file, so that the rename stays on one volume; unique, because readers of a root
// without its lock save documents too.
fs::path temporaryBeside(const fs::path& path)
{
    static std::atomic<unsigned> counter{0};
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    return path.parent_path() /
           fromUtf8(std::string(".") + toUtf8(path.filename()) + "." + std::to_string(stamp) + "-" +
                    std::to_string(counter++) + std::string(temporarySuffix));
}

// Takes what kind of thing lies at `path` from its listing: a link is removed, not followed.
Expected<void> removeEntry(const fs::path& path, FileKind kind, Patience patience,
                           std::chrono::steady_clock::time_point until)
{
    if (std::chrono::steady_clock::now() >= until)
        return failure(vlupd::SYSTEM_CALL_ERROR,
                       "not all could be removed in time, as " + toUtf8(path));
    if (kind == FileKind::Directory) {
        auto entries = listDirectory(path);
        if (!entries) {
            // It may have been closed to its owner.
            std::error_code ignored;
            fs::permissions(path, fs::perms::owner_all, fs::perm_options::add, ignored);
            entries = listDirectory(path);
        }
        if (!entries)
            return tl::unexpected(std::move(entries).error());
        for (const TreeEntry& entry : *entries)
            if (auto removed =
                    removeEntry(path / fromUtf8(entry.path), entry.info.kind, patience, until);
                !removed)
                return removed;
    }
    return removeFile(path, patience);
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

void setFileFault(std::function<std::optional<int>(FileOperation, const fs::path&)> fault)
{
    faultSeam() = std::move(fault);
}

std::chrono::milliseconds durationOf(Patience patience)
{
    switch (patience) {
    case Patience::Usual:
        return std::chrono::seconds(2);
    case Patience::None:
        return {};
    case Patience::Long:
        return longPatience();
    }
    return {};
}

void setLongPatience(std::chrono::milliseconds time)
{
    longPatience() = time;
}

std::optional<int> fileFault(FileOperation operation, const fs::path& path)
{
    return faultSeam() ? faultSeam()(operation, path) : std::nullopt;
}

void setFileObserver(FileObserver observer)
{
    observerSeam() = std::move(observer);
}

void tellRename(const fs::path& from, const fs::path& to)
{
    if (observerSeam().renaming)
        observerSeam().renaming(from, to);
}

void tellVolumeFlushed(const fs::path& folder)
{
    if (observerSeam().volumeFlushed)
        observerSeam().volumeFlushed(folder);
}

tl::unexpected<Error> fileFailure(const char* what, const fs::path& path, int error,
                                  vlupd::UPD_RESULT code)
{
    return failure(code,
                   std::string("cannot ") + what + " " + toUtf8(path) + ": " + systemReason(error));
}

Expected<void> File::finish()
{
    if (const auto fault = fileFault(FileOperation::Finish, m_path))
        return fileFailure("close", m_path, *fault);
    auto flushed = syncVolumeWritesContents() ? Expected<void>() : flushRange(0, 0);
    *this = File();
    return flushed;
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

Expected<void> removeTree(const fs::path& path, Patience patience,
                          std::chrono::steady_clock::time_point until)
{
    const auto info = fileInfo(path);
    if (!info)
        return tl::unexpected(info.error());
    return *info ? removeEntry(path, (*info)->kind, patience, until) : Expected<void>();
}

} // namespace vl
