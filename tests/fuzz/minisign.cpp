#include "vl/src/formats/minisign.h"

#include "tests/fuzz/fuzz.h"

#include <cstdlib>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const vl::PublicKey key{.id = {1, 2, 3, 4, 5, 6, 7, 8}, .key = {1}};
    if (vl::verify("message", text, std::span(&key, 1)))
        std::abort(); // nobody has the secret half of this key
    (void)vl::readPublicKey(text);
    (void)vl::readSecretKey(text);
    return 0;
}
