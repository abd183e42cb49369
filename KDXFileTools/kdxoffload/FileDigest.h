#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kdxoffload {

// The digest of a file, small enough to keep one for each of a hundred thousand files. A plain value.
struct FileDigest {
  static constexpr std::size_t longest = 20;  // bytes, those of SHA1

  uint32_t algorithm = 0;                // a KDXDigestAlgorithm code; 0: there is no digest
  std::array<uint8_t, longest> bytes{};  // in the order of the hex text; 0 after the algorithm's own length
  bool operator==(const FileDigest&) const = default;

  // From a text like "XXHash64BE:ef46db3751d8e999"; none when the name is unknown or the number of digits is wrong.
  static std::optional<FileDigest> fromText(std::string_view text);
  // That text; empty if there is no digest.
  [[nodiscard]] std::string text() const;
};

}  // namespace kdxoffload
