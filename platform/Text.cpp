#include "platform/Text.h"

#include <utf8proc.h>

namespace platform {

bool isUTF8(std::string_view bytes) {
  const auto* next = reinterpret_cast<const utf8proc_uint8_t*>(bytes.data());
  auto left = static_cast<utf8proc_ssize_t>(bytes.size());
  while (left > 0) {
    utf8proc_int32_t codePoint = 0;
    const utf8proc_ssize_t used = utf8proc_iterate(next, left, &codePoint);
    if (used <= 0) return false;
    next += used;
    left -= used;
  }
  return true;
}

}  // namespace platform
