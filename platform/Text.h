#pragma once

#include <string_view>

namespace platform {

// True when the bytes are well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
bool isUTF8(std::string_view bytes);

}  // namespace platform
