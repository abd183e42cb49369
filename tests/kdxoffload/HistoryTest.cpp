#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "KDXFileTools/kdxoffload/History.h"
#include "tests/support/OutputLines.h"
#include "tests/support/ProjectFile.h"
#include "tests/support/ScratchDirectory.h"

using kdxoffload::historyLines;
using kdxoffload::historyText;
using kdxoffload::OffloadRecord;
using nlohmann::json;

namespace {

const OffloadRecord ended{.number = 7,
                          .card = "/media/card",
                          .destinations = {"/mnt/raid", "/mnt/shuttle"},
                          .started = 1'700'000'000,
                          .ended = 1'700'003'600,
                          .exitStatus = 2,
                          .files = 12,
                          .proved = 11,
                          .bytes = 900,
                          .verdict = "DO NOT ERASE: 1 of 12 files is not proved."};
const OffloadRecord killed{
    .number = 8, .card = "/media/caf\xe9", .destinations = {"/mnt/\x1b[2J"}, .started = 1'700'010'000};

class History : public testing::Test {
 protected:
  History() {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
};

}  // namespace

TEST_F(History, TellsAPersonWhatWasOffloadedWhereToWhenAndHowItEnded) {
  EXPECT_EQ(
      "2023-11-14 22:13  /media/card\n"
      "  to /mnt/raid\n"
      "  to /mnt/shuttle\n"
      "  DO NOT ERASE: 1 of 12 files is not proved. (2023-11-14 23:13, exit status 2)\n",
      historyText(std::vector{ended}));
}

TEST_F(History, TellsOfARunThatDidNotEndAndShowsNamesHarmlessly) {
  EXPECT_EQ(
      "2023-11-15 01:00  /media/caf\\xe9\n"
      "  to /mnt/\\x1b[2J\n"
      "  It did not end: it was killed, or is at work.\n",
      historyText(std::vector{killed}));
}

TEST_F(History, WithoutARunSaysSo) {
  EXPECT_EQ("Nothing was offloaded yet.\n", historyText({}));
  EXPECT_EQ("", historyLines({}));
}

TEST_F(History, SurvivesTimesThatNoClockShows) {
  OffloadRecord odd = ended;
  for (const int64_t time : {INT64_MIN, INT64_MAX, int64_t{0}, int64_t{-1}}) {
    odd.started = time;
    EXPECT_EQ(4U, linesOf(historyText(std::vector{odd})).size());
    EXPECT_EQ(time, json::parse(historyLines(std::vector{odd})).at("started").get<int64_t>());
  }
}

TEST_F(History, IsALineForEachRunForAProgram) {
  const std::vector<std::string> lines = linesOf(historyLines(std::vector{ended, killed}));
  ASSERT_EQ(2U, lines.size());
  EXPECT_EQ(json::parse(R"({"type": "offload", "number": 7, "card": "/media/card",
                            "destinations": [{"path": "/mnt/raid"}, {"path": "/mnt/shuttle"}], "started": 1700000000,
                            "ended": 1700003600, "exit_status": 2, "files": 12, "proved": 11, "bytes": 900,
                            "text": "DO NOT ERASE: 1 of 12 files is not proved."})"),
            json::parse(lines[0]));
  EXPECT_EQ(json::parse(R"({"type": "offload", "number": 8, "card": "/media/caf\ufffd",
                            "card_base64": "L21lZGlhL2NhZuk=", "destinations": [{"path": "/mnt/\u001b[2J"}],
                            "started": 1700010000, "ended": null, "exit_status": null, "files": 0, "proved": 0,
                            "bytes": 0, "text": null})"),
            json::parse(lines[1]));
}

TEST_F(History, HasTheFieldsThatThePagePromises) {
  const std::regex row(R"(\| `offload` \| `([a-z0-9_]+)` \| ([^|]+) \|.*)");
  bool inside = false;
  std::set<std::string> documented;
  std::set<std::string> optional;
  for (const std::string& line : linesOf(readFile(projectFile("docs/output.md")))) {
    if (line.starts_with("## ")) inside = line == "## The lines of `kdxoffload history --json`";
    std::smatch match;
    if (!inside || !std::regex_match(line, match, row)) continue;
    documented.insert(match[1]);
    if (match[2].str().ends_with("or absent")) optional.insert(match[1]);
  }
  for (const OffloadRecord& offload : {ended, killed}) {
    const json object = json::parse(historyLines(std::vector{offload}));
    for (const auto& [name, value] : object.items()) EXPECT_TRUE(name == "type" || documented.contains(name)) << name;
    for (const std::string& name : documented) EXPECT_TRUE(optional.contains(name) || object.contains(name)) << name;
  }
  EXPECT_EQ((std::set<std::string>{"card_base64"}), optional);
}
