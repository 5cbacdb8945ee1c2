#pragma once

#include "vl/src/error.h"

#include <chrono>
#include <cstdint>
#include <filesystem>

namespace vl {

/// The right to change a folder, or to read it undisturbed: an operating-system lock on an open
/// handle of its file vl.lock (so that a crash frees it) that children do not inherit.
class FolderLock final
{
public:
    FolderLock() = default;
    ~FolderLock();
    FolderLock(FolderLock&& other) noexcept;
    FolderLock& operator=(FolderLock&& other) noexcept;

    /// Tries for as long as `patience` while it is held elsewhere, this process included, then
    /// gives SYSTEM_CALL_ERROR with "another process ...".
    static Expected<FolderLock> tryTake(const std::filesystem::path& folder,
                                        std::chrono::milliseconds patience = {});
    /// The right to read without anything changing, which several may have at once. Never
    /// waits. Works on a read-only folder; without a lock file nobody can be changing anything.
    static Expected<FolderLock> tryTakeShared(const std::filesystem::path& folder);

private:
    static constexpr std::intptr_t closedHandle = -1;
    std::intptr_t m_handle = closedHandle;
};

} // namespace vl
