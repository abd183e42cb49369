#include "digest/C4Digest.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace {

constexpr std::string_view prefix = "c4";
// Without 0, O, I and l, which look like others.
constexpr std::string_view digits = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";
constexpr std::size_t places = 88;  // as many as the largest number has

using Number = std::array<uint8_t, SHA512_DIGEST_LENGTH>;  // big-endian

// Divides the number by the base, and returns the remainder.
std::size_t divide(Number& number) {
  constexpr std::size_t bytes = 256;
  std::size_t remainder = 0;
  for (uint8_t& byte : number) {
    const std::size_t part = remainder * bytes + byte;
    byte = static_cast<uint8_t>(part / digits.size());
    remainder = part % digits.size();
  }
  return remainder;
}

}  // namespace

C4Digest::C4Digest() {
  SHA512_Init(&_context);
}

void C4Digest::update(std::string_view bytes) {
  SHA512_Update(&_context, bytes.data(), bytes.size());
}

std::string C4Digest::finalize() {
  Number number{};
  SHA512_Final(number.data(), &_context);
  std::string text(prefix);
  text.resize(prefix.size() + places);
  for (std::size_t place = text.size(); place > prefix.size(); --place) text[place - 1] = digits[divide(number)];
  return text;
}

std::string C4Digest::of(std::string_view bytes) {
  C4Digest digest;
  digest.update(bytes);
  return digest.finalize();
}

bool C4Digest::isC4(std::string_view text) {
  return text.size() == prefix.size() + places && text.starts_with(prefix) &&
         text.find_first_not_of(digits, prefix.size()) == std::string_view::npos;
}
