#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/hash.h"
#include "vl/src/operation/operation.h"
#include "vl/src/platform/folder.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vl {

/// A file to be read: its path below a folder and the size that it should have.
struct HashJob
{
    std::string path;
    std::uint64_t size = 0;
};

/// How the reading of one file ended: a hash, or why there is none.
struct HashResult
{
    std::optional<Hash> hash;   ///< of exactly the expected number of bytes
    std::optional<Error> fault; ///< none when the file merely has another size
};

/// Hashes files below `top` on all processors, each file reached without following links; results
/// in the order of the jobs. Counts the bytes on `operation`. UNKNOWN_ERROR when the operation
/// ends.
Expected<std::vector<HashResult>> hashFiles(const Folder& top, const std::vector<HashJob>& jobs,
                                            Operation& operation);

/// Hashes `size` bytes from the beginning of a file into `hasher`; false when there are fewer.
Expected<bool> hashBytes(const File& file, std::uint64_t size, Hasher& hasher);

} // namespace vl
