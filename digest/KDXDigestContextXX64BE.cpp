#include "digest/KDXDigestContextXX64BE.h"

#include <array>

void KDXDigestContextXX64BE::reset() {
  constexpr XXH64_hash_t seed = 0;
  XXH64_reset(&_context, seed);
}

void KDXDigestContextXX64BE::update(const void* bytes, uint64_t length) {
  XXH64_update(&_context, bytes, length);
  _totalLength += length;
}

void KDXDigestContextXX64BE::finalize() {
  const uint64_t value = swapToDeservedEndianess(XXH64_digest(&_context));
  std::array<uint8_t, sizeof value> digest{};
  for (std::size_t byte = 0; byte < digest.size(); ++byte) digest[byte] = static_cast<uint8_t>(value >> (8 * byte));
  storeResult(digest);
}

uint64_t KDXDigestContextXX64BE::swapToDeservedEndianess(uint64_t value) const {
  uint64_t reversed = 0;
  for (std::size_t byte = 0; byte < sizeof value; ++byte) reversed = reversed << 8 | (value >> (8 * byte) & 0xff);
  return reversed;
}
