#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kdxoffload {

// Moments as manifests and the names of their files write them. Nanoseconds since 1970, UTC.
namespace DateTime {

// "2026-11-23T00:26:18+00:00", with six digits for a part of a second where there is one: programs that read no more digits than
// these are in use.
std::string text(int64_t nanoseconds);

// Of such a text, with any zone and any number of digits for a part of a second. None for anything else, without a zone too: that could
// be any moment of a day.
std::optional<int64_t> fromText(std::string_view text);

// "2026-11-23_002618Z".
std::string inFileNames(int64_t nanoseconds);

}  // namespace DateTime

}  // namespace kdxoffload
