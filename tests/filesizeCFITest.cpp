#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

#include "extensions/filesizeCFI.h"
#include "tests/support/ScratchDirectory.h"

using platform::FileURL;

namespace {

TEST(filesizeCFI, IsTheSizeInBytes) {
  const ScratchDirectory scratch;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{4097}, MiB}) {
    const std::string path = scratch.file("clip.mov");
    writeFile(path, mediaBytes(size));
    EXPECT_EQ(size, filesizeCFI(FileURL(path)));
  }
}

TEST(filesizeCFI, IsRightBeyondFourGiB) {
  const ScratchDirectory scratch;
  const std::string path = scratch.file("clip.mov");
  writeFile(path, "");
  constexpr uint64_t size = (uint64_t{5} << 30) + 17;
  std::filesystem::resize_file(path, size);
  EXPECT_EQ(size, filesizeCFI(FileURL(path)));
}

TEST(filesizeCFI, GoesThroughSymbolicLinks) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), mediaBytes(1234));
  std::filesystem::create_symlink("clip.mov", scratch.path() / "link.mov");
  EXPECT_EQ(1234U, filesizeCFI(FileURL(scratch.file("link.mov"))));
}

TEST(filesizeCFI, OfAMissingFileIsNone) {
  const ScratchDirectory scratch;
  EXPECT_EQ(std::nullopt, filesizeCFI(FileURL(scratch.file("clip.mov"))));
}

TEST(filesizeCFI, OfALinkThatLeadsNowhereIsNone) {
  const ScratchDirectory scratch;
  std::filesystem::create_symlink("nowhere", scratch.path() / "link.mov");
  EXPECT_EQ(std::nullopt, filesizeCFI(FileURL(scratch.file("link.mov"))));
}

}  // namespace
