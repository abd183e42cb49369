#include "platform/NameFolding.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "platform/Text.h"

namespace platform {

namespace {

bool isASCII(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string withoutDotsAndSpacesAtEnd(std::string_view name) {
  const std::size_t last = name.find_last_not_of(". ");
  return std::string(last == std::string_view::npos ? name : name.substr(0, last + 1));
}

void makeUpperASCII(std::string& text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
}

// Character by character, as in the tables of such file systems: one character never becomes two.
std::string upperCase(const std::string& text) {
  std::string upper;
  const auto* next = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  auto left = static_cast<utf8proc_ssize_t>(text.size());
  while (left > 0) {
    utf8proc_int32_t character = 0;
    const utf8proc_ssize_t used = utf8proc_iterate(next, left, &character);
    utf8proc_uint8_t bytes[4] = {};
    const utf8proc_ssize_t length = utf8proc_encode_char(utf8proc_toupper(character), bytes);
    upper.append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
    next += used;
    left -= used;
  }
  return upper;
}

std::string decomposedWithoutCase(const std::string& text) {
  struct Free {
    void operator()(utf8proc_uint8_t* bytes) const { std::free(bytes); }
  };
  utf8proc_uint8_t* made = nullptr;
  const auto options =
      static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE | UTF8PROC_CASEFOLD | UTF8PROC_IGNORE);
  const utf8proc_ssize_t length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                               static_cast<utf8proc_ssize_t>(text.size()), &made, options);
  const std::unique_ptr<utf8proc_uint8_t, Free> owner(made);
  if (length < 0) return text;
  return {reinterpret_cast<const char*>(made), static_cast<std::size_t>(length)};
}

}  // namespace

std::string foldedName(std::string_view name, NameFolding folding) {
  if (folding == NameFolding::exact) return std::string(name);
  std::string folded = withoutDotsAndSpacesAtEnd(name);
  makeUpperASCII(folded);
  if (isASCII(folded) || !isUTF8(folded)) return folded;
  folded = upperCase(folded);
  if (folding == NameFolding::caseless) return folded;
  folded = decomposedWithoutCase(folded);
  makeUpperASCII(folded);
  return folded;
}

}  // namespace platform
