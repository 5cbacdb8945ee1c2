#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>

namespace vl
{

/// Bytes done of a total, and the speed as an average over about the last second. Thread-safe.
/// Times are passed in, so that tests need no clock.
class ProgressMeter final
{
public:
    using Clock = std::chrono::steady_clock;

    struct Report
    {
        std::uint64_t bytesPerSecond = 0; ///< never 0 while bytes arrive
        std::uint64_t done = 0;
        std::uint64_t total = 0;
    };

    void begin(std::uint64_t done, std::uint64_t total, Clock::time_point now);
    void restate(std::uint64_t done, std::uint64_t total);
    void add(std::uint64_t bytes);
    /// Sets what is done to the total.
    void complete();
    /// Whether 50 ms have passed since the last take().
    bool due(Clock::time_point now) const;
    Report take(Clock::time_point now);

private:
    struct Sample
    {
        Clock::time_point time;
        std::uint64_t done = 0;
    };

    mutable std::mutex m_mutex;
    std::uint64_t m_done = 0;
    std::uint64_t m_total = 0;
    Clock::time_point m_lastTaken;
    std::deque<Sample> m_samples;
};

} // namespace vl
