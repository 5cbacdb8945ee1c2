#include "vl/src/install/filecopier.h"

#include "vl/src/install/treewriter.h"
#include "vl/src/platform/file.h"

#include <algorithm>
#include <utility>

namespace vl {

namespace {

constexpr std::size_t copyThreads = 2;
constexpr std::size_t pieceSize = 1U << 20U;

} // namespace

FileCopier::FileCopier(const Manifest& target, std::vector<FileCopy> copies, FilePlace source,
                       const std::filesystem::path& tree)
    : m_target(target), m_copies(std::move(copies)), m_source(std::move(source)), m_tree(tree)
{
}

void FileCopier::start()
{
    if (!m_copies.empty())
        m_workers.emplace(copyThreads, [this](const std::stop_token& stop) { return work(stop); });
}

Expected<void> FileCopier::finish(Operation& operation, const std::function<void()>& tick)
{
    auto finished = m_workers ? m_workers->finish(operation, tick) : Expected<void>();
    std::ranges::sort(m_failed);
    return finished;
}

Expected<void> FileCopier::work(const std::stop_token& stop)
{
    std::vector<std::byte> piece(pieceSize);
    for (std::size_t i = m_next++; i < m_copies.size() && !stop.stop_requested(); i = m_next++) {
        const auto copied = copy(m_copies[i], piece, stop);
        if (!copied)
            return tl::unexpected(copied.error());
        if (*copied || stop.stop_requested())
            continue;
        const ManifestFile& file = m_target.files[m_copies[i].target];
        if (auto removed = removeFile(m_tree / fromUtf8(file.path)); !removed)
            return removed;
        const std::lock_guard lock(m_mutex);
        m_failed.push_back(m_copies[i].target);
    }
    return {};
}

Expected<bool> FileCopier::copy(const FileCopy& copy, std::vector<std::byte>& piece,
                                const std::stop_token& stop)
{
    const ManifestFile& file = m_target.files[copy.target];
    const auto source = File::open(m_source(copy.source), File::Mode::Read);
    if (!source)
        return false;
    auto made = createFile(file, m_tree);
    if (!made)
        return tl::unexpected(std::move(made).error());
    const bool cloned = made->cloneFrom(*source);
    Hasher hasher;
    std::uint64_t done = 0;
    // One byte more than the file has, so that one that has grown is noticed.
    while (done <= file.size && !stop.stop_requested()) {
        const auto got = (cloned ? *made : *source).readAt(done, piece);
        if (!got)
            return false;
        if (*got == 0)
            break;
        const auto bytes = std::span(piece).first(*got);
        hasher.update(bytes);
        if (!cloned)
            if (auto written = made->writeAt(done, bytes); !written)
                return tl::unexpected(std::move(written).error());
        done += *got;
    }
    if (done != file.size || hasher.finish() != file.hash)
        return false;
    made->startWriteback(0, file.size);
    m_written += file.size;
    return true;
}

} // namespace vl
