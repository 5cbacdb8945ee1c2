#include "vl/src/operation/log.h"

#include <algorithm>

namespace vl {

void Log::write(std::string line)
{
    // Names and answers of others may stand in it; it is to stay one line.
    std::ranges::replace_if(
        line, [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
    const std::lock_guard lock(m_linesMutex);
    if (m_lines.size() == maxKeptLines)
        m_lines.pop_front();
    m_lines.push_back(std::move(line));
}

void Log::setBuffer(std::basic_streambuf<char>* buffer)
{
    const std::lock_guard lock(m_bufferMutex);
    m_buffer = buffer;
}

void Log::deliver()
{
    const std::lock_guard bufferLock(m_bufferMutex);
    while (m_buffer != nullptr) {
        std::string line;
        {
            const std::lock_guard lock(m_linesMutex);
            if (m_lines.empty())
                return;
            line = std::move(m_lines.front());
            m_lines.pop_front();
        }
        // The receiver reads up to the NUL, whatever the count says.
        try {
            m_buffer->sputn(line.c_str(), static_cast<std::streamsize>(line.size()));
        } catch (...) {
            // A log that cannot be written must not disturb an operation.
            continue;
        }
    }
}

} // namespace vl
