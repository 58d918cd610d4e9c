// What a fuzz target defines.
#pragma once

#include <cstddef>
#include <cstdint>

// Runs the code under test on one input. Always returns 0; a failure ends the process.
// The name is libFuzzer's.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
