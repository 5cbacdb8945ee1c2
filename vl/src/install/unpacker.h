#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/workers.h"
#include "vl/src/operation/operation.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <stop_token>
#include <vector>

namespace vl {

/// Unpacks a pack into a new version folder on threads of its own, while the pack still arrives:
/// frames that are ready are read back from the part file in pieces, decoded, hashed and written.
class Unpacker final
{
public:
    /// All three must outlive the unpacker.
    Unpacker(const Manifest& manifest, const std::filesystem::path& partFile,
             const std::filesystem::path& tree);

    /// Makes the folders and starts the threads.
    Expected<void> start();
    /// The frames up to and with `index` lie verified in the part file. Fails with whatever has
    /// ended the unpacking meanwhile.
    Expected<void> frameReady(std::size_t index);
    /// Bytes of files written so far. Any thread.
    std::uint64_t written() const { return m_written; }
    /// Waits for the rest, counting it on `operation` (whose stage began with `counted` bytes).
    Expected<void> finish(Operation& operation, std::uint64_t counted);

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
    std::size_t m_ready = 0; ///< frames that have arrived
    std::optional<Workers> m_workers;
};

} // namespace vl
