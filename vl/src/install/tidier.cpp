#include "vl/src/install/tidier.h"

#include "vl/src/install/recovery.h"
#include "vl/src/install/tidying.h"
#include "vl/src/platform/lock.h"

#include <exception>

namespace vl {

namespace {

Expected<void> settleAndTidy(const RootContext& context, std::chrono::minutes age)
{
    const auto lock = FolderLock::tryTake(context.layout.root());
    if (!lock)
        return tl::unexpected(lock.error());
    const auto state = settle(context);
    if (!state)
        return tl::unexpected(state.error());
    return tidy(context, *state, age);
}

} // namespace

Tidier::Tidier(const RootLayout& layout, SavedManifests& manifests, Log& log)
    : m_layout(layout), m_manifests(manifests), m_log(log)
{
}

Tidier::~Tidier()
{
    stop();
}

void Tidier::start(std::chrono::minutes age)
{
    stop();
    // Made on this thread, so that the other one never hands out log lines.
    m_operation = std::make_unique<Operation>(m_log, Operation::Progress(), Operation::Stage(),
                                              "cleanDownloads");
    m_isRunning = true;
    m_isDone = false;
    m_thread = std::thread([this, age] { run(age); });
}

void Tidier::stop()
{
    if (!m_thread.joinable())
        return;
    m_operation->cancel();
    m_thread.join();
}

bool Tidier::waitFor(std::chrono::milliseconds time)
{
    std::unique_lock lock(m_mutex);
    return m_ended.wait_for(lock, time, [this] { return !m_isRunning; });
}

bool Tidier::isDone()
{
    const std::lock_guard lock(m_mutex);
    return m_isDone;
}

void Tidier::run(std::chrono::minutes age)
{
    bool done = false;
    try {
        const auto tidied = settleAndTidy({m_layout, m_manifests, *m_operation}, age);
        done = tidied.has_value();
        if (!done && !m_operation->cancelled())
            m_operation->say(tidied.error().message);
        m_manifests.clear();
    } catch (const std::exception& exception) {
        m_operation->say(std::string("unexpected: ") + exception.what());
    }
    const std::lock_guard lock(m_mutex);
    m_isRunning = false;
    m_isDone = done;
    m_ended.notify_all();
}

} // namespace vl
