#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kdxoffload {

// A name, or a text with names in it, as it is shown to a person: one line that can't move the cursor, change colours or
// look like another line. Characters that can't be printed, are invisible or change the direction of text, and bytes that are
// not UTF-8, become "\xNN" for each byte, with lower-case hex digits. A "\" becomes "\\".
std::string shownName(std::string_view name);

// The same without doubling "\": for our own sentences with names in them.
std::string shownText(std::string_view text);

// The most columns of a terminal that a shown text needs: terminals differ for some characters.
std::size_t columnsOf(std::string_view shown);

// A shown text in at most this many columns. In a text that is too long, an ellipsis replaces the middle, so that the extension
// of a name stays.
std::string cutInTheMiddle(std::string_view shown, std::size_t columns);

}  // namespace kdxoffload
