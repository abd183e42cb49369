// Cards of very many folders, each offloaded once and looked at again.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/CardOffload.h"

namespace fs = std::filesystem;

namespace {

using OffloadManyFolders = CardOffload;

constexpr int manyFolders = 10'000;

}  // namespace

TEST_F(OffloadManyFolders, TenThousandSideBySideArrive) {
  for (int folder = 0; folder < manyFolders; ++folder)
    fs::create_directory(fs::path(path("card")) / std::to_string(folder));
  writeFile(path("card/9999/clip.mov"), "wide");
  EXPECT_EQ(0, offload({"card", "a"}).exitStatus);
  EXPECT_EQ(everythingIn("card"), withoutManifests(everythingIn("a")));
}

TEST_F(OffloadManyFolders, TenThousandOneInAnotherArrive) {
  const fs::path home = fs::current_path();
  fs::current_path(path("card"));
  for (int level = 0; level < manyFolders; ++level) {
    fs::create_directory("d");
    fs::current_path("d");
  }
  writeFile("clip.mov", "deep");
  fs::current_path(home);
  const ToolRun run = offload({"card", "a"});
  EXPECT_EQ(0, run.exitStatus) << run.output.substr(0, 2000);
  EXPECT_THAT(lastLine(run), testing::MatchesRegex("SAFE TO ERASE: 1 file .*"));
  EXPECT_EQ(0, offload({"card", "a"}).exitStatus);
}
