#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <cstdlib>

#include "KDXFileTools/kdxoffload/Displays.h"
#include "tests/support/WrittenStream.h"

using namespace kdxoffload;
using testing::HasSubstr;
using testing::Not;

namespace {

// What is printed depends on the descriptors; where it is written to does not.
class DisplaysTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, ::openpty(&master, &terminal, nullptr, nullptr, nullptr));
    ASSERT_EQ(0, ::pipe(pipeEnds));
    ::setenv("TERM", "xterm", 1);
    ::unsetenv("NO_COLOR");
  }
  void TearDown() override {
    for (const int descriptor : {master, terminal, pipeEnds[0], pipeEnds[1]}) ::close(descriptor);
  }

  void runDisplay(DisplayTargets targets, const CommandLine& line = {}) {
    const std::unique_ptr<Listener> display = makeDisplay(line, results.stream(), messages.stream(), targets);
    display->take(Progress{.files = 2});
    display->take(Finished{.verdict = {.isSafe = true, .line = "SAFE TO ERASE: all."}});
  }

  int master = -1;
  int terminal = -1;
  int pipeEnds[2] = {-1, -1};
  WrittenStream results;
  WrittenStream messages;
};

TEST_F(DisplaysTest, MovesItsLinesAndHasColoursOnATerminal) {
  runDisplay({.results = terminal, .messages = terminal});
  EXPECT_THAT(messages.text(), testing::AllOf(HasSubstr("\x1b[K"), HasSubstr("\x1b[32m")));
  EXPECT_EQ("\x1b[1;32mSAFE TO ERASE: all.\x1b[0m\n", results.text());
}

TEST_F(DisplaysTest, KeepsNothingButResultsInAFile) {
  runDisplay({.results = pipeEnds[1], .messages = terminal});
  EXPECT_THAT(messages.text(), HasSubstr("\x1b[K"));
  EXPECT_EQ("SAFE TO ERASE: all.\n", results.text());
}

TEST_F(DisplaysTest, WritesLinesOfALogWhereMessagesGoToNoTerminal) {
  runDisplay({.results = terminal, .messages = pipeEnds[1]});
  EXPECT_EQ("", messages.text());
  EXPECT_EQ("SAFE TO ERASE: all.\n", results.text());
}

TEST_F(DisplaysTest, WritesLinesOfALogOnADumbTerminal) {
  ::setenv("TERM", "dumb", 1);
  runDisplay({.results = terminal, .messages = terminal});
  EXPECT_EQ("", messages.text());
  EXPECT_EQ("SAFE TO ERASE: all.\n", results.text());
}

TEST_F(DisplaysTest, HasNoColoursWhereTheEnvironmentAsksForNone) {
  ::setenv("NO_COLOR", "1", 1);
  runDisplay({.results = terminal, .messages = terminal});
  EXPECT_THAT(messages.text(), HasSubstr("\x1b[K"));
  EXPECT_THAT(messages.text(), Not(HasSubstr("\x1b[32m")));
  EXPECT_EQ("SAFE TO ERASE: all.\n", results.text());
}

TEST_F(DisplaysTest, PrintsJSONWhereThatIsWanted) {
  runDisplay({.results = terminal, .messages = terminal}, {.json = true});
  EXPECT_EQ("", messages.text());
  EXPECT_THAT(results.text(), HasSubstr("{\"type\":\"summary\""));
}

}  // namespace
