#include "vl/src/operation/progressmeter.h"

#include <algorithm>

namespace vl {

void ProgressMeter::begin(std::uint64_t done, std::uint64_t total, Clock::time_point now)
{
    const std::lock_guard lock(m_mutex);
    m_done = std::min(done, total);
    m_total = total;
    m_arrived = 0;
    m_samples.assign(1, Sample{now, 0});
}

void ProgressMeter::replan(std::uint64_t here, std::uint64_t remaining)
{
    const std::lock_guard lock(m_mutex);
    m_done += here;
    m_total = m_done + remaining;
}

void ProgressMeter::add(std::uint64_t bytes)
{
    const std::lock_guard lock(m_mutex);
    m_done += std::min(bytes, m_total - m_done);
    m_arrived += bytes;
}

void ProgressMeter::complete()
{
    const std::lock_guard lock(m_mutex);
    m_done = m_total;
}

bool ProgressMeter::due(Clock::time_point now) const
{
    const std::lock_guard lock(m_mutex);
    return now - m_lastTaken >= interval;
}

ProgressMeter::Report ProgressMeter::take(Clock::time_point now)
{
    using namespace std::chrono;
    const std::lock_guard lock(m_mutex);
    // The newest sample that is at least a second old stays as the base of the average.
    while (m_samples.size() > 1 && now - m_samples[1].time >= seconds(1))
        m_samples.pop_front();
    m_lastTaken = now;
    Report report{0, m_done, m_total};
    if (!m_samples.empty() && m_arrived > m_samples.front().arrived) {
        const double bytes = static_cast<double>(m_arrived - m_samples.front().arrived);
        const auto span = std::max<Clock::duration>(now - m_samples.front().time, milliseconds(1));
        const double speed = bytes / duration<double>(span).count();
        report.bytesPerSecond = std::max<std::uint64_t>(1, static_cast<std::uint64_t>(speed));
    }
    m_samples.push_back({now, m_arrived});
    return report;
}

} // namespace vl
