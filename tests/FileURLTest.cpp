#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/FileURL.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"

using platform::FileURL;

namespace {

// Runs in a working directory of its own and goes back afterwards.
class RelativeFileURL : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::current_path(_scratch.path()); }
  void TearDown() override { std::filesystem::current_path(_before); }

  const ScratchDirectory& scratch() const { return _scratch; }

 private:
  std::filesystem::path _before = std::filesystem::current_path();
  ScratchDirectory _scratch;
};

struct PathRow : NamedRow {
  const char* given;
  const char* expected;
};

class AbsolutePath : public testing::TestWithParam<PathRow> {};

TEST_P(AbsolutePath, IsTakenLexically) {
  EXPECT_EQ(GetParam().expected, FileURL(GetParam().given).path());
}

INSTANTIATE_TEST_SUITE_P(FileURL, AbsolutePath,
                         testing::Values(PathRow{"Plain", "/a/clip.mov", "/a/clip.mov"},
                                         PathRow{"DotStays", "/a/./clip.mov", "/a/./clip.mov"},
                                         PathRow{"DotDotStays", "/a/../clip.mov", "/a/../clip.mov"},
                                         PathRow{"DoubledSlashStays", "/a//clip.mov", "/a//clip.mov"},
                                         PathRow{"DoubledSlashInFrontStays", "//a", "//a"},
                                         PathRow{"SlashAtTheEndGoes", "/a/b/", "/a/b"},
                                         PathRow{"SlashesAtTheEndGo", "/a/b///", "/a/b"}, PathRow{"Root", "/", "/"},
                                         PathRow{"RootOfManySlashes", "///", "/"},
                                         PathRow{"SpacesStay", "/a b/c d ", "/a b/c d "}),
                         rowName);

class DeletedPathExtension : public testing::TestWithParam<PathRow> {};

TEST_P(DeletedPathExtension, IsTheLastDotOfTheLastComponentAndWhatFollows) {
  EXPECT_EQ(GetParam().expected, FileURL(GetParam().given).deletingPathExtension().path());
}

INSTANTIATE_TEST_SUITE_P(FileURL, DeletedPathExtension,
                         testing::Values(PathRow{"Extension", "/a/clip.mov", "/a/clip"},
                                         PathRow{"LastOfTwo", "/a/clip.mov.kdxcopy", "/a/clip.mov"},
                                         PathRow{"None", "/a/clip", "/a/clip"},
                                         PathRow{"HiddenFile", "/a/.clip", "/a/.clip"},
                                         PathRow{"HiddenFileWithExtension", "/a/.clip.kdxcopy", "/a/.clip"},
                                         PathRow{"OfTheFolderAlone", "/a.b/clip", "/a.b/clip"},
                                         PathRow{"DotAtTheEnd", "/a/clip.", "/a/clip"},
                                         PathRow{"DoubledDot", "/a/clip..kdxcopy", "/a/clip."},
                                         PathRow{"Root", "/", "/"}),
                         rowName);

class DeletedLastPathComponent : public testing::TestWithParam<PathRow> {};

TEST_P(DeletedLastPathComponent, LeavesTheFolder) {
  EXPECT_EQ(GetParam().expected, FileURL(GetParam().given).deletingLastPathComponent().path());
}

INSTANTIATE_TEST_SUITE_P(FileURL, DeletedLastPathComponent,
                         testing::Values(PathRow{"Deep", "/a/b/clip.mov", "/a/b"}, PathRow{"BelowTheRoot", "/b", "/"},
                                         PathRow{"Root", "/", "/"}, PathRow{"DoubledSlash", "/a//b", "/a"},
                                         PathRow{"SlashAtTheEnd", "/a/b/", "/a"}),
                         rowName);

class LastPathComponent : public testing::TestWithParam<PathRow> {};

TEST_P(LastPathComponent, IsTheName) {
  EXPECT_EQ(GetParam().expected, FileURL(GetParam().given).lastPathComponent());
}

INSTANTIATE_TEST_SUITE_P(FileURL, LastPathComponent,
                         testing::Values(PathRow{"Deep", "/a/b/clip.mov", "clip.mov"},
                                         PathRow{"BelowTheRoot", "/b", "b"}, PathRow{"Root", "/", "/"},
                                         PathRow{"SlashAtTheEnd", "/a/b/", "b"}),
                         rowName);

class AppendedAndDeletedExtension : public testing::TestWithParam<PathRow> {};

TEST_P(AppendedAndDeletedExtension, GivesTheTemporaryNameAndTheFinalOneBack) {
  const FileURL temporary = FileURL(GetParam().given).appendingPathExtension("kdxcopy");
  EXPECT_EQ(GetParam().expected, temporary.path());
  EXPECT_EQ(FileURL(GetParam().given), temporary.deletingPathExtension());
}

INSTANTIATE_TEST_SUITE_P(FileURL, AppendedAndDeletedExtension,
                         testing::Values(PathRow{"WithExtension", "/a/clip.mov", "/a/clip.mov.kdxcopy"},
                                         PathRow{"WithoutExtension", "/a/clip", "/a/clip.kdxcopy"},
                                         PathRow{"HiddenFile", "/a/.clip", "/a/.clip.kdxcopy"},
                                         PathRow{"SlashAtTheEnd", "/a/clip/", "/a/clip.kdxcopy"},
                                         PathRow{"DotAtTheEnd", "/a/clip.", "/a/clip..kdxcopy"},
                                         PathRow{"RootHasNoNameToExtend", "/", "/"}),
                         rowName);

TEST(FileURL, AComponentIsAppendedWithOneSlash) {
  EXPECT_EQ("/a/clip.mov", FileURL("/a").appendingPathComponent("clip.mov").path());
  EXPECT_EQ("/a/clip.mov", FileURL("/a/").appendingPathComponent("clip.mov").path());
  EXPECT_EQ("/clip.mov", FileURL("/").appendingPathComponent("clip.mov").path());
}

TEST(FileURL, TwoAreEqualWhenTheirPathsAre) {
  EXPECT_EQ(FileURL("/a/b"), FileURL("/a/b/"));
  EXPECT_NE(FileURL("/a/b"), FileURL("/a//b"));
}

TEST(FileURL, AnArgumentThatIsNotUTF8GivesNone) {
  EXPECT_EQ(std::nullopt, FileURL::fromArgument("/a/clip\xff.mov"));
}

TEST(FileURL, AnArgumentInUTF8KeepsItsBytes) {
  const std::optional<FileURL> composed = FileURL::fromArgument("/a/\xc3\xa4.mov");
  const std::optional<FileURL> decomposed = FileURL::fromArgument("/a/a\xcc\x88.mov");
  ASSERT_TRUE(composed && decomposed);
  EXPECT_EQ("/a/\xc3\xa4.mov", composed->path());
  EXPECT_EQ("/a/a\xcc\x88.mov", decomposed->path());
}

TEST_F(RelativeFileURL, IsPutBehindTheWorkingDirectory) {
  EXPECT_EQ(scratch().path().string() + "/card/clip.mov", FileURL("card/clip.mov").path());
  EXPECT_EQ(scratch().path().string() + "/./clip.mov", FileURL("./clip.mov").path());
  EXPECT_EQ(scratch().path().string() + "/../clip.mov", FileURL("../clip.mov").path());
  EXPECT_EQ(scratch().path().string() + "/card", FileURL("card/").path());
}

TEST_F(RelativeFileURL, DoesNotFollowLaterChangesOfTheWorkingDirectory) {
  const FileURL file("clip.mov");
  std::filesystem::current_path("/");
  EXPECT_EQ(scratch().file("clip.mov"), file.path());
}

TEST_F(RelativeFileURL, HasOneSlashBehindTheRoot) {
  std::filesystem::current_path("/");
  EXPECT_EQ("/clip.mov", FileURL("clip.mov").path());
}

TEST_F(RelativeFileURL, StaysRelativeWhenTheWorkingDirectoryWasRemoved) {
  const std::filesystem::path gone = scratch().path() / "gone";
  std::filesystem::create_directory(gone);
  std::filesystem::current_path(gone);
  std::filesystem::remove(gone);
  EXPECT_EQ("clip.mov", FileURL("clip.mov").path());
}

TEST_F(RelativeFileURL, KeepsSymbolicLinksAsTheyAre) {
  std::filesystem::create_directory(scratch().path() / "real");
  std::filesystem::create_directory_symlink("real", scratch().path() / "link");
  EXPECT_EQ(scratch().path().string() + "/link/clip.mov", FileURL("link/clip.mov").path());
}

}  // namespace
