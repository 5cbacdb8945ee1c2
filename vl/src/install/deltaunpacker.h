#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/delta.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/filecopier.h"
#include "vl/src/operation/operation.h"
#include "vl/src/operation/workers.h"
#include "vl/src/platform/file.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <vector>

namespace vl {

/// Makes files of a new version out of those of an older one and the frames of a delta pack, on
/// threads of its own while the pack still arrives. Every file is hashed when its last byte is
/// there. A file that does not come out, because one of those below it is damaged or has been
/// changed, is no failure: it is removed again and told of. Holds two frames with their bases in
/// memory, never more.
class DeltaUnpacker final
{
public:
    /// `files`: the places of those to make in the list of `target`. All but `files` must outlive
    /// the unpacker; `tree` has been prepared.
    DeltaUnpacker(const DeltaIndex& index, const Manifest& target,
                  const std::vector<std::size_t>& files, const FilePlace& base,
                  const std::filesystem::path& partFile, const std::filesystem::path& tree);
    /// The frames that hold bytes of the files, ascending.
    const std::vector<std::size_t>& frames() const { return m_frames; }
    /// Starts the threads.
    void start();
    /// Frame `index` lies verified in the part file. Fails with whatever has ended the unpacking
    /// meanwhile. Any thread.
    Expected<void> frameReady(std::size_t index);
    /// No more frames will come: what waits for one cannot be made.
    void endOfFrames();
    /// Waits for the rest. Fails when the new folder cannot be written.
    Expected<void> finish(Operation& operation);
    /// The files that were made, once finished; ascending.
    std::vector<std::size_t> made() const;

private:
    struct Making
    {
        std::uint64_t missing = 0; ///< bytes that have not been written
        bool failed = false;
        bool done = false;
        std::shared_ptr<File> file;
    };
    struct Buffers;

    Expected<void> work(const std::stop_token& stop);
    std::optional<std::size_t> takeFrame(bool fromEnd);
    bool waitForFrame(std::size_t index, const std::stop_token& stop);
    Expected<void> readFrame(std::size_t index, Buffers& buffers);
    Expected<void> writeFrame(std::size_t index, const Buffers& buffers);
    Expected<std::shared_ptr<File>> fileToMake(std::size_t file);
    Expected<void> settle(std::size_t file, std::uint64_t bytes);
    void giveUp(std::size_t index);

    const DeltaIndex& m_index;
    const Manifest& m_target;
    const FilePlace& m_base;
    const std::filesystem::path& m_partFile;
    const std::filesystem::path& m_tree;
    std::vector<std::size_t> m_frames;
    std::mutex m_mutex;            ///< of all that follows
    bool m_hasFirst = false;       ///< a thread goes on from the first frame
    std::size_t m_nextFrame = 0;   ///< of `m_frames`, not taken so far
    std::size_t m_endOfFrames = 0; ///< from here on they are taken
    std::condition_variable_any m_arrived;
    std::map<std::size_t, Making> m_making; ///< by the file's place in the manifest
    std::vector<bool> m_ready;              ///< frames that have arrived
    bool m_ended = false;                   ///< no more frames will come
    std::optional<Workers> m_workers;
};

} // namespace vl
