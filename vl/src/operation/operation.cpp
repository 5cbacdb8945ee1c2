#include "vl/src/operation/operation.h"

#include <utility>

namespace vl {

Operation::Operation(Log& log, Progress progress, Stage stage, std::string name)
    : m_log(log), m_progress(std::move(progress)), m_stage(std::move(stage)),
      m_name(std::move(name))
{
}

void Operation::say(const std::string& text)
{
    m_log.write(m_name.empty() ? text : m_name + ": " + text);
}

void Operation::beginStage(vlupd::UPD_INSTALLATION_STAGE stage, std::uint64_t done,
                           std::uint64_t total)
{
    if (m_current && stage <= *m_current)
        return;
    m_current = stage;
    m_meter.begin(done, total, ProgressMeter::Clock::now());
    if (m_stage && !cancelled()) {
        try {
            m_stage(stage);
        } catch (...) {
            say("the stage callback threw an exception");
            cancel();
        }
    }
    report();
}

void Operation::replan(std::uint64_t here, std::uint64_t remaining)
{
    m_meter.replan(here, remaining);
}

void Operation::endStage()
{
    m_meter.complete();
    report();
}

void Operation::addDone(std::uint64_t bytes)
{
    m_meter.add(bytes);
}

bool Operation::pump()
{
    if (std::this_thread::get_id() != m_callingThread)
        return !cancelled();
    m_log.deliver();
    if (m_current && m_meter.due(ProgressMeter::Clock::now()))
        report();
    return !cancelled();
}

void Operation::report()
{
    const ProgressMeter::Report now = m_meter.take(ProgressMeter::Clock::now());
    if (!m_progress || cancelled())
        return;
    try {
        if (!m_progress(now.bytesPerSecond, now.done, now.total)) {
            say("the progress callback asked to end");
            cancel();
        }
    } catch (...) {
        say("the progress callback threw an exception");
        cancel();
    }
}

} // namespace vl
