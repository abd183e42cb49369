#include "KDXFileTools/kdxoffload/HashFormat.h"

#include <algorithm>
#include <array>

#include "digest/C4Digest.h"
#include "digest/KDXDigestContext.h"

namespace kdxoffload {

namespace {

struct Row {
  std::string_view name;
  std::size_t digits;       // of a hex text; 0: it is none
  std::string_view prefix;  // in front of the digits in the text of a FileDigest
  uint32_t algorithm;       // 0: this program can't compute it
};

// In the order of HashFormat.
constexpr std::array rows{
    Row{"c4", 0, "", KDXDigestAlgorithmNone},         Row{"md5", 32, "MD5:", KDXDigestAlgorithmMD5},
    Row{"sha1", 40, "SHA1:", KDXDigestAlgorithmSHA1}, Row{"xxh128", 32, "", KDXDigestAlgorithmNone},
    Row{"xxh3", 16, "", KDXDigestAlgorithmNone},      Row{"xxh64", 16, "XXHash64BE:", KDXDigestAlgorithmXXHash64BE}};

const Row& rowOf(HashFormat format) {
  return rows.at(static_cast<std::size_t>(format));
}

template <typename Condition>
std::optional<HashFormat> formatWhere(const Condition& condition) {
  const auto* const row = std::ranges::find_if(rows, condition);
  if (row == rows.end()) return std::nullopt;
  return static_cast<HashFormat>(row - rows.begin());
}

char inLowerCase(char letter) {
  return letter >= 'A' && letter <= 'F' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

}  // namespace

std::string_view nameOf(HashFormat format) {
  return rowOf(format).name;
}

std::optional<HashFormat> hashFormatFrom(std::string_view name) {
  return formatWhere([name](const Row& row) { return row.name == name; });
}

std::optional<std::string> hashValueFrom(HashFormat format, std::string_view text) {
  std::string value(text);
  if (format == HashFormat::c4) return C4Digest::isC4(text) ? std::optional(value) : std::nullopt;
  std::ranges::transform(value, value.begin(), inLowerCase);
  const bool isHex = value.find_first_not_of("0123456789abcdef") == std::string::npos;
  return isHex && value.size() == rowOf(format).digits ? std::optional(value) : std::nullopt;
}

std::optional<HashFormat> hashFormatOf(uint32_t algorithm) {
  if (algorithm == KDXDigestAlgorithmNone) return std::nullopt;
  return formatWhere([algorithm](const Row& row) { return row.algorithm == algorithm; });
}

std::string hashValueOf(const FileDigest& digest) {
  const std::string text = digest.text();
  return text.substr(text.find(':') + 1);
}

std::optional<FileDigest> fileDigestFrom(HashFormat format, std::string_view value) {
  const std::string_view prefix = rowOf(format).prefix;
  return prefix.empty() ? std::nullopt : FileDigest::fromText(std::string(prefix) + std::string(value));
}

}  // namespace kdxoffload
