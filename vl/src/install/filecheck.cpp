#include "vl/src/install/filecheck.h"

#include "vl/src/operation/workers.h"
#include "vl/src/platform/file.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <utility>

namespace vl {

namespace {

constexpr std::size_t readSize = 1U << 20U;
constexpr std::uint64_t flushStep = 8U << 20U;
// Below this, asking for each file takes longer than writing all of them at once.
constexpr std::uint64_t smallFile = 64U << 10U;

using FileList = std::vector<const ManifestFile*>;
using Piece = std::vector<std::byte>; ///< a thread's own room for bytes, `readSize` of them
using FileWork = std::function<Expected<void>(const ManifestFile&, Piece&, const std::stop_token&)>;

// The largest first: a large one begun last would keep one core busy alone.
void sortForWork(FileList& files)
{
    std::ranges::stable_sort(files, std::ranges::greater(), &ManifestFile::size);
}

Expected<void> forEachFile(const FileList& files, Operation& operation, const FileWork& work)
{
    std::atomic<std::size_t> next{0};
    const std::size_t threads = std::clamp<std::size_t>(std::thread::hardware_concurrency(), 2, 8);
    Workers workers(threads, [&](const std::stop_token& stop) -> Expected<void> {
        Piece piece(readSize);
        for (std::size_t i = next++; i < files.size() && !stop.stop_requested(); i = next++)
            if (auto done = work(*files[i], piece, stop); !done)
                return done;
        return {};
    });
    return workers.finish(operation);
}

// What is wrong with the file, or an empty text.
Expected<std::string> damageOf(const ManifestFile& file, const std::filesystem::path& path,
                               Piece& piece, const std::stop_token& stop)
{
    const auto info = fileInfo(path);
    if (!info)
        return tl::unexpected(info.error());
    if (!*info)
        return std::string("missing");
    if ((*info)->kind != FileKind::File)
        return std::string("not a regular file");
    if ((*info)->size != file.size)
        return std::to_string((*info)->size) + " bytes instead of " + std::to_string(file.size);
    const auto opened = File::open(path, File::Mode::Read);
    if (!opened)
        return tl::unexpected(opened.error());
    Hasher hasher;
    for (std::uint64_t done = 0; done < file.size && !stop.stop_requested();) {
        const auto got = opened->readAt(done, piece);
        if (!got)
            return tl::unexpected(got.error());
        if (*got == 0)
            return std::string("cut short while it was read");
        hasher.update(std::span(piece).first(*got));
        done += *got;
    }
    return std::string(hasher.finish() == file.hash ? "" : "other contents");
}

} // namespace

Expected<std::vector<std::string>> findDamage(const Manifest& manifest,
                                              const std::filesystem::path& tree,
                                              const std::string& subfolder, Operation& operation)
{
    const std::string prefix =
        subfolder.empty() || subfolder.ends_with('/') ? subfolder : subfolder + "/";
    FileList files;
    for (const ManifestFile& file : manifest.files)
        if (file.path.starts_with(prefix) || file.path == subfolder)
            files.push_back(&file);
    if (files.empty() && !subfolder.empty())
        return failure(vlupd::NOT_FOUND, "the version has no files below " + subfolder);
    sortForWork(files);

    std::mutex mutex;
    std::vector<std::string> damage;
    Expected<void> unreadable;
    const auto checked = forEachFile(
        files, operation,
        [&](const ManifestFile& file, Piece& piece, const std::stop_token& stop) -> Expected<void> {
            auto fault = damageOf(file, tree / fromUtf8(file.path), piece, stop);
            const std::lock_guard lock(mutex);
            // A file that cannot be read says nothing; another one may still be proof
            // of damage.
            if (!fault)
                unreadable = tl::unexpected(std::move(fault).error());
            else if (!fault->empty())
                damage.push_back(file.path + ": " + *fault);
            return {};
        });
    if (!checked)
        return tl::unexpected(checked.error());
    if (damage.empty() && !unreadable)
        return tl::unexpected(unreadable.error());
    std::ranges::sort(damage);
    return damage;
}

Expected<void> flushTree(const Manifest& manifest, const std::filesystem::path& tree,
                         Operation& operation)
{
    FileList files;
    const std::uint64_t leftToVolume = syncVolumeWritesContents() ? smallFile : 1;
    for (const ManifestFile& file : manifest.files)
        if (file.size < leftToVolume)
            operation.addDone(file.size);
        else
            files.push_back(&file);
    sortForWork(files);
    return forEachFile(
        files, operation,
        [&](const ManifestFile& file, Piece&, const std::stop_token& stop) -> Expected<void> {
            const auto opened = File::open(tree / fromUtf8(file.path), File::Mode::Read);
            if (!opened)
                return tl::unexpected(opened.error());
            for (std::uint64_t done = 0; done < file.size && !stop.stop_requested();) {
                const std::uint64_t step = std::min(flushStep, file.size - done);
                if (auto flushed = opened->flushRange(done, step); !flushed)
                    return flushed;
                operation.addDone(step);
                done += step;
            }
            return {};
        });
}

} // namespace vl
