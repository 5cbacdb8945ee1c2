#pragma once

#include "vl/src/error.h"
#include "vl/src/operation/operation.h"
#include "vl/src/operation/workers.h"
#include "vl/src/platform/file.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

namespace vl {

/// Closes written files. Where that takes long, it is done on threads of its own: a virus scanner
/// reads each new file before the call that closes it returns, and thousands of small files would
/// wait for it one by one.
class FileFinisher final
{
public:
    FileFinisher();
    ~FileFinisher();
    FileFinisher(const FileFinisher&) = delete;
    FileFinisher& operator=(const FileFinisher&) = delete;

    /// Takes a whole file over. Waits while too many are open; fails with what an earlier file met.
    /// Any thread.
    Expected<void> finish(File file);
    /// Waits for the files that were handed over, pumping `operation`.
    Expected<void> wait(Operation& operation);

private:
    Expected<void> work(const std::stop_token& stop);
    Expected<void> close(File& file);
    bool isSlow() const;

    std::atomic<std::uint64_t> m_closed{0};
    std::atomic<std::uint64_t> m_closedSlowly{0};
    std::mutex m_mutex; ///< of what follows
    std::condition_variable_any m_changed;
    std::deque<File> m_files;
    bool m_ended = false;
    bool m_hasFailed = false;
    Workers m_workers; ///< goes first: its threads use what stands above
};

} // namespace vl
