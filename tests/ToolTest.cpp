// Whole runs of the built program: its lines, its exit status, what lies on disk.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::ElementsAre;

namespace {

using Names = std::vector<std::string>;

TEST(Tool, AnOffloadWithoutReadBackPrintsItsLinesInOrderAndLeavesTheFinalName) {
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  const std::string destination = scratch.file("backup/clip.mov");
  writeFile(source, mediaBytes(3 * MiB + 17));

  const ToolRun run = runTool({"-k", source, destination});

  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(
      run.lines(),
      ElementsAre("INFO: copying " + scratch.file("card") + "...", "hash MD5:" + digestByProgram("md5sum", source),
                  "Copy completed successfully for destination file with file size check (" + destination + ")",
                  "INFO: moving files in place..", "INFO: flushing files", "INFO: done.", ""));
  EXPECT_EQ((Names{"backup/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ(readFile(source), readFile(destination));
}

}  // namespace
