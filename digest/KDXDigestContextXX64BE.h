#pragma once

// The object contains the library's state, whose size the library shows only with this definition.
#define XXH_STATIC_LINKING_ONLY
#include <xxhash.h>

#include "digest/KDXDigestContext.h"

// XXH64 with seed 0, as in the public description of xxHash; 8 bytes, most significant first, whatever the byte order of the
// machine.
class KDXDigestContextXX64BE : public KDXDigestContext {
 public:
  [[nodiscard]] uint32_t algorithm() const override { return KDXDigestAlgorithmXXHash64BE; }
  void reset() override;
  void update(const void* bytes, uint64_t length) override;
  void finalize() override;
  [[nodiscard]] std::string digestMethodName() const override { return "XXHash64BE"; }

  // The value whose bytes, from least to most significant, are the digest. Here: the hash with its eight bytes reversed.
  [[nodiscard]] virtual uint64_t swapToDeservedEndianess(uint64_t value) const;

 private:
  XXH64_state_t _context{};
};
