#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>

namespace platform {

// The user's settings: lines of the form "readBufferSizeMB = 4" in kdxdispatchcopy/defaults.ini under $XDG_CONFIG_HOME,
// or under ~/.config if that is not set to an absolute path. The file is read at every call; callers ask once and keep the
// value. Returns the integer at the start of the key's value, limited to the range of the type. 0 when there is no integer,
// the key is missing, or the file is missing or unreadable. Lines that are too long for the parser are ignored: those of 199
// bytes or more, without leading white space and newline.
int64_t integerForKey(std::string_view key);

// The same for settings that are read from the current position of a stream to its end.
int64_t integerForKey(std::FILE* settings, std::string_view key);

}  // namespace platform
