#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/Terminal.h"

namespace {

class TerminalTest : public testing::Test {
 protected:
  void SetUp() override {
    const winsize size{.ws_row = 30, .ws_col = 100, .ws_xpixel = 0, .ws_ypixel = 0};
    ASSERT_EQ(0, ::openpty(&master, &terminal, nullptr, nullptr, &size));
    file = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  }
  void TearDown() override {
    for (const int descriptor : {master, terminal, file}) ::close(descriptor);
  }

  int master = -1;
  int terminal = -1;
  int file = -1;
};

TEST_F(TerminalTest, IsToldFromAFile) {
  EXPECT_TRUE(platform::isTerminal(terminal));
  EXPECT_FALSE(platform::isTerminal(file));
  EXPECT_FALSE(platform::isTerminal(-1));
}

TEST_F(TerminalTest, HasACursorUnlessItIsDumbOrUnknown) {
  ::setenv("TERM", "xterm-256color", 1);
  EXPECT_TRUE(platform::isTerminalWithCursor(terminal));
  EXPECT_FALSE(platform::isTerminalWithCursor(file));
  ::setenv("TERM", "dumb", 1);
  EXPECT_FALSE(platform::isTerminalWithCursor(terminal));
  ::unsetenv("TERM");
  EXPECT_FALSE(platform::isTerminalWithCursor(terminal));
}

TEST_F(TerminalTest, TellsItsSizeOfNow) {
  EXPECT_EQ(100U, platform::terminalSize(terminal).columns);
  EXPECT_EQ(30U, platform::terminalSize(terminal).rows);
  const winsize narrower{.ws_row = 10, .ws_col = 40, .ws_xpixel = 0, .ws_ypixel = 0};
  ASSERT_EQ(0, ::ioctl(terminal, TIOCSWINSZ, &narrower));
  EXPECT_EQ(40U, platform::terminalSize(terminal).columns);
  EXPECT_EQ(10U, platform::terminalSize(terminal).rows);
}

TEST_F(TerminalTest, IsEightyByTwentyFourWhereItDoesNotTell) {
  const winsize unknown{};
  ASSERT_EQ(0, ::ioctl(terminal, TIOCSWINSZ, &unknown));
  for (const int descriptor : {terminal, file, -1}) {
    EXPECT_EQ(80U, platform::terminalSize(descriptor).columns);
    EXPECT_EQ(24U, platform::terminalSize(descriptor).rows);
  }
}

TEST(Colours, AreWantedUnlessTheEnvironmentSaysNo) {
  ::unsetenv("NO_COLOR");
  EXPECT_TRUE(platform::coloursAreWanted());
  ::setenv("NO_COLOR", "", 1);
  EXPECT_TRUE(platform::coloursAreWanted());
  ::setenv("NO_COLOR", "1", 1);
  EXPECT_FALSE(platform::coloursAreWanted());
}

}  // namespace
