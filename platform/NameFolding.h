#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

// Which different names a file system treats as the same name.
enum class NameFolding : uint8_t {
  unknown,
  exact,     // every byte counts
  caseless,  // upper and lower case are the same, and dots and spaces at the end do not count
  unicode,   // and so are the forms that Unicode has for one text
};

// Two names that such a file system treats as the same give the same text. With `unknown`, so do all names that any known file
// system treats as the same. Bytes that are not UTF-8 are folded as ASCII.
std::string foldedName(std::string_view name, NameFolding folding);

}  // namespace platform
