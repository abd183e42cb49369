#include "KDXFileTools/kdxoffload/SameTime.h"

#include <algorithm>

namespace kdxoffload {

bool isSameTime(int64_t one, int64_t other, int64_t grain) {
  const uint64_t apart = one > other ? static_cast<uint64_t>(one) - static_cast<uint64_t>(other)
                                     : static_cast<uint64_t>(other) - static_cast<uint64_t>(one);
  return apart < static_cast<uint64_t>(std::max<int64_t>(grain, 1));
}

}  // namespace kdxoffload
