#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/operation/operation.h"
#include "vl/src/operation/workers.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <vector>

namespace vl {

/// Unpacks files of a pack into a new version folder on threads of its own, while the pack still
/// arrives: frames that are ready are read back from the part file in pieces, decoded, hashed and
/// written.
class Unpacker final
{
public:
    /// `files`: the places of those to unpack in the manifest's list; none may be empty. All but
    /// `files` must outlive the unpacker. `tree` has been prepared.
    Unpacker(const Manifest& manifest, const std::vector<std::size_t>& files,
             const std::filesystem::path& partFile, const std::filesystem::path& tree);

    /// Starts the threads.
    void start();
    /// The frames that hold bytes of the files, ascending.
    std::vector<std::size_t> frames() const;
    /// Frame `index` lies verified in the part file. Fails with whatever has ended the unpacking
    /// meanwhile. Any thread.
    Expected<void> frameReady(std::size_t index);
    /// Bytes of files written so far. Any thread.
    std::uint64_t written() const { return m_written; }
    /// Waits for the rest, calling `tick` on the way.
    Expected<void> finish(Operation& operation, const std::function<void()>& tick);

private:
    /// Frames that one thread must unpack in order, because files run across their borders.
    struct Chain
    {
        std::size_t first = 0;
        std::size_t end = 0;
    };

    Expected<void> work(const std::stop_token& stop);
    bool waitForFrame(std::size_t index, const std::stop_token& stop);

    const Manifest& m_manifest;
    const std::filesystem::path& m_partFile;
    const std::filesystem::path& m_tree;
    std::vector<const ManifestFile*> m_files;
    std::vector<Chain> m_chains;
    std::atomic<std::size_t> m_nextChain{0};
    std::atomic<std::uint64_t> m_written{0};
    std::mutex m_mutex;
    std::condition_variable_any m_arrived;
    std::vector<bool> m_ready; ///< frames that have arrived
    std::optional<Workers> m_workers;
};

} // namespace vl
