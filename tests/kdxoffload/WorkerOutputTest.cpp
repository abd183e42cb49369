#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/WorkerOutput.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using namespace kdxoffload;

namespace {

WorkerOutput outputOf(std::size_t frames, std::size_t destinations, std::string_view text) {
  WorkerOutput output;
  output.startJob(frames, destinations);
  output.add(text);
  return output;
}

}  // namespace

TEST(WorkerOutput, TheDigestAndTheTimesOfARealRunAreRead) {
  const ScratchDirectory scratch;
  const std::string clip = scratch.file("clip.mov");
  writeFile(clip, mediaBytes(3 * MiB));
  const ToolRun run = runTool({"-v", "-t", "md5", clip, scratch.file("a/clip.mov"), scratch.file("b/clip.mov")});
  ASSERT_EQ(0, run.exitStatus) << run.output;
  const WorkerOutput output = outputOf(1, 2, run.output);
  ASSERT_EQ(1U, output.digests().size());
  EXPECT_EQ("MD5:" + digestByProgram("md5sum", clip), output.digests()[0].text());
  EXPECT_GT(output.secondsCopying(), 0);
  EXPECT_GT(output.secondsReadingBack(), 0);
  EXPECT_EQ(JobPhase::flushing, output.phase());
  EXPECT_EQ("", output.complaint());
}

TEST(WorkerOutput, EveryPrefixOfTheOutputLeadsToTheSameEnd) {
  const std::string text =
      "INFO: copying /card...\nINFO: copied 5 of 10 bytes\nhash XXHash64BE:ef46db3751d8e999\nINFO: verifying /card\n";
  for (std::size_t cut = 0; cut <= text.size(); ++cut) {
    WorkerOutput output = outputOf(1, 1, text.substr(0, cut));
    output.add(text.substr(cut));
    EXPECT_EQ(1U, output.digests().size());
    EXPECT_EQ(JobPhase::readingBack, output.phase());
  }
}

TEST(WorkerOutput, AReadBackIsAsFarAsItsSlowestReader) {
  WorkerOutput output = outputOf(1, 1, "INFO: verifying /a\nINFO: verified 8 of 9 bytes of path /a\n");
  EXPECT_EQ(0U, output.bytesInPhase());
  output.add("INFO: verified 3 of 9 bytes of path /b\n");
  EXPECT_EQ(3U, output.bytesInPhase());
  output.add("INFO: verified 9 of 9 bytes of path /b\n");
  EXPECT_EQ(8U, output.bytesInPhase());
}

TEST(WorkerOutput, MoreDigestsThanFramesAreNotTaken) {
  const std::string line = "hash XXHash64BE:ef46db3751d8e999\n";
  EXPECT_EQ(2U, outputOf(2, 1, line + line + line).digests().size());
}

TEST(WorkerOutput, LinesThatAreNotKnownArePassedOver) {
  const WorkerOutput output = outputOf(1, 1, "INFO: copied of bytes\nINFO: verified\nhash nonsense\nproved\n\n");
  EXPECT_EQ(0U, output.bytesInPhase());
  EXPECT_TRUE(output.digests().empty());
}

TEST(WorkerOutput, WhatWentWrongIsKept) {
  EXPECT_EQ("ERROR: could not open file at path: /card/x",
            outputOf(1, 1, "INFO: copying /card...\nERROR: could not open file at path: /card/x\n").complaint());
}
