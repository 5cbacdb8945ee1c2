#pragma once

#include "vl/src/install/state.h"
#include "vl/src/operation/log.h"
#include "vl/src/operation/operation.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace vl {

/// Ends interrupted switches and deletes what is superfluous on a thread of its own, under the
/// root's lock, which it takes itself. Whatever arrives meanwhile stops it and takes over.
class Tidier final
{
public:
    /// All must outlive the tidier.
    Tidier(const RootLayout& layout, SavedManifests& manifests, Log& log);
    ~Tidier();
    Tidier(const Tidier&) = delete;
    Tidier& operator=(const Tidier&) = delete;

    /// Starts the thread; it has been stopped before. `age`: as cleanDownloads().
    void start(std::chrono::minutes age);
    /// Ends the thread within the step that it is at. Nothing when none runs.
    void stop();
    /// Waits for the end of the work, not longer than `time`; true when it has ended.
    bool waitFor(std::chrono::milliseconds time);
    /// The work has ended, and nothing is left of it.
    bool isDone();

private:
    void run(std::chrono::minutes age);

    const RootLayout& m_layout;
    SavedManifests& m_manifests;
    Log& m_log;
    std::unique_ptr<Operation> m_operation;
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_isRunning = false;
    bool m_isDone = false;
    std::thread m_thread;
};

} // namespace vl
