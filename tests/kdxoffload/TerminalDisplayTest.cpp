#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <thread>

#include "KDXFileTools/kdxoffload/TerminalDisplay.h"
#include "tests/support/Screen.h"
#include "tests/support/WrittenStream.h"

using namespace kdxoffload;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

using Lines = std::vector<std::string>;

// A display and the screen that it is drawn on. Both streams go to it, as they do without `> file`.
class Drawn {
 public:
  Drawn(std::size_t columns, std::size_t rows, bool colours = false, bool quiet = false)
      : _size{.columns = columns, .rows = rows},
        _screen(columns, rows),
        _display(_results.stream(), _messages.stream(),
                 {.colours = colours, .quiet = quiet, .resultColours = colours, .size = [this] { return _size; }}) {}

  // Everything that is drawn for one event reaches the screen before the next one comes.
  void take(const Event& event) {
    _display.take(event);
    for (WrittenStream* stream : {&_messages, &_results}) {
      std::string& shown = stream == &_messages ? _shownMessages : _shownResults;
      const std::string all = stream->text();
      _screen.write(all.substr(shown.size()));
      shown = all;
    }
  }

  void setColumns(std::size_t columns) {
    _size.columns = columns;
    _screen.setColumns(columns);
  }

  [[nodiscard]] const Screen& screen() const { return _screen; }
  [[nodiscard]] Lines lines() const { return _screen.lines(); }
  [[nodiscard]] const std::string& messages() const { return _shownMessages; }
  [[nodiscard]] const std::string& results() const { return _shownResults; }

 private:
  WrittenStream _results;
  WrittenStream _messages;
  std::string _shownMessages;
  std::string _shownResults;
  platform::TerminalSize _size;
  Screen _screen;
  TerminalDisplay _display;
};

// Two clips on their way to two destinations.
void startTwoClips(Drawn& drawn) {
  drawn.take(JobStarted{.job = 1, .path = "A001/A001_C003.mov", .bytes = 800});
  drawn.take(JobStarted{.job = 2, .path = "A001/A001_C004.mov", .bytes = 500});
  drawn.take(JobProgressed{.job = 1, .phase = JobPhase::readingBack, .bytes = 200});
  drawn.take(JobProgressed{.job = 2, .phase = JobPhase::copying, .bytes = 450});
}

Progress halfDone() {
  return {.bytesDone = 450,
          .bytes = 900,
          .filesDone = 6,
          .files = 12,
          .share = 0.5,
          .bytesPerSecond = 150,
          .secondsLeft = 130,
          .destinations = {{.path = "/mnt/raid", .freeBytes = 700}, {.path = "/mnt/shuttle", .freeBytes = 800}}};
}

TEST(TerminalDisplay, TellsAtAGlanceWhatIsGoingOn) {
  Drawn drawn(80, 24);
  startTwoClips(drawn);
  drawn.take(halfDone());
  EXPECT_THAT(drawn.lines(),
              ElementsAre("reading back   25 %  A001/A001_C003.mov",  //
                          "copying        90 %  A001/A001_C004.mov",  //
                          "[#######################-----------------------]  50 %  150 bytes/s  2 min left",
                          "6 of 12 files, 450 bytes of 900 bytes, no failures",  //
                          "/mnt/raid: 700 bytes free",                           //
                          "/mnt/shuttle: 800 bytes free"));
}

TEST(TerminalDisplay, SaysWhatGoesOnWhileNoJobDoes) {
  Drawn drawn(80, 24);
  drawn.take(Looking{.text = "Listing the card..."});
  EXPECT_THAT(drawn.lines(), ElementsAre("Listing the card..."));
  startTwoClips(drawn);
  drawn.take(halfDone());
  EXPECT_EQ(6U, drawn.lines().size());
  for (const uint64_t job : {1U, 2U}) drawn.take(JobEnded{.job = job});
  drawn.take(halfDone());
  drawn.take(Looking{.text = "Comparing..."});
  EXPECT_EQ(5U, drawn.lines().size());
  EXPECT_EQ("Comparing...", drawn.lines().front());
}

TEST(TerminalDisplay, IsRedrawnInPlace) {
  Drawn drawn(80, 24);
  startTwoClips(drawn);
  for (int step = 0; step < 50; ++step) drawn.take(halfDone());
  EXPECT_EQ(6U, drawn.lines().size());
  drawn.take(JobEnded{.job = 1});
  drawn.take(halfDone());
  EXPECT_EQ(5U, drawn.lines().size());
  EXPECT_EQ("copying        90 %  A001/A001_C004.mov", drawn.lines().front());
}

TEST(TerminalDisplay, LeavesTheCursorBelowWholeLinesAtEveryMoment) {
  Drawn drawn(60, 24, true);
  startTwoClips(drawn);
  for (const double share : {0.0, 0.3, 1.0}) {
    Progress progress = halfDone();
    progress.share = share;
    drawn.take(progress);
    EXPECT_EQ(drawn.lines().size(), drawn.screen().cursorLine());
    EXPECT_EQ(0U, drawn.screen().cursorColumn());
    EXPECT_FALSE(drawn.screen().isColoured());
  }
  EXPECT_THAT(drawn.messages(), Not(HasSubstr("\x1b[?25l")))
      << "a hidden cursor stays hidden when the process is killed";
}

TEST(TerminalDisplay, TheBarNeverGoesBackwardsAndIsFullWhenAllIsProved) {
  Drawn drawn(80, 24);
  const auto barAt = [&](double share) {
    drawn.take(Progress{.share = share});
    return drawn.lines().front();
  };
  const std::string half = barAt(0.5);
  EXPECT_EQ(half, barAt(0.4));
  const std::string nearlyAll = barAt(0.99999);
  EXPECT_THAT(nearlyAll, HasSubstr("-]  99 %"));
  EXPECT_THAT(barAt(1), HasSubstr("#]  100 %"));
  EXPECT_THAT(barAt(1), Not(HasSubstr("-")));
  EXPECT_THAT(barAt(0), HasSubstr("#]  100 %"));
}

TEST(TerminalDisplay, EndsWithTheVerdictAndNothingOfTheDrawing) {
  Drawn drawn(80, 24);
  startTwoClips(drawn);
  drawn.take(halfDone());
  drawn.take(Finished{.verdict = {.notProved = {{.path = "a.mov", .status = 110, .reason = "No room."}},
                                  .line = "DO NOT ERASE: 1 of 12 files are not proved."}});
  EXPECT_THAT(drawn.lines(),
              ElementsAre("a.mov: No room (status 110).", "DO NOT ERASE: 1 of 12 files are not proved."));
  EXPECT_EQ("a.mov: No room (status 110).\nDO NOT ERASE: 1 of 12 files are not proved.\n", drawn.results());
  drawn.take(halfDone());
  EXPECT_EQ(2U, drawn.lines().size()) << "drawn again behind the end";
}

TEST(TerminalDisplay, KeepsMessagesAboveTheMovingLines) {
  Drawn drawn(80, 24);
  drawn.take(Planned{.card = "/card", .destinations = {"/a"}, .files = 12, .bytes = 900});
  drawn.take(Progress{.bytes = 900, .files = 12});
  drawn.take(Warned{.text = "Frame 7 is missing."});
  drawn.take(Progress{.bytes = 900, .files = 12});
  drawn.take(Stopping{.signal = 2});
  EXPECT_THAT(drawn.lines(),
              ElementsAre("kdxoffload: /card to /a: 12 files (900 bytes), 0 folders, 0 links, 0 sequences",
                          "kdxoffload: warning: Frame 7 is missing.",
                          "kdxoffload: stopping the running jobs; the same signal again ends at once",
                          "[--------------------------------------------------]  0 %",
                          "0 of 12 files, 0 bytes of 900 bytes, no failures"));
}

TEST(TerminalDisplay, SaysHowToGoOnAfterASignal) {
  Drawn drawn(90, 24);
  drawn.take(halfDone());
  drawn.take(Stopping{.signal = 2});
  drawn.take(Finished{.verdict = {.line = "DO NOT ERASE: 1."}});
  EXPECT_THAT(drawn.lines(),
              ElementsAre("kdxoffload: stopping the running jobs; the same signal again ends at once",
                          "kdxoffload: to go on, give the same command again; what is proved is not done again",
                          "DO NOT ERASE: 1."));
}

TEST(TerminalDisplay, NamesTheLastFailure) {
  Drawn drawn(60, 24);
  drawn.take(FileEnded{.path = "a\n.mov", .outcome = FileOutcome::failed, .status = 110, .reason = "no room"});
  Progress progress{.bytes = 9, .files = 2, .failures = 1};
  drawn.take(progress);
  EXPECT_THAT(drawn.lines(), ElementsAre(HasSubstr("0 %"), "0 of 2 files, 0 bytes of 9 bytes, 1 failure",
                                         "failed: a\\x0a.mov: no room"));
}

TEST(TerminalDisplay, SaysTheStateAboveWhenSomebodyAsks) {
  Drawn drawn(80, 24);
  drawn.take(JobStarted{.job = 1, .path = "a.mov"});
  drawn.take(Progress{.bytes = 9, .files = 2, .isAsked = true});
  drawn.take(Progress{.bytes = 9, .files = 2});
  EXPECT_EQ("0 of 2 files, 0 bytes of 9 bytes, 0 %, no failures", drawn.lines().at(0));
  EXPECT_EQ("  copying: a.mov", drawn.lines().at(1));
  EXPECT_EQ("copying              a.mov", drawn.lines().at(2));
  EXPECT_EQ(5U, drawn.lines().size());
}

TEST(TerminalDisplay, CountsTheJobsThatHaveNoLine) {
  Drawn drawn(80, 24);
  for (uint64_t job = 0; job < 16; ++job) drawn.take(JobStarted{.job = job, .path = fmt::format("{}.mov", job)});
  drawn.take(halfDone());
  EXPECT_EQ("copying              2.mov", drawn.lines().at(2));
  EXPECT_EQ("and 13 more", drawn.lines().at(3));
  EXPECT_EQ(8U, drawn.lines().size());
}

TEST(TerminalDisplay, WritesNoColoursWhereNoneAreWanted) {
  Drawn plain(80, 24, false);
  Drawn coloured(80, 24, true);
  for (Drawn* drawn : {&plain, &coloured}) {
    drawn->take(halfDone());
    drawn->take(Finished{.verdict = {.isSafe = true, .line = "SAFE TO ERASE: all."}});
  }
  EXPECT_THAT(coloured.messages(), HasSubstr("\x1b[32m"));
  EXPECT_THAT(coloured.results(), HasSubstr("\x1b[1;32mSAFE"));
  EXPECT_EQ("SAFE TO ERASE: all.\n", plain.results());
  for (const char* colour : {"\x1b[32m", "\x1b[2m", "\x1b[0m"}) EXPECT_THAT(plain.messages(), Not(HasSubstr(colour)));
}

TEST(TerminalDisplay, DrawsNothingWhenQuiet) {
  Drawn drawn(80, 24, false, true);
  startTwoClips(drawn);
  drawn.take(Warned{.text = "a gap"});
  drawn.take(halfDone());
  EXPECT_EQ("", drawn.messages());
  drawn.take(ErrorReported{.text = "the catalogue is full"});
  drawn.take(Finished{.verdict = {.isSafe = true, .line = "SAFE TO ERASE: all."}});
  EXPECT_THAT(drawn.lines(), ElementsAre("kdxoffload: the catalogue is full", "SAFE TO ERASE: all."));
}

// --- Sizes ---

const std::string longPath = "very/long/folders/with/東京/and/Gro\u0308ße/" + std::string(100, 'x') + "_C003.mov";

class TerminalOfSize : public testing::TestWithParam<platform::TerminalSize> {};

TEST_P(TerminalOfSize, NeverBreaksALineNorLosesTheTop) {
  const auto [columns, rows] = GetParam();
  Drawn drawn(columns, rows);
  Progress progress = halfDone();
  for (int more = 0; more < 60; ++more) progress.destinations.push_back({.path = longPath, .freeBytes = 900});
  for (uint64_t job = 0; job < 20; ++job) drawn.take(JobStarted{.job = job, .path = longPath, .bytes = 900});
  drawn.take(FileEnded{.path = longPath, .outcome = FileOutcome::failed, .reason = longPath});
  for (int step = 0; step < 3; ++step) drawn.take(progress);

  // A line that is broken, or more of them than there are rows, would have left lines of the drawings before.
  const Lines lines = drawn.lines();
  EXPECT_LE(lines.size(), rows - 1);
  EXPECT_EQ(lines.size(), drawn.screen().cursorLine());
  const auto hasShare = [](const std::string& line) { return line.find("50 %") != std::string::npos; };
  const bool hasRoom = columns > 8 && rows > 1;
  EXPECT_EQ(hasRoom ? 1 : 0, std::ranges::count_if(lines, hasShare));
  drawn.take(Finished{.verdict = {.line = "NO"}});
  EXPECT_EQ('N', drawn.lines().front().front());
}

INSTANTIATE_TEST_SUITE_P(EachSize, TerminalOfSize,
                         testing::Values(platform::TerminalSize{1, 24}, platform::TerminalSize{2, 2},
                                         platform::TerminalSize{10, 24}, platform::TerminalSize{20, 5},
                                         platform::TerminalSize{40, 3}, platform::TerminalSize{40, 2},
                                         platform::TerminalSize{80, 1}, platform::TerminalSize{80, 24},
                                         platform::TerminalSize{132, 8}, platform::TerminalSize{500, 100}),
                         [](const auto& row) { return fmt::format("{}x{}", row.param.columns, row.param.rows); });

TEST(TerminalDisplay, KeepsTheExtensionOfALongName) {
  Drawn drawn(40, 24);
  drawn.take(JobStarted{.job = 1, .path = longPath, .bytes = 900});
  drawn.take(halfDone());
  EXPECT_THAT(drawn.lines().front(), testing::EndsWith("_C003.mov"));
  EXPECT_THAT(drawn.lines().at(1), testing::StartsWith("[##"));
}

TEST(TerminalDisplay, GivesTheBarRoomOnANarrowTerminal) {
  Drawn drawn(30, 24);
  drawn.take(halfDone());
  EXPECT_EQ("[####-----]  50 %  2 min left", drawn.lines().front());
  Drawn narrower(24, 24);
  narrower.take(halfDone());
  EXPECT_EQ("[#######--------]  50 %", narrower.lines().front());
}

TEST(TerminalDisplay, FollowsATerminalThatChangesItsWidth) {
  Drawn drawn(100, 24);
  drawn.take(Warned{.text = "a gap"});
  drawn.take(JobStarted{.job = 1, .path = longPath, .bytes = 900});
  for (const std::size_t columns : {100U, 50U, 33U, 90U, 120U, 20U}) {
    drawn.setColumns(columns);
    drawn.take(halfDone());
    // The message was printed once and is the terminal's own: it is broken where it does not fit.
    const std::string message = "kdxoffload: warning: a gap";
    EXPECT_EQ(message.substr(0, columns), drawn.lines().front());
    EXPECT_EQ(columns >= message.size() ? 6U : 7U, drawn.lines().size()) << columns;
  }
}

// --- A real terminal ---

// A pseudo terminal, and what is written to it.
class RealTerminal {
 public:
  RealTerminal() {
    const winsize size{.ws_row = 24, .ws_col = 60, .ws_xpixel = 0, .ws_ypixel = 0};
    EXPECT_EQ(0, ::openpty(&_master, &_terminal, nullptr, nullptr, &size));
  }
  ~RealTerminal() {
    ::close(_master);
    ::close(_terminal);
  }
  RealTerminal(const RealTerminal&) = delete;
  RealTerminal& operator=(const RealTerminal&) = delete;

  [[nodiscard]] int descriptor() const { return _terminal; }

  // Until the text has come.
  [[nodiscard]] std::string readUntil(const std::string& last) const {
    std::string all;
    std::array<char, 4096> bytes{};
    while (all.find(last) == std::string::npos) {
      const ssize_t count = ::read(_master, bytes.data(), bytes.size());
      if (count <= 0) break;
      all.append(bytes.data(), static_cast<std::size_t>(count));
    }
    return all;
  }

 private:
  int _master = -1;
  int _terminal = -1;
};

TEST(TerminalDisplay, IsDrawnOnARealTerminalAtItsWidth) {
  const RealTerminal terminal;
  OutputStream results(terminal.descriptor());
  OutputStream messages(terminal.descriptor());
  TerminalDisplay display(results, messages, {.size = [&] { return platform::terminalSize(terminal.descriptor()); }});
  display.take(Warned{.text = "a gap"});
  for (int step = 0; step < 20; ++step) display.take(halfDone());
  display.take(Finished{.verdict = {.isSafe = true, .line = "SAFE TO ERASE: all."}});

  const std::string bytes = terminal.readUntil("SAFE TO ERASE: all.\r\n");
  Screen screen(60, 24);
  screen.write(bytes);
  EXPECT_THAT(bytes, HasSubstr("[###"));
  EXPECT_THAT(screen.lines(), ElementsAre("kdxoffload: warning: a gap", "SAFE TO ERASE: all."));
  constexpr double seconds = 60;
  EXPECT_TRUE(messages.finish(seconds));
  EXPECT_TRUE(results.finish(seconds));
}

}  // namespace
