#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Error.h"

namespace kdxoffload {

// The domain of what is wrong with a manifest, a chain or a checksum list. The description is a part of a sentence: "line 3 has no digest".
inline constexpr std::string_view listErrorDomain = "ListErrorDomain";

inline platform::Error listError(std::string text) {
  return {.domain = std::string(listErrorDomain), .code = 1, .description = std::move(text), .path = std::nullopt};
}

}  // namespace kdxoffload
