#pragma once

#include <bitset>
#include <cstdint>
#include <string_view>
#include <vector>

namespace kdxoffload {

// A pattern with wildcards, ready to be compared with many texts. Bytes, not characters.
//
//   ?     one byte, but for "/"
//   *     any number of them
//   **    any number of bytes; where a name begins, "**/" is any number of folders, none too
//   [ab]  one of these bytes, [a-z] of a range, [!a] or [^a] any other one but "/"; "]" is one of them where it comes first
//
// A "[" without an end is a byte like others. Takes time in proportion to the lengths of both, whatever they are.
class GlobPattern {
 public:
  explicit GlobPattern(std::string_view pattern);

  // True when the pattern stands for the whole text.
  [[nodiscard]] bool matches(std::string_view text) const;

 private:
  // One step of a match. Optional ones may be passed over without a byte, repeated ones take any number of them.
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
