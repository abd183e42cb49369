#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/ListPath.h"

using kdxoffload::isListName;
using kdxoffload::isListPath;

TEST(ListPath, NamesWithSlashesBetweenThemLeadSomewhere) {
  for (const char* path : {"clip.mov", "a/b/c", "...", ".hidden", "a/..b", " ", "a\nb", "-"}) {
    EXPECT_TRUE(isListPath(path)) << path;
  }
}

TEST(ListPath, WhatLeadsElsewhereIsNone) {
  for (const char* path : {"", "/", "/a", "a/", "a//b", "..", "../a", "a/..", "a/../b", ".", "./a", "a/."}) {
    EXPECT_FALSE(isListPath(path)) << path;
  }
  EXPECT_FALSE(isListPath(std::string("a\0b", 3)));
}

TEST(ListPath, ANameHasNoSlash) {
  EXPECT_TRUE(isListName("clip.mov"));
  EXPECT_FALSE(isListName("a/b"));
  EXPECT_FALSE(isListName(".."));
}
