#pragma once

#include "vl/src/error.h"
#include "vl/src/operation/operation.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>
#include <vector>

namespace vl {

/// Threads that run one body. The first failure asks the others to stop; exceptions become
/// failures. Destruction stops and joins them.
class Workers final
{
public:
    using Body = std::function<Expected<void>(const std::stop_token&)>;

    /// Runs on fewer than `count` threads where the system grants no more, but at least on one.
    Workers(std::size_t count, Body body);
    ~Workers();
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    /// The first failure so far.
    Expected<void> state() const;
    /// Waits until all have ended or the time is over. True when all have ended.
    bool waitFor(std::chrono::milliseconds time);
    /// Pumps `operation` until all have ended, calling `tick` on the way; when the operation is
    /// cancelled, stops them and fails.
    Expected<void> finish(Operation& operation, const std::function<void()>& tick = {});

private:
    void run();

    Body m_body;
    std::stop_source m_stop;
    mutable std::mutex m_mutex;
    std::condition_variable m_ended;
    std::size_t m_running = 0;
    std::optional<Error> m_failure;
    std::vector<std::jthread> m_threads;
};

/// The failure of an operation that its caller ended.
Error endedByCaller();

/// Runs `work` on a thread of its own and pumps `operation` meanwhile, cancelled or not.
Expected<void> runInBackground(Operation& operation, const std::function<Expected<void>()>& work);

} // namespace vl
