#pragma once

#include "tools/vl-publish/publisher.h"

#include <chrono>
#include <string>

namespace vl::publish {

/// Shows progress as one line of the standard error stream that is written over and over, and
/// nothing but notes when that is no terminal.
class TerminalProgress final : public Progress
{
public:
    TerminalProgress();
    ~TerminalProgress() override;

    void update(std::string_view step, std::uint64_t done, std::uint64_t total) override;
    void note(const std::string& text) override;

private:
    void clearLine();

    bool m_terminal;
    bool m_lineShown = false;
    std::chrono::steady_clock::time_point m_begin;
    std::chrono::steady_clock::time_point m_lastShown;
};

/// Bytes for people: "13.5 MiB".
std::string readableSize(std::uint64_t bytes);

} // namespace vl::publish
