#include "vl/src/install/filefinisher.h"

#include <chrono>
#include <utility>

namespace vl {

namespace {

constexpr std::size_t threads = 4;
constexpr std::size_t mostWaiting = 64;
// Handing a file to another thread costs some 20 microseconds.
constexpr std::chrono::microseconds slowClose{200};

} // namespace

FileFinisher::FileFinisher()
    : m_workers(threads, [this](const std::stop_token& stop) { return work(stop); })
{
}

FileFinisher::~FileFinisher()
{
    const std::lock_guard lock(m_mutex);
    m_ended = true;
    m_changed.notify_all();
}

Expected<void> FileFinisher::finish(File file)
{
    if (!isSlow())
        return close(file);
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_files.size() < mostWaiting || m_hasFailed; });
        m_files.push_back(std::move(file));
    }
    m_changed.notify_all();
    return m_workers.state();
}

Expected<void> FileFinisher::wait(Operation& operation)
{
    {
        const std::lock_guard lock(m_mutex);
        m_ended = true;
    }
    m_changed.notify_all();
    return m_workers.finish(operation);
}

Expected<void> FileFinisher::work(const std::stop_token& stop)
{
    for (;;) {
        File file;
        {
            std::unique_lock lock(m_mutex);
            if (!m_changed.wait(lock, stop, [this] { return !m_files.empty() || m_ended; }) ||
                m_files.empty())
                return {};
            file = std::move(m_files.front());
            m_files.pop_front();
        }
        m_changed.notify_all();
        auto finished = close(file);
        if (finished)
            continue;
        const std::lock_guard lock(m_mutex);
        m_hasFailed = true;
        m_changed.notify_all();
        return finished;
    }
}

Expected<void> FileFinisher::close(File& file)
{
    const auto start = std::chrono::steady_clock::now();
    auto finished = file.finish();
    ++m_closed;
    if (std::chrono::steady_clock::now() - start > slowClose)
        ++m_closedSlowly;
    return finished;
}

// A call now and then takes long on any system.
bool FileFinisher::isSlow() const
{
    return m_closedSlowly > 4 && m_closedSlowly * 4 > m_closed;
}

} // namespace vl
