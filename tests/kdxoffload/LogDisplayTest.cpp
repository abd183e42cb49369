#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/LogDisplay.h"
#include "tests/support/WrittenStream.h"

using namespace kdxoffload;

namespace {

class LogDisplayTest : public testing::Test {
 protected:
  WrittenStream results;
  WrittenStream messages;
  LogDisplay display{results.stream(), messages.stream(), false};
};

const FileDigest digest = FileDigest::fromText("XXHash64BE:ef46db3751d8e999").value();

TEST_F(LogDisplayTest, SaysALineForEachFileThatEnded) {
  display.take(JobStarted{.job = 1, .path = "a.mov", .bytes = 900});
  display.take(JobEnded{.job = 1});
  display.take(
      FileEnded{.path = "a.mov", .size = 900, .digest = digest, .outcome = FileOutcome::proved, .jobSeconds = 2.06});
  display.take(
      FileEnded{.path = "b.mov", .size = 5, .digest = digest, .outcome = FileOutcome::adopted, .jobSeconds = 1});
  display.take(FileEnded{.path = "c\n.mov", .outcome = FileOutcome::failed, .status = 110, .reason = "no room"});
  display.take(FileEnded{.path = "d.mov", .outcome = FileOutcome::failed, .reason = "the card changed"});
  display.take(FileEnded{.path = "e.tmp", .outcome = FileOutcome::excluded});
  display.take(FileEnded{.path = "f.mov", .outcome = FileOutcome::alreadyProved});

  EXPECT_EQ(
      "proved: a.mov (900 bytes, XXHash64BE:ef46db3751d8e999, 2.1 s)\n"
      "stood there and is equal: b.mov (5 bytes, XXHash64BE:ef46db3751d8e999, 1.0 s)\n"
      "failed: c\\x0a.mov: no room (status 110)\n"
      "failed: d.mov: the card changed\n"
      "left out: e.tmp\n",
      messages.text());
  EXPECT_EQ("", results.text());
}

TEST_F(LogDisplayTest, DoesNotCallProvedWhatIsNotReadBack) {
  display.take(Planned{.card = "c", .destinations = {"d"}, .readBack = false});
  display.take(FileEnded{.path = "a.mov", .size = 9, .digest = digest, .outcome = FileOutcome::proved});
  EXPECT_THAT(messages.text(), testing::HasSubstr("\ncopied: a.mov (9 bytes, "));
}

TEST_F(LogDisplayTest, SaysOneLineForASequence) {
  display.take(JobStarted{.job = 4, .path = "p.1-3.#.dpx", .frames = 3, .bytes = 30});
  display.take(JobEnded{.job = 4});
  for (int frame = 1; frame <= 3; ++frame) {
    EXPECT_EQ("", messages.text());
    display.take(FileEnded{.path = fmt::format("p.{}.dpx", frame),
                           .size = 10,
                           .digest = digest,
                           .outcome = FileOutcome::proved,
                           .jobSeconds = 4,
                           .sequenceJob = 4});
  }
  EXPECT_EQ("proved: p.1-3.#.dpx (3 frames, 30 bytes, 4.0 s)\n", messages.text());
}

TEST_F(LogDisplayTest, NamesTheFramesOfASequenceThatAreNotProved) {
  display.take(JobStarted{.job = 4, .path = "p.1-3.#.dpx", .frames = 3, .bytes = 30});
  for (int frame = 1; frame <= 3; ++frame) {
    display.take(FileEnded{.path = fmt::format("p.{}.dpx", frame),
                           .size = 10,
                           .outcome = frame == 2 ? FileOutcome::failed : FileOutcome::proved,
                           .reason = frame == 2 ? "it changed" : "",
                           .sequenceJob = 4});
  }
  EXPECT_EQ("failed: p.2.dpx: it changed\nproved: p.1-3.#.dpx (2 frames, 20 bytes, 0.0 s)\n", messages.text());
}

TEST_F(LogDisplayTest, SaysWhatWillBeTriedAgain) {
  display.take(JobStarted{.job = 4, .path = "p.1-2.#.dpx", .frames = 2});
  display.take(JobEnded{.job = 4, .status = 105, .willBeTriedAgain = true});
  display.take(FileEnded{.path = "p.1.dpx", .outcome = FileOutcome::failed, .status = 105, .reason = "it differs"});
  EXPECT_EQ("will be tried again: p.1-2.#.dpx (status 105)\nfailed: p.1.dpx: it differs (status 105)\n",
            messages.text());
}

TEST_F(LogDisplayTest, SaysTheStateEveryThirtySeconds) {
  for (const double seconds : {0.25, 29.9, 30.1, 30.4, 59.9, 61.0, 200.0, 209.0, 210.0}) {
    display.take(Progress{.bytes = 9, .files = 2, .seconds = seconds});
  }
  EXPECT_EQ(
      "after 30 s: 0 of 2 files, 0 bytes of 9 bytes, 0 %, no failures\n"
      "after 1 min: 0 of 2 files, 0 bytes of 9 bytes, 0 %, no failures\n"
      "after 3 min: 0 of 2 files, 0 bytes of 9 bytes, 0 %, no failures\n"
      "after 3 min: 0 of 2 files, 0 bytes of 9 bytes, 0 %, no failures\n",
      messages.text());
}

TEST_F(LogDisplayTest, SaysTheStateAtOnceWhenSomebodyAsks) {
  display.take(JobStarted{.job = 1, .path = "a.mov"});
  display.take(Progress{.bytes = 9, .files = 2, .seconds = 1, .isAsked = true});
  EXPECT_EQ("0 of 2 files, 0 bytes of 9 bytes, 0 %, no failures\n  copying: a.mov\n", messages.text());
}

TEST_F(LogDisplayTest, EndsWithTheVerdictOnResultsAlone) {
  display.take(Warned{.text = "a gap"});
  display.take(
      Finished{.verdict = {.isSafe = true, .remarks = {"Owners are not kept."}, .line = "SAFE TO ERASE: all."}});
  EXPECT_EQ("Owners are not kept.\nSAFE TO ERASE: all.\n", results.text());
  EXPECT_EQ("kdxoffload: warning: a gap\n", messages.text());
}

TEST_F(LogDisplayTest, SaysHowToGoOnAfterASignal) {
  display.take(Stopping{.signal = 15});
  display.take(Finished{.verdict = {.line = "DO NOT ERASE: 1."}});
  EXPECT_EQ(
      "kdxoffload: stopping the running jobs; the same signal again ends at once\n"
      "kdxoffload: to go on, give the same command again; what is proved is not done again\n",
      messages.text());
}

TEST(QuietLogDisplay, SaysFailuresAndTheVerdictAlone) {
  WrittenStream results;
  WrittenStream messages;
  LogDisplay display(results.stream(), messages.stream(), true);
  display.take(Planned{.card = "c"});
  display.take(Warned{.text = "a gap"});
  display.take(JobStarted{.job = 1, .path = "a.mov"});
  display.take(Progress{.seconds = 100});
  display.take(FileEnded{.path = "a.mov", .outcome = FileOutcome::failed, .status = 110, .reason = "no room"});
  display.take(ErrorReported{.text = "the catalogue is full"});
  display.take(Finished{.verdict = {.notProved = {{.path = "a.mov", .status = 110, .reason = "no room"}},
                                    .remarks = {"Owners are not kept."},
                                    .line = "DO NOT ERASE: 1."}});
  EXPECT_EQ("kdxoffload: the catalogue is full\n", messages.text());
  EXPECT_EQ("a.mov: no room (status 110).\nDO NOT ERASE: 1.\n", results.text());
}

TEST_F(LogDisplayTest, WritesNoControlCharactersWhateverTheNamesAre) {
  const std::string name = "x\x1b[2J\n\r\x07\u009b\u202e\xff";
  display.take(Planned{.card = name, .destinations = {name}});
  display.take(JobStarted{.job = 1, .path = name});
  display.take(Warned{.text = name, .path = name});
  display.take(Progress{.destinations = {{.path = name}}, .isAsked = true});
  display.take(JobEnded{.job = 1, .status = 105, .willBeTriedAgain = true});
  for (const FileOutcome outcome :
       {FileOutcome::proved, FileOutcome::adopted, FileOutcome::failed, FileOutcome::excluded}) {
    display.take(FileEnded{.path = name, .outcome = outcome, .reason = name});
  }
  display.take(Finished{.verdict = {.notProved = {{.path = name, .reason = name, .advice = name}}, .line = "DO NOT"}});
  for (const std::string& text : {messages.text(), results.text()}) {
    ASSERT_FALSE(text.empty());
    for (const char c : text) EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~')) << text;
  }
}

}  // namespace
