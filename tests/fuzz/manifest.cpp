#include "vl/src/formats/manifest.h"

#include "tests/fuzz/fuzz.h"

#include <cstdlib>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto manifest = vl::readManifest({reinterpret_cast<const char*>(data), size}, "1.0.0");
    // What was accepted once is accepted again as we write it.
    if (manifest && !vl::readManifest(vl::writeManifest(*manifest), "1.0.0"))
        std::abort();
    return 0;
}
