#pragma once

#include "digest/KDXDigestContextXX64BE.h"

// The same hash with its least significant byte first.
class KDXDigestContextXX64LE final : public KDXDigestContextXX64BE {
 public:
  [[nodiscard]] uint32_t algorithm() const override { return KDXDigestAlgorithmXXHash64; }
  [[nodiscard]] std::string digestMethodName() const override { return "XXHash64"; }
  [[nodiscard]] uint64_t swapToDeservedEndianess(uint64_t value) const override;
};
