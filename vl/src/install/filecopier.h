#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/filesources.h"
#include "vl/src/operation/operation.h"
#include "vl/src/operation/workers.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <vector>

namespace vl {

/// Where a file of another version lies, by its place in that version's manifest.
using FilePlace = std::function<std::filesystem::path(std::size_t file)>;

/// Copies files into a new version folder on threads of its own. Every copy is hashed; one that
/// does not come out as the manifest says, because its source is damaged or has been changed, is
/// no failure: it is removed again and told of, so that its bytes can come from elsewhere.
class FileCopier final
{
public:
    /// `target` and `tree` must outlive the copier; `tree` has been prepared.
    FileCopier(const Manifest& target, std::vector<FileCopy> copies, FilePlace source,
               const std::filesystem::path& tree);
    /// Starts the threads.
    void start();
    /// Waits for the rest, calling `tick` on the way. Fails when the new folder cannot be written.
    Expected<void> finish(Operation& operation, const std::function<void()>& tick);
    /// The target files that could not be made, once finished.
    const std::vector<std::size_t>& failed() const { return m_failed; }
    /// Bytes of files written so far. Any thread.
    std::uint64_t written() const { return m_written; }

private:
    Expected<void> work(const std::stop_token& stop);
    Expected<bool> copy(const FileCopy& copy, std::vector<std::byte>& piece,
                        const std::stop_token& stop);

    const Manifest& m_target;
    const std::vector<FileCopy> m_copies;
    const FilePlace m_source;
    const std::filesystem::path& m_tree;
    std::atomic<std::size_t> m_next{0};
    std::atomic<std::uint64_t> m_written{0};
    std::mutex m_mutex;
    std::vector<std::size_t> m_failed;
    std::optional<Workers> m_workers;
};

} // namespace vl
