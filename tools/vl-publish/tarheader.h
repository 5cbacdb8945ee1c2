#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vl::publish {

inline constexpr std::size_t tarBlockSize = 512;

/// The blocks that stand before a file's bytes in a tar stream (POSIX.1-2017, pax, "ustar
/// Interchange Format"): one ustar header, and before it a pax extended header when the path is
/// longer than 100 bytes or not ASCII, or the file is of 8 GiB or more. Time and owner are zero.
std::string tarHeader(std::string_view path, std::uint64_t size, std::uint32_t mode);

/// Zero bytes that follow a file of `size` bytes, up to the next block.
std::size_t tarPadding(std::uint64_t size);

} // namespace vl::publish
