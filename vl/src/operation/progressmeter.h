#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>

namespace vl {

/// Bytes done of a total, and the speed as an average over about the last second. Thread-safe.
/// Times are passed in, so that tests need no clock.
class ProgressMeter final
{
public:
    using Clock = std::chrono::steady_clock;

    /// Between two reports within a stage. With the two reports that begin and end each stage, a
    /// second never sees more than twenty.
    static constexpr std::chrono::milliseconds interval{75};

    struct Report
    {
        std::uint64_t bytesPerSecond = 0; ///< never 0 while bytes arrive
        std::uint64_t done = 0;
        std::uint64_t total = 0;
    };

    /// Starts anew; `done` bytes are already here and count for no speed.
    void begin(std::uint64_t done, std::uint64_t total, Clock::time_point now);
    /// The plan has changed: `here` more bytes count as done, `remaining` are still to come.
    void replan(std::uint64_t here, std::uint64_t remaining);
    void add(std::uint64_t bytes);
    /// Sets what is done to the total.
    void complete();
    /// Whether `interval` has passed since the last take().
    bool due(Clock::time_point now) const;
    Report take(Clock::time_point now);

private:
    struct Sample
    {
        Clock::time_point time;
        std::uint64_t arrived = 0;
    };

    mutable std::mutex m_mutex;
    std::uint64_t m_done = 0;
    std::uint64_t m_total = 0;
    std::uint64_t m_arrived = 0; ///< bytes since begin(), the ones found on the disk apart
    Clock::time_point m_lastTaken;
    std::deque<Sample> m_samples;
};

} // namespace vl
