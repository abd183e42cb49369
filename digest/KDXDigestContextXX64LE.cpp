#include "digest/KDXDigestContextXX64LE.h"

uint64_t KDXDigestContextXX64LE::swapToDeservedEndianess(uint64_t value) const {
  return value;
}
