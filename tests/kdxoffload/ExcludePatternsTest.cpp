#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/ExcludePatterns.h"

using kdxoffload::ExcludePatterns;

TEST(ExcludePatterns, WithoutPatternsNothingIsLeftOut) {
  EXPECT_FALSE(ExcludePatterns().matches("clip.mov"));
}

TEST(ExcludePatterns, ANameIsLeftOutAtAnyDepth) {
  const ExcludePatterns patterns({"*.tmp"});
  EXPECT_TRUE(patterns.matches("a.tmp"));
  EXPECT_TRUE(patterns.matches("a/b/c.tmp"));
  EXPECT_FALSE(patterns.matches("a.tmp/clip.mov"));
}

TEST(ExcludePatterns, APathIsLeftOutFromTheCardsRoot) {
  for (const char* pattern : {"DCIM/*.thm", "/DCIM/*.thm"}) {
    const ExcludePatterns patterns({pattern});
    EXPECT_TRUE(patterns.matches("DCIM/1.thm")) << pattern;
    EXPECT_FALSE(patterns.matches("A/DCIM/1.thm")) << pattern;
    EXPECT_FALSE(patterns.matches("DCIM/100/1.thm")) << pattern;
  }
}

TEST(ExcludePatterns, ASlashAtTheStartTiesANameToTheRoot) {
  const ExcludePatterns patterns({"/Thumbs"});
  EXPECT_TRUE(patterns.matches("Thumbs"));
  EXPECT_FALSE(patterns.matches("a/Thumbs"));
}

TEST(ExcludePatterns, ASlashAtTheEndChangesNothing) {
  const ExcludePatterns patterns({"Thumbs/"});
  EXPECT_TRUE(patterns.matches("a/Thumbs"));
}

TEST(ExcludePatterns, EachPatternLeavesOutWhatItStandsFor) {
  const ExcludePatterns patterns({"*.tmp", "a/**/b"});
  EXPECT_TRUE(patterns.matches("x/y.tmp"));
  EXPECT_TRUE(patterns.matches("a/x/y/b"));
  EXPECT_FALSE(patterns.matches("clip.mov"));
}
