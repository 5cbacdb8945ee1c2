#pragma once

#include <deque>
#include <mutex>
#include <streambuf>
#include <string>

namespace vl {

/// Collects log lines from any thread and hands them to the registered buffer on the thread that
/// calls deliver(). Lines that come while no buffer is registered are kept for the next one (the
/// newest thousand of them).
class Log final
{
public:
    /// Queues one whole English line: operation, object, cause. Control characters become spaces.
    /// Any thread.
    void write(std::string line);
    /// Registers the buffer that lines go to (not owned; null: keep lines). Any thread; once it
    /// returns, the previous buffer is not touched again.
    void setBuffer(std::basic_streambuf<char>* buffer);
    /// Hands every queued line over, each by one `sputn` of a NUL-terminated text.
    void deliver();

private:
    static constexpr std::size_t maxKeptLines = 1000;

    std::mutex m_linesMutex;
    std::deque<std::string> m_lines;
    // Recursive: a buffer may call back into the library while it takes a line.
    std::recursive_mutex m_bufferMutex;
    std::basic_streambuf<char>* m_buffer = nullptr;
};

} // namespace vl
