#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/LegacyHashList.h"
#include "KDXFileTools/kdxoffload/ListError.h"

using kdxoffload::FileDigest;
using kdxoffload::ListedFile;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const std::string md5 = "d41d8cd98f00b204e9800998ecf8427e";
const std::string sha1 = "da39a3ee5e6b4b0d3255bfef95601890afd80709";

std::string listWith(const std::string& hashes, const std::string& version = "1.1") {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<hashlist version=\"" + version +
         "\">\n<creatorinfo><username>a</username><tool>b</tool></creatorinfo>\n" + hashes + "</hashlist>\n";
}

std::string hashOf(const std::string& file, const std::string& digests) {
  return "<hash><file>" + file +
         "</file><size>5</size><lastmodificationdate>2020-01-01T00:00:00Z</lastmodificationdate>" + digests +
         "<hashdate>2020-01-01T00:00:00Z</hashdate></hash>";
}

std::string digestFor(const std::string& digests) {
  const auto files = kdxoffload::readLegacyHashList(listWith(hashOf("a", digests)), nullptr);
  return files ? files->at(0).digest.text() : "";
}

std::string problemOf(const std::string& bytes) {
  std::optional<platform::Error> error;
  if (kdxoffload::readLegacyHashList(bytes, &error)) return "";
  EXPECT_EQ(kdxoffload::listErrorDomain, error.value().domain);
  return error->description.value_or("");
}

}  // namespace

TEST(LegacyHashList, TheFilesAreRead) {
  const auto files = kdxoffload::readLegacyHashList(
      listWith(hashOf("Clips/a&amp;b.mov", "<md5>" + md5 + "</md5>") + hashOf("./c", "<sha1>" + sha1 + "</sha1>")),
      nullptr);
  ASSERT_TRUE(files);
  const ListedFile first{.path = "Clips/a&b.mov", .size = 5, .digest = FileDigest::fromText("MD5:" + md5).value()};
  const ListedFile second{.path = "c", .size = 5, .digest = FileDigest::fromText("SHA1:" + sha1).value()};
  EXPECT_THAT(*files, ElementsAre(first, second));
}

TEST(LegacyHashList, EveryDigestThatCanBeComputedIsTaken) {
  EXPECT_EQ("MD5:" + md5, digestFor("<md5>D41D8CD98F00B204E9800998ECF8427E</md5>"));
  EXPECT_EQ("SHA1:" + sha1, digestFor("<sha1>" + sha1 + "</sha1>"));
  EXPECT_EQ("XXHash64BE:ef46db3751d8e999", digestFor("<xxhash64be>ef46db3751d8e999</xxhash64be>"));
  EXPECT_EQ("XXHash64BE:ef46db3751d8e999", digestFor("<xxhash64>99e9d85137db46ef</xxhash64>"));
}

TEST(LegacyHashList, OfSeveralTheQuickestIsTaken) {
  EXPECT_EQ("XXHash64BE:ef46db3751d8e999",
            digestFor("<md5>" + md5 + "</md5><sha1>" + sha1 + "</sha1><xxhash64be>ef46db3751d8e999</xxhash64be>"));
  EXPECT_EQ("SHA1:" + sha1, digestFor("<md5>" + md5 + "</md5><sha1>" + sha1 + "</sha1><xxhash>12</xxhash>"));
}

TEST(LegacyHashList, AFileWithoutSuchADigestIsRefused) {
  for (const char* digests : {"", "<xxhash>2020</xxhash>", "<null/>", "<md5>d41d8c</md5>", "<md5/>"}) {
    EXPECT_THAT(problemOf(listWith(hashOf("a", digests))), HasSubstr("\"a\" has no MD5")) << digests;
  }
}

TEST(LegacyHashList, AFileWithoutASizeIsTaken) {
  const auto files =
      kdxoffload::readLegacyHashList(listWith("<hash><file>a</file><md5>" + md5 + "</md5></hash>"), nullptr);
  ASSERT_TRUE(files);
  EXPECT_EQ(std::nullopt, files->at(0).size);
}

TEST(LegacyHashList, ASizeThatIsNoNumberIsRefused) {
  EXPECT_THAT(problemOf(listWith("<hash><file>a</file><size>big</size><md5>" + md5 + "</md5></hash>")),
              HasSubstr("no number"));
}

TEST(LegacyHashList, APathThatLeadsElsewhereIsRefused) {
  for (const char* path : {"", "/Volumes/card/a", "../a", "a/.."}) {
    EXPECT_THAT(problemOf(listWith(hashOf(path, "<md5>" + md5 + "</md5>"))), HasSubstr("does not lead")) << path;
  }
}

TEST(LegacyHashList, AnotherDocumentIsRefused) {
  EXPECT_THAT(problemOf(listWith("", "2.0")), HasSubstr("no media hash list 1.x"));
  EXPECT_THAT(problemOf("<files version=\"1.1\"/>"), HasSubstr("no media hash list 1.x"));
  EXPECT_THAT(problemOf(listWith("")), HasSubstr("no file in it"));
  EXPECT_THAT(problemOf("<hashlist"), HasSubstr("well-formed"));
}
