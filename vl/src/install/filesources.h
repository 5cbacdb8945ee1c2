#pragma once

#include "vl/src/formats/manifest.h"
#include "vl/src/install/records.h"

#include <functional>
#include <vector>

namespace vl {

/// A new file whose contents lie in another file.
struct FileCopy
{
    FileNumber target = 0;
    FileNumber source = 0;
};

/// Where the bytes of new files come from.
struct FileSources
{
    std::vector<FileNumber> empty;   ///< files of 0 bytes
    std::vector<FileCopy> kept;      ///< from files of the older version
    std::vector<FileNumber> missing; ///< to be fetched; no two have the same contents
    std::vector<FileCopy> twins;     ///< from files of the new version, once these are built
};

/// Sorts the files `wanted` (ascending) of `target`. `base`: the older version, or null; `usable`:
/// one of its files may be taken. Names do not matter, only sizes and hashes: renamed and moved
/// files are found. `staged`: new files that are built already.
FileSources findSources(const Manifest& target, const std::vector<FileNumber>& wanted,
                        const Manifest* base, const std::function<bool(FileNumber)>& usable,
                        const std::vector<FileNumber>& staged);

} // namespace vl
