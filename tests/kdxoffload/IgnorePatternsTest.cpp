#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/IgnorePatterns.h"

using kdxoffload::IgnorePatterns;

namespace {

bool leavesOut(const std::vector<std::string>& patterns, const std::string& path) {
  return IgnorePatterns(patterns).leavesOut(path);
}

}  // namespace

TEST(IgnorePatterns, WithoutPatternsNothingIsLeftOut) {
  EXPECT_FALSE(leavesOut({}, "a/b"));
  EXPECT_FALSE(leavesOut({"", "/", "# a comment"}, "a/b"));
}

TEST(IgnorePatterns, ANameIsLeftOutAtAnyDepth) {
  EXPECT_TRUE(leavesOut({".DS_Store"}, ".DS_Store"));
  EXPECT_TRUE(leavesOut({".DS_Store"}, "a/b/.DS_Store"));
  EXPECT_FALSE(leavesOut({".DS_Store"}, "a/.DS_Store2"));
}

TEST(IgnorePatterns, WhatIsBelowAFolderThatIsLeftOutIsLeftOut) {
  EXPECT_TRUE(leavesOut({"ascmhl"}, "a/ascmhl/0001.mhl"));
  EXPECT_TRUE(leavesOut({"ascmhl/"}, "ascmhl/0001.mhl"));
}

TEST(IgnorePatterns, APatternForFoldersIsNotForFiles) {
  const IgnorePatterns patterns({"cache/"});
  EXPECT_TRUE(patterns.matches("a/cache", true));
  EXPECT_FALSE(patterns.matches("a/cache", false));
}

TEST(IgnorePatterns, APatternWithASlashIsForAPath) {
  for (const char* pattern : {"a/b", "/a/b"}) {
    EXPECT_TRUE(leavesOut({pattern}, "a/b")) << pattern;
    EXPECT_FALSE(leavesOut({pattern}, "c/a/b")) << pattern;
  }
  EXPECT_TRUE(leavesOut({"/top"}, "top"));
  EXPECT_FALSE(leavesOut({"/top"}, "a/top"));
}

TEST(IgnorePatterns, WildcardsStandForOthers) {
  EXPECT_TRUE(leavesOut({"*.tmp"}, "a/b.tmp"));
  EXPECT_TRUE(leavesOut({"a/**/c"}, "a/b/b/c"));
  EXPECT_TRUE(leavesOut({"a/*/c"}, "a/b/c"));
  EXPECT_FALSE(leavesOut({"a/*/c"}, "a/b/b/c"));
  EXPECT_TRUE(leavesOut({"clip[0-9]"}, "clip1"));
}

TEST(IgnorePatterns, ALaterPatternTakesInAgain) {
  EXPECT_FALSE(leavesOut({"*.txt", "!keep.txt"}, "keep.txt"));
  EXPECT_TRUE(leavesOut({"!keep.txt", "*.txt"}, "keep.txt"));
}

TEST(IgnorePatterns, EscapedMarksAreLettersLikeOthers) {
  EXPECT_TRUE(leavesOut({"\\#a"}, "#a"));
  EXPECT_TRUE(leavesOut({"\\!a"}, "!a"));
  EXPECT_TRUE(leavesOut({"a\\*"}, "a*"));
  EXPECT_FALSE(leavesOut({"a\\*"}, "ab"));
  EXPECT_TRUE(leavesOut({"a  "}, "a"));
  EXPECT_TRUE(leavesOut({"a\\ "}, "a "));
  EXPECT_FALSE(leavesOut({"a\\ "}, "a"));
}

TEST(IgnorePatterns, TheUsualOnesLeaveOutHistories) {
  EXPECT_TRUE(leavesOut(IgnorePatterns::usual(), "ascmhl/ascmhl_chain.xml"));
  EXPECT_TRUE(leavesOut(IgnorePatterns::usual(), "a/.DS_Store"));
  EXPECT_FALSE(leavesOut(IgnorePatterns::usual(), "a/clip.mov"));
}

TEST(IgnorePatterns, AnyNameHasAPatternThatStandsForItAlone) {
  const std::vector<std::string> names{"report.html", "#1", "!1",  "a*b", "a?b",  "[a]", "a\\b",
                                       " a ",         "a ", "a  ", "\\",  "[!a]", "**"};
  for (const std::string& name : names) {
    for (const std::string& other : names) {
      EXPECT_EQ(name == other, leavesOut({IgnorePatterns::patternFor(name)}, other)) << name << " | " << other;
    }
    EXPECT_TRUE(leavesOut({IgnorePatterns::patternFor(name)}, "folder/" + name)) << name;
  }
}
