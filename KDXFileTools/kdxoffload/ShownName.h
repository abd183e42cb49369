#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kdxoffload {

// A name, or a text with names in it, as it is shown to a person: one line that can't move the cursor, change colours or
// pretend to be another line. What can't be printed, what is invisible or changes the order of what is beside it, and bytes
// that are not UTF-8 become "\xNN", one for each byte, with small hex digits; a "\" becomes "\\".
std::string shownName(std::string_view name);

// The same without doubling "\": for sentences of ours with names in them.
std::string shownText(std::string_view text);

// The columns of a terminal that a shown text takes, at most: terminals differ in some signs.
std::size_t columnsOf(std::string_view shown);

// A shown text in no more than so many columns: what is too long loses its middle, so that the extension of a name stays, and
// an ellipsis stands for it.
std::string cutInTheMiddle(std::string_view shown, std::size_t columns);

}  // namespace kdxoffload
