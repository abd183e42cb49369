#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/GlobPattern.h"

using kdxoffload::GlobPattern;

namespace {

struct Row {
  std::string pattern;
  std::vector<std::string> matching;
  std::vector<std::string> others;
};

}  // namespace

TEST(GlobPattern, StandsForTheseTextsAndNotForThose) {
  const std::vector<Row> rows = {
      {"", {""}, {"a"}},
      {"clip.mov", {"clip.mov"}, {"clip", "clip.mov2", "Clip.mov", ""}},
      {"*.tmp", {".tmp", "a.tmp", "a.b.tmp"}, {"tmp", "a.tmp2", "a/b.tmp"}},
      {"a*b*c", {"abc", "aXbYc", "abbcbc"}, {"acb", "abcd", "a/bc"}},
      {"?", {"a", "\xff"}, {"", "ab", "/"}},
      {"a?c", {"abc"}, {"ac", "a/c"}},
      {"[abc]", {"a", "c"}, {"d", "", "ab"}},
      {"[a-c1]", {"a", "b", "c", "1"}, {"d", "-", "2"}},
      {"[!a-c]", {"d", "-"}, {"a", "c", "/", ""}},
      {"[^a]", {"b"}, {"a"}},
      {"[]a]", {"]", "a"}, {"b"}},
      {"[!]a]", {"b"}, {"]", "a"}},
      {"[a-]", {"a", "-"}, {"b"}},
      {"[a", {"[a"}, {"a"}},
      {"[]", {"[]"}, {"", "]"}},
      {"a[/]b", {}, {"a/b"}},
      {"**", {"", "a", "a/b/c"}, {}},
      {"a/**", {"a/", "a/b", "a/b/c"}, {"a", "ab"}},
      {"**/c", {"c", "a/c", "a/b/c"}, {"ac", "a/bc", "c/a"}},
      {"a/**/c", {"a/c", "a/b/c", "a/b/b/c"}, {"ac", "a/bc", "abc"}},
      {"**/a/**/b", {"a/b", "x/a/y/b", "x/x/a/b"}, {"b", "a", "xa/b"}},
      {"a**/b", {"a/b", "ax/y/b"}, {"ab", "b"}},
      {"***", {"", "a/b"}, {}},
      {"*a**", {"a", "xa", "a/b", "xa/y/z"}, {"x/a", "x"}},
      {"%d\\*", {"%d\\", "%d\\x"}, {"%d*"}},
      {"\xff*", {"\xff", "\xff\xfe"}, {"\xfe"}},
      {"a\nb", {"a\nb"}, {"a b"}},
  };
  for (const Row& row : rows) {
    const GlobPattern pattern(row.pattern);
    for (const std::string& text : row.matching) EXPECT_TRUE(pattern.matches(text)) << row.pattern << " | " << text;
    for (const std::string& text : row.others) EXPECT_FALSE(pattern.matches(text)) << row.pattern << " | " << text;
  }
}

TEST(GlobPattern, APatternOfManyStarsTakesNoLongTime) {
  std::string stars;
  for (int star = 0; star < 50; ++star) stars += "*a**/**/";
  EXPECT_FALSE(GlobPattern(stars + "b").matches(std::string(10'000, 'a')));
}
