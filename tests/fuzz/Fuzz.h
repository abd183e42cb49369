#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

// What the fuzzer calls with each input, from one thread.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

// The input as text, without a zero at the end.
inline std::string_view textOf(const uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Aborts if the property does not hold. The fuzzer then keeps the input, as for a fault that a sanitizer finds.
inline void require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}
