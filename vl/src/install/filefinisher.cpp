#include "vl/src/install/filefinisher.h"

#include <utility>

namespace vl {

namespace {

constexpr std::size_t threads = 4;
constexpr std::size_t mostWaiting = 64;

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
        auto finished = file.finish();
        if (finished)
            continue;
        const std::lock_guard lock(m_mutex);
        m_hasFailed = true;
        m_changed.notify_all();
        return finished;
    }
}

} // namespace vl
