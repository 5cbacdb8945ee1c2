#pragma once

#include "vl/src/error.h"

#include <cstdint>
#include <filesystem>

namespace vl {

/// The right to change a root, or to read it undisturbed: an operating-system lock on an open
/// handle (so that a crash frees it) that children do not inherit. Never waits.
class RootLock final
{
public:
    RootLock() = default;
    ~RootLock();
    RootLock(RootLock&& other) noexcept;
    RootLock& operator=(RootLock&& other) noexcept;

    /// SYSTEM_CALL_ERROR with "another process ..." when it is held elsewhere.
    static Expected<RootLock> tryTake(const std::filesystem::path& root);
    /// The right to read without anything changing, which several may have at once. Works on a
    /// read-only root; where there is no lock file nobody can be changing anything.
    static Expected<RootLock> tryTakeShared(const std::filesystem::path& root);

private:
    static constexpr std::intptr_t closedHandle = -1;
    std::intptr_t m_handle = closedHandle;
};

} // namespace vl
