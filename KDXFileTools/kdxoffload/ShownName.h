#pragma once

#include <string>
#include <string_view>

namespace kdxoffload {

// A name, or a text with names in it, as it is shown to a person: one line that can't move the cursor, change colours or
// pretend to be another line. What can't be printed, and bytes that are not UTF-8, become "\xNN"; a "\" becomes "\\".
std::string shownName(std::string_view name);

// The same without doubling "\": for sentences of ours with names in them.
std::string shownText(std::string_view text);

}  // namespace kdxoffload
