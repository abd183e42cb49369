#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "KDXFileTools/kdxoffload/ChecksumListFile.h"
#include "tests/support/ScratchDirectory.h"

using kdxoffload::ListOrigin;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const std::string lineOfA = "d41d8cd98f00b204e9800998ecf8427e  a\n";
const std::string lineOfB = "d41d8cd98f00b204e9800998ecf8427e  b\n";

class ChecksumListFile : public testing::Test {
 protected:
  bool write(const std::string& text, ListOrigin origin = ListOrigin::unknown) {
    const auto folder = platform::Folder::open(scratch.path(), nullptr).value();
    return kdxoffload::writeChecksumList(folder, "A001.md5", text, origin, &error);
  }
  [[nodiscard]] std::string content() const { return readFile(scratch.file("A001.md5")); }

  ScratchDirectory scratch;
  std::optional<platform::Error> error;
};

}  // namespace

TEST_F(ChecksumListFile, AListIsWrittenWhole) {
  EXPECT_TRUE(write(lineOfA + lineOfB));
  EXPECT_EQ(lineOfA + lineOfB, content());
  EXPECT_THAT(namesBelow(scratch.path()), ElementsAre("A001.md5"));
}

TEST_F(ChecksumListFile, AListThatSaysMoreReplacesTheOneBefore) {
  EXPECT_TRUE(write(lineOfB));
  EXPECT_TRUE(write(lineOfA + lineOfB));
  EXPECT_EQ(lineOfA + lineOfB, content());
}

TEST_F(ChecksumListFile, AListThatMayBeSomebodyElsesIsNeverReplaced) {
  const std::string others = lineOfA + "# by hand\n";
  for (const std::string& there : {lineOfB, others, std::string(1000, 'x')}) {
    writeFile(scratch.file("A001.md5"), there);
    EXPECT_FALSE(write(lineOfA));
    EXPECT_THAT(error.value().description.value(), HasSubstr("not of this program"));
    EXPECT_EQ(there, content());
  }
}

TEST_F(ChecksumListFile, AnOwnListIsReplacedWhateverItSays) {
  EXPECT_TRUE(write(lineOfA));
  EXPECT_TRUE(write(lineOfB, ListOrigin::ownFile));
  EXPECT_EQ(lineOfB, content());
}

TEST_F(ChecksumListFile, NothingButAFileIsReplaced) {
  std::filesystem::create_directory(scratch.path() / "A001.md5");
  EXPECT_FALSE(write(lineOfA, ListOrigin::ownFile));
  std::filesystem::remove(scratch.path() / "A001.md5");
  writeFile(scratch.file("elsewhere"), "");
  std::filesystem::create_symlink("elsewhere", scratch.path() / "A001.md5");
  EXPECT_FALSE(write(lineOfA, ListOrigin::ownFile));
  EXPECT_EQ("", readFile(scratch.file("elsewhere")));
}
