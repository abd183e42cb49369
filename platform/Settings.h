#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>

namespace platform {

// The user's settings: lines of the form "readBufferSizeMB = 4" in kdxdispatchcopy/defaults.ini under $XDG_CONFIG_HOME,
// or under ~/.config where that is not set to an absolute path. The file is read at every call; callers ask once and keep the value.
// Returns the integer at the start of the key's value (limited to the range of the type), 0 when there is none, the key
// is missing, or the file is missing or unreadable. Lines too long for the parser, of 199 bytes and more without white
// space in front and newline, count for nothing.
int64_t integerForKey(std::string_view key);

// The same of settings that are read from here to the end of a stream.
int64_t integerForKey(std::FILE* settings, std::string_view key);

}  // namespace platform
