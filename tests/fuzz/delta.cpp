#include "vl/src/formats/delta.h"

#include "tests/fuzz/fuzz.h"

#include <cstdlib>

// The first byte chooses: an index as a client fetches it, its text, or a frame.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const auto bytes = std::as_bytes(std::span(data + 1, size - 1));
    if (*data % 3 == 0) {
        (void)vl::expandDeltaIndex(bytes);
    } else if (*data % 3 == 1) {
        vl::Manifest manifest;
        manifest.files.resize(2);
        manifest.files[0].size = 300;
        manifest.files[1].size = 1U << 30U;
        vl::DeltaReference reference;
        reference.size = 10;
        const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        const auto index = vl::readDeltaIndex(text, reference, manifest, manifest);
        // What was accepted once is accepted again as we write it.
        if (index &&
            !vl::readDeltaIndex(vl::writeDeltaIndex(*index), reference, manifest, manifest))
            std::abort();
    } else {
        static vl::DeltaDecoder decoder;
        const std::vector<std::byte> base(5000, std::byte{'x'});
        std::vector<std::byte> raw(1000);
        (void)decoder.decode(bytes, base, raw);
    }
    return 0;
}
