#pragma once

#include <bitset>
#include <cstdint>
#include <string_view>
#include <vector>

namespace kdxoffload {

// A pattern with wildcards, prepared for comparison with many texts. Bytes, not characters.
//
//   ?     one byte except "/"
//   *     any number of bytes except "/"
//   **    any number of bytes; at the beginning of a name "**/" is any number of folders, or none
//   [ab]  one of these bytes; [a-z] one of a range; [!a] or [^a] any other byte except "/"; a "]" that comes first is one of
//         the bytes
//
// A "[" without its "]" is a plain byte. Comparing takes time proportional to the product of both lengths.
class GlobPattern {
 public:
  explicit GlobPattern(std::string_view pattern);

  // True when the pattern stands for the whole text.
  [[nodiscard]] bool matches(std::string_view text) const;

 private:
  // One step of a match.
  struct Step {
    enum class Kind : uint8_t {
      one,      // one of the bytes
      many,     // any number of the bytes
      folders,  // nothing, or what the next step, `inside`, takes
      inside,   // any number of bytes that end with "/"
    };
    Kind kind = Kind::one;
    std::bitset<256> bytes{};
  };
  using Positions = std::vector<bool>;

  std::string_view addStepOf(std::string_view pattern, bool beginsName);
  std::string_view addChoice(std::string_view pattern);
  void enter(std::size_t position, Positions& positions) const;

  std::vector<Step> _steps;
};

}  // namespace kdxoffload
