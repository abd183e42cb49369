#include "tests/support/ExpectedText.h"

#include <algorithm>
#include <cstddef>

std::string text(std::initializer_list<std::string> parts) {
  std::string whole;
  for (const std::string& part : parts) whole += part;
  return whole;
}

std::string replaced(std::string in, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = in.find(what, at)) != std::string::npos; at += with.size())
    in.replace(at, what.size(), with);
  return in;
}

std::vector<std::string> wordsOf(std::string_view text) {
  std::vector<std::string> words;
  if (text.empty()) return words;
  for (std::size_t space = 0; (space = text.find(' ')) != std::string_view::npos; text.remove_prefix(space + 1)) {
    words.emplace_back(text.substr(0, space));
  }
  words.emplace_back(text);
  return words;
}

std::string bytesTurnedRound(const std::string& digits) {
  std::string result;
  for (std::size_t at = digits.size(); at >= 2; at -= 2) result += digits.substr(at - 2, 2);
  return result;
}

std::string inCapitals(std::string digits) {
  std::ranges::transform(digits, digits.begin(),
                         [](char c) { return c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c; });
  return digits;
}
