#include "KDXFileTools/kdxoffload/FileDigest.h"

#include <fmt/format.h>

#include <charconv>

#include "digest/KDXDigestContext.h"

namespace kdxoffload {

namespace {

struct Method {
  uint32_t algorithm;
  std::string_view name;
  std::size_t length;  // bytes
};

constexpr std::array methods{Method{KDXDigestAlgorithmMD5, "MD5", 16}, Method{KDXDigestAlgorithmSHA1, "SHA1", 20},
                             Method{KDXDigestAlgorithmXXHash64BE, "XXHash64BE", 8}};

constexpr int hexadecimal = 16;

}  // namespace

std::optional<FileDigest> FileDigest::fromText(std::string_view text) {
  for (const Method& method : methods) {
    if (!text.starts_with(method.name) || !text.substr(method.name.size()).starts_with(':')) continue;
    const std::string_view digits = text.substr(method.name.size() + 1);
    if (digits.size() != 2 * method.length) return std::nullopt;
    FileDigest digest{.algorithm = method.algorithm};
    for (std::size_t index = 0; index < method.length; ++index) {
      const char* const pair = digits.data() + 2 * index;
      if (std::from_chars(pair, pair + 2, digest.bytes[index], hexadecimal).ptr != pair + 2) return std::nullopt;
    }
    return digest;
  }
  return std::nullopt;
}

std::string FileDigest::text() const {
  for (const Method& method : methods) {
    if (method.algorithm != algorithm) continue;
    std::string text = fmt::format("{}:", method.name);
    for (std::size_t index = 0; index < method.length; ++index) text += fmt::format("{:02x}", bytes[index]);
    return text;
  }
  return "";
}

}  // namespace kdxoffload
