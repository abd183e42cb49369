#pragma once

// The state is held inside the object, for which the library has to show its size.
#define XXH_STATIC_LINKING_ONLY
#include <xxhash.h>

#include "digest/KDXDigestContext.h"

// XXH64 with seed 0, as the public description of xxHash has it; 8 bytes, most significant first. The orders are those
// of the value's bytes by significance, whatever the machine's own order is.
class KDXDigestContextXX64BE : public KDXDigestContext {
 public:
  [[nodiscard]] uint32_t algorithm() const override { return KDXDigestAlgorithmXXHash64BE; }
  void reset() override;
  void update(const void* bytes, uint64_t length) override;
  void finalize() override;
  [[nodiscard]] std::string digestMethodName() const override { return "XXHash64BE"; }

  // The value whose bytes, from least to most significant, are the digest. Here: the hash with its eight bytes
  // reversed.
  [[nodiscard]] virtual uint64_t swapToDeservedEndianess(uint64_t value) const;

 private:
  XXH64_state_t _context{};
};
