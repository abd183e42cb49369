#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/ListFile.h"

namespace {

const std::string md5 = "d41d8cd98f00b204e9800998ecf8427e";

std::string pathIn(const std::string& bytes) {
  const auto files = kdxoffload::readListFile(bytes, nullptr);
  return files ? files->at(0).path : "(none)";
}

}  // namespace

TEST(ListFile, TheBytesTellTheKind) {
  const std::string hash = "<hashlist version=\"1.0\"><hash><file>a</file><md5>" + md5 + "</md5></hash></hashlist>";
  EXPECT_EQ("a", pathIn(hash));
  EXPECT_EQ("a", pathIn("\xef\xbb\xbf \r\n" + hash));
  EXPECT_EQ("<b>", pathIn(md5 + "  <b>\n"));
}

TEST(ListFile, WhatIsNeitherIsRefused) {
  for (const char* bytes : {"", "<", "<html/>", "clip.mov", "\xff\xfe"}) {
    std::optional<platform::Error> error;
    EXPECT_FALSE(kdxoffload::readListFile(bytes, &error)) << bytes;
    EXPECT_NE("", error.value().description.value_or("")) << bytes;
  }
}

TEST(ListFile, ListsAreKnownByTheirNames) {
  for (const char* name : {"A001.mhl", "A001.md5", "A001.sha1", "A001.xxh64"})
    EXPECT_TRUE(kdxoffload::isNameOfListFile(name));
  for (const char* name : {"A001.mov", "md5", "A001.md5.kdxcopy"}) EXPECT_FALSE(kdxoffload::isNameOfListFile(name));
}
