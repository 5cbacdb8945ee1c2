#include "vl/src/operation/workers.h"

#include <exception>
#include <string>
#include <system_error>
#include <utility>

namespace vl {

namespace {

constexpr std::chrono::milliseconds pumpInterval{20};

Expected<void> guarded(const Workers::Body& body, const std::stop_token& stop)
{
    try {
        return body(stop);
    } catch (const std::exception& exception) {
        return failure(vlupd::UNKNOWN_ERROR, std::string("unexpected: ") + exception.what());
    }
}

} // namespace

Workers::Workers(std::size_t count, Body body) : m_body(std::move(body))
{
    m_threads.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        {
            const std::lock_guard lock(m_mutex);
            ++m_running;
        }
        try {
            m_threads.emplace_back([this] { run(); });
        } catch (const std::system_error&) {
            const std::lock_guard lock(m_mutex);
            --m_running;
            if (m_threads.empty())
                throw;
            return;
        }
    }
}

Workers::~Workers()
{
    m_stop.request_stop();
}

void Workers::run()
{
    Expected<void> result = guarded(m_body, m_stop.get_token());
    const bool failed = !result;
    {
        const std::lock_guard lock(m_mutex);
        if (failed && !m_failure)
            m_failure = std::move(result).error();
        --m_running;
        m_ended.notify_all();
    }
    if (failed)
        m_stop.request_stop();
}

Expected<void> Workers::state() const
{
    const std::lock_guard lock(m_mutex);
    if (m_failure)
        return tl::unexpected(*m_failure);
    return {};
}

bool Workers::waitFor(std::chrono::milliseconds time)
{
    std::unique_lock lock(m_mutex);
    return m_ended.wait_for(lock, time, [this] { return m_running == 0; });
}

Expected<void> Workers::finish(Operation& operation, const std::function<void()>& tick)
{
    while (!waitFor(pumpInterval)) {
        if (tick)
            tick();
        if (!operation.pump())
            m_stop.request_stop();
    }
    if (tick)
        tick();
    if (operation.cancelled())
        return tl::unexpected(endedByCaller());
    return state();
}

Error endedByCaller()
{
    return {vlupd::UNKNOWN_ERROR, "ended by the caller"};
}

Expected<void> runInBackground(Operation& operation, const std::function<Expected<void>()>& work)
{
    Workers workers(1, [&work](const std::stop_token&) { return work(); });
    while (!workers.waitFor(pumpInterval))
        operation.pump();
    return workers.state();
}

} // namespace vl
