#pragma once

#include "vl/src/operation/log.h"
#include "vl/src/operation/progressmeter.h"
#include "vlupd/vlupd.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>

namespace vl {

/// What a long piece of work shares with the operation that runs it: its stage and progress, its
/// log and the wish to end it. Work reports from any thread; only the calling thread's pump()
/// and stage functions reach the caller's callbacks.
class Operation final
{
public:
    using Progress = std::function<bool(std::uint64_t, std::uint64_t, std::uint64_t)>;
    using Stage = std::function<void(vlupd::UPD_INSTALLATION_STAGE)>;

    /// `name`: what log lines begin with, e.g. "installVersion 1.2.0". Callbacks may be empty.
    explicit Operation(Log& log, Progress progress = {}, Stage stage = {}, std::string name = {});

    Log& log() { return m_log; }
    /// Logs "name: text". Any thread.
    void say(const std::string& text);

    /// Announces a stage and reports once: `done` of `total` bytes. A stage that was announced
    /// before, or one before it, is passed over: stages only ascend. Calling thread.
    void beginStage(vlupd::UPD_INSTALLATION_STAGE stage, std::uint64_t done, std::uint64_t total);
    /// The plan has changed: `here` more bytes lie on the disk, `remaining` are still to come. What
    /// is done never falls.
    void replan(std::uint64_t here, std::uint64_t remaining);
    /// Reports once more, with everything done. Calling thread.
    void endStage();

    /// Counts bytes of the stage. Any thread.
    void addDone(std::uint64_t bytes);
    /// Delivers log lines and, when one is due, a progress report. Call it at least every 50 ms
    /// from the calling thread; from any other it only tells. False once the operation is to end.
    bool pump();

    /// Any thread. True once the caller's callback returned false or threw, or cancel() was called.
    bool cancelled() const { return m_cancelled; }
    void cancel() { m_cancelled = true; }

private:
    void report();

    Log& m_log;
    Progress m_progress;
    Stage m_stage;
    std::string m_name;
    ProgressMeter m_meter;
    const std::thread::id m_callingThread = std::this_thread::get_id();
    std::optional<vlupd::UPD_INSTALLATION_STAGE> m_current; ///< nothing is reported before one
    std::atomic<bool> m_cancelled{false};
};

} // namespace vl
