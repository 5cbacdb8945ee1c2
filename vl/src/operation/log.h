#pragma once

#include <mutex>
#include <streambuf>
#include <string>
#include <vector>

namespace vl
{

/// Collects log lines from any thread and hands them to the registered buffer on the thread that
/// calls deliver(). Lines that come while no buffer is registered are kept for the next one.
class Log final
{
public:
    /// Queues one whole English line without a line end: operation, object, cause. Any thread.
    void write(std::string line);
    /// Registers the buffer that lines go to (not owned; null: keep lines). Any thread.
    void setBuffer(std::basic_streambuf<char>* buffer);
    /// Hands every queued line over, each by one `sputn` of a NUL-terminated text.
    void deliver();

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
    std::basic_streambuf<char>* m_buffer = nullptr;
};

} // namespace vl
