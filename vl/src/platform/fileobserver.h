#pragma once

#include <filesystem>
#include <functional>

namespace vl {

/// Test seam beside setFileFault(), for tests that work out what a power cut would leave. Either
/// function may be empty; both are called on any thread.
struct FileObserver
{
    /// Before each rename.
    std::function<void(const std::filesystem::path& from, const std::filesystem::path& to)>
        renaming = {};
    /// After everything written so far to the volume of a folder has been flushed.
    std::function<void(const std::filesystem::path& folder)> volumeFlushed = {};
};

/// Not to be changed while operations run.
void setFileObserver(FileObserver observer);

/// Tell the observer, if there is one. For the sources of this folder.
void tellRename(const std::filesystem::path& from, const std::filesystem::path& to);
void tellVolumeFlushed(const std::filesystem::path& folder);

} // namespace vl
