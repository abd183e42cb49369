// The settings file.

#include <algorithm>
#include <memory>
#include <string>

#include "Fuzz.h"
#include "platform/Settings.h"

namespace {

constexpr std::string_view key = "readBufferSizeMB";

int64_t valueIn(std::string text) {
  // A stream over memory needs at least one byte.
  if (text.empty()) text = "\n";
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(::fmemopen(text.data(), text.size(), "r"), std::fclose);
  require(stream != nullptr, "there is a stream");
  return platform::integerForKey(stream.get(), key);
}

// True when the number follows a separator somewhere in the text, apart from white space.
bool isGiven(const std::string& text, int64_t value) {
  constexpr int decimal = 10;
  for (std::size_t at = 0; (at = text.find_first_of("=:", at)) != std::string::npos;) {
    if (std::strtoll(text.c_str() + ++at, nullptr, decimal) == value) return true;
  }
  return false;
}

std::string asComments(const std::string& text) {
  std::string commented = "# ";
  for (const char c : text) {
    commented += c;
    if (c == '\n') commented += "# ";
  }
  return commented;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(textOf(data, size));
  const int64_t value = valueIn(text);
  require(value == valueIn(text), "the same text has the same value");
  require(value == 0 || (text.find(key) != std::string::npos && isGiven(text, value)), "a value is one of the file");
  require(valueIn(text + "\n" + std::string(key) + " = 7\n") == 7, "the last line with the key counts");
  require(valueIn(text + "\n; " + std::string(key) + " = 7\nother = 8\n") == value, "other lines change nothing");
  require(valueIn(asComments(text)) == 0, "comments set nothing");
  return 0;
}
