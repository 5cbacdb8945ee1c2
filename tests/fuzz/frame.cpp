#include "vl/src/formats/frame.h"

#include "tests/fuzz/fuzz.h"

#include <cstdlib>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::uint64_t rawSize = 1000;
    static vl::FrameDecoder decoder;
    std::uint64_t received = 0;
    decoder.begin(rawSize);
    const auto fed =
        decoder.feed(std::as_bytes(std::span(data, size)),
                     [&received](std::span<const std::byte> raw) -> vl::Expected<void> {
                         received += raw.size();
                         return {};
                     });
    if (received > rawSize || (fed && decoder.end() && received != rawSize))
        std::abort();
    return 0;
}
