#include "vl/src/formats/catalogue.h"

#include "tests/fuzz/fuzz.h"

#include <cstdlib>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto catalogue = vl::readCatalogue({reinterpret_cast<const char*>(data), size});
    // What was accepted once is accepted again as we write it.
    if (catalogue && !vl::readCatalogue(vl::writeCatalogue(*catalogue)))
        std::abort();
    return 0;
}
