#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/MessageLines.h"

using namespace kdxoffload;

namespace {

constexpr bool loud = false;
constexpr bool quiet = true;

TEST(MessageLines, SayWhatIsPlanned) {
  EXPECT_EQ(
      "kdxoffload: /card to /a, /b: 12 files (900 bytes), 3 folders, 1 link, 0 sequences\n",
      messageLines(
          Planned{.card = "/card", .destinations = {"/a", "/b"}, .files = 12, .folders = 3, .links = 1, .bytes = 900},
          loud));
}

TEST(MessageLines, SayWhatWasProvedBeforeAndThatNothingWillBeReadBack) {
  EXPECT_EQ(
      "kdxoffload: c to d: 12 files (900 bytes), 0 folders, 0 links, 2 sequences; 1 file proved before; nothing will "
      "be "
      "read back\n",
      messageLines(Planned{.card = "c",
                           .destinations = {"d"},
                           .files = 12,
                           .bytes = 900,
                           .sequences = 2,
                           .filesDoneBefore = 1,
                           .readBack = false},
                   loud));
}

TEST(MessageLines, AreOneLineWhateverTheNamesAre) {
  EXPECT_EQ("kdxoffload: warning: Frame missing in \"a\\x0a\\x1b[2J\".\n",
            messageLines(Warned{.text = "Frame missing in \"a\n\x1b[2J\"."}, loud));
  EXPECT_EQ("kdxoffload: Not UTF-8: b\\xe9\\\\.mov\n",
            messageLines(ErrorReported{.text = "Not UTF-8", .path = "b\xe9\\.mov"}, loud));
}

TEST(MessageLines, NameThePathOnce) {
  EXPECT_EQ("kdxoffload: warning: no more frames behind a.dpx\n",
            messageLines(Warned{.text = "no more frames behind a.dpx", .path = "a.dpx"}, loud));
}

TEST(MessageLines, SayThatASecondSignalEndsAtOnce) {
  EXPECT_EQ("kdxoffload: stopping the running jobs; the same signal again ends at once\n",
            messageLines(Stopping{.signal = 2}, loud));
}

TEST(MessageLines, AreErrorsAloneWhenQuiet) {
  EXPECT_EQ("", messageLines(Planned{.card = "c"}, quiet));
  EXPECT_EQ("", messageLines(Warned{.text = "w"}, quiet));
  EXPECT_EQ("", messageLines(Stopping{.signal = 2}, quiet));
  EXPECT_EQ("kdxoffload: e\n", messageLines(ErrorReported{.text = "e"}, quiet));
}

TEST(MessageLines, AreNoneForWhatConcernsOneFile) {
  EXPECT_EQ("", messageLines(FileEnded{.path = "a"}, loud));
  EXPECT_EQ("", messageLines(Progress{}, loud));
}

}  // namespace
