#pragma once

#include <string_view>

namespace kdxoffload {

// True for a path that leads from a folder to something in it and nowhere else: names with one "/" between them, none of them "." or "..".
// Others are not taken from lists, which anybody may have written.
bool isListPath(std::string_view path);

// True for a name that can stand in a folder.
bool isListName(std::string_view name);

}  // namespace kdxoffload
