#pragma once

#include <cstddef>
#include <cstdint>

/// libFuzzer's entry (https://llvm.org/docs/LibFuzzer.html): one parser, fed with any bytes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
