#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <cstdlib>

#include "KDXFileTools/kdxoffload/Display.h"
#include "tests/support/WrittenStream.h"

using namespace kdxoffload;
using testing::HasSubstr;
using testing::Not;

namespace {

// What is printed depends on the descriptors; where it is written to does not.
class DisplayTest : public testing::Test {
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

  void runDisplay(DisplayChoice choice) {
    const std::unique_ptr<Listener> display = makeDisplay(results.stream(), messages.stream(), choice);
    display->take(Progress{.files = 2});
    display->take(Finished{.verdict = {.isSafe = true, .line = "SAFE TO ERASE: all."}});
  }

  int master = -1;
  int terminal = -1;
  int pipeEnds[2] = {-1, -1};
  WrittenStream results;
  WrittenStream messages;
};

TEST_F(DisplayTest, MovesItsLinesAndHasColoursOnATerminal) {
  runDisplay({.resultsDescriptor = terminal, .messagesDescriptor = terminal});
  EXPECT_THAT(messages.text(), testing::AllOf(HasSubstr("\x1b[K"), HasSubstr("\x1b[32m")));
  EXPECT_EQ("\x1b[1;32mSAFE TO ERASE: all.\x1b[0m\n", results.text());
}

TEST_F(DisplayTest, KeepsNothingButResultsInAFile) {
  runDisplay({.resultsDescriptor = pipeEnds[1], .messagesDescriptor = terminal});
  EXPECT_THAT(messages.text(), HasSubstr("\x1b[K"));
  EXPECT_EQ("SAFE TO ERASE: all.\n", results.text());
}

TEST_F(DisplayTest, WritesLinesOfALogWhereMessagesGoToNoTerminal) {
  runDisplay({.resultsDescriptor = terminal, .messagesDescriptor = pipeEnds[1]});
  EXPECT_EQ("", messages.text());
  EXPECT_EQ("SAFE TO ERASE: all.\n", results.text());
}

TEST_F(DisplayTest, WritesLinesOfALogOnADumbTerminal) {
  ::setenv("TERM", "dumb", 1);
  runDisplay({.resultsDescriptor = terminal, .messagesDescriptor = terminal});
  EXPECT_EQ("", messages.text());
  EXPECT_EQ("SAFE TO ERASE: all.\n", results.text());
}

TEST_F(DisplayTest, HasNoColoursWhereTheEnvironmentAsksForNone) {
  ::setenv("NO_COLOR", "1", 1);
  runDisplay({.resultsDescriptor = terminal, .messagesDescriptor = terminal});
  EXPECT_THAT(messages.text(), HasSubstr("\x1b[K"));
  EXPECT_THAT(messages.text(), Not(HasSubstr("\x1b[32m")));
  EXPECT_EQ("SAFE TO ERASE: all.\n", results.text());
}

TEST_F(DisplayTest, PrintsJSONWhereThatIsWanted) {
  runDisplay({.json = true, .resultsDescriptor = terminal, .messagesDescriptor = terminal});
  EXPECT_EQ("", messages.text());
  EXPECT_THAT(results.text(), HasSubstr("{\"type\":\"summary\""));
}

}  // namespace
