#ifndef TESTS_FUZZ_TARGET_H
#define TESTS_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>

// What every fuzz target defines, under the name that the fuzzer knows: handles one input, and
// leaves everything as it found it. Always 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#endif  // TESTS_FUZZ_TARGET_H
