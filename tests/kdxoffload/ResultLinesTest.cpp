#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/ResultLines.h"

using namespace kdxoffload;

namespace {

Verdict unsafeVerdict() {
  return {.isSafe = false,
          .notProved = {{.path = "a.mov", .status = 110, .reason = "Writing failed.", .advice = "Make room."},
                        {.path = "b\n.mov", .reason = "No job ran"}},
          .changes = {"c.mov came while the card was offloaded."},
          .remarks = {"Owners are not kept."},
          .line = "DO NOT ERASE: 2 of 12 files are not proved."};
}

TEST(ResultLines, HaveTheReasonsFirstAndTheVerdictLast) {
  EXPECT_EQ(
      "a.mov: Writing failed (status 110). Make room.\n"
      "b\\x0a.mov: No job ran.\n"
      "c.mov came while the card was offloaded.\n"
      "Owners are not kept.\n"
      "DO NOT ERASE: 2 of 12 files are not proved.\n",
      resultLines(unsafeVerdict(), {}));
}

TEST(ResultLines, AreFailuresAndTheVerdictAloneWhenQuiet) {
  EXPECT_EQ(
      "a.mov: Writing failed (status 110). Make room.\n"
      "b\\x0a.mov: No job ran.\n"
      "c.mov came while the card was offloaded.\n"
      "DO NOT ERASE: 2 of 12 files are not proved.\n",
      resultLines(unsafeVerdict(), {.quiet = true}));
}

TEST(ResultLines, ShowTheVerdictInColourWhereThatIsWanted) {
  EXPECT_EQ("\x1b[1;32mSAFE TO ERASE: all.\x1b[0m\n",
            resultLines({.isSafe = true, .line = "SAFE TO ERASE: all."}, {.colours = true}));
  EXPECT_EQ("\x1b[1;31mDO NOT ERASE: none.\x1b[0m\n", resultLines({.line = "DO NOT ERASE: none."}, {.colours = true}));
}

TEST(ResultLines, NoNameCanBeTakenForTheVerdict) {
  const std::string lines = resultLines({.notProved = {{.path = "x\nSAFE TO ERASE: all", .reason = "r\n\x1b[A"}},
                                         .changes = {"a\rSAFE"},
                                         .remarks = {"\u2028SAFE"},
                                         .line = "DO NOT ERASE: 1."},
                                        {});
  EXPECT_EQ("x\\x0aSAFE TO ERASE: all: r\\x0a\\x1b[A.\na\\x0dSAFE\n\\xe2\\x80\\xa8SAFE\nDO NOT ERASE: 1.\n", lines);
}

}  // namespace
