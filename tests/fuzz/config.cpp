#include "vl/src/formats/config.h"

#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    (void)vl::parseConfig({reinterpret_cast<const char*>(data), size});
    return 0;
}
