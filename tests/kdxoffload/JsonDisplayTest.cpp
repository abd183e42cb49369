// The lines for a program: their values, and that they have the types and fields that docs/output.md promises.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "KDXFileTools/kdxoffload/JsonDisplay.h"
#include "platform/Process.h"
#include "tests/support/OutputLines.h"
#include "tests/support/ProjectFile.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/WrittenStream.h"

using namespace kdxoffload;
using nlohmann::json;

namespace {

const FileDigest digest = FileDigest::fromText("XXHash64BE:ef46db3751d8e999").value();
const std::string notUTF8 = "caf\xe9.mov";

class JsonDisplayTest : public testing::Test {
 protected:
  // The lines until now, each read as JSON.
  std::vector<json> objects() {
    std::vector<json> read;
    for (const std::string& line : linesOf(results.text())) read.push_back(json::parse(line));
    return read;
  }
  json onlyObject() {
    const std::vector<json> all = objects();
    EXPECT_EQ(1U, all.size());
    return all.empty() ? json() : all.front();
  }

  WrittenStream results;
  WrittenStream messages;
  JsonDisplay display{results.stream(), messages.stream()};
};

TEST_F(JsonDisplayTest, APlanIsAnObject) {
  display.take(Planned{.card = "/card",
                       .destinations = {"/a"},
                       .files = 12,
                       .folders = 3,
                       .links = 1,
                       .bytes = 900,
                       .sequences = 2,
                       .filesDoneBefore = 4});
  EXPECT_EQ(
      "{\"type\":\"plan\",\"files\":12,\"folders\":3,\"links\":1,\"bytes\":900,\"sequences\":2,\"done_before\":4}\n",
      results.text());
}

TEST_F(JsonDisplayTest, AStatusListsWhatRuns) {
  display.take(JobStarted{.job = 1, .path = "a.mov"});
  display.take(JobStarted{.job = 2, .path = "b.mov"});
  display.take(JobStarted{.job = 3, .path = "c.mov"});
  display.take(JobPhaseChanged{.job = 2, .phase = JobPhase::readingBack});
  display.take(JobPhaseChanged{.job = 3, .phase = JobPhase::flushing});
  display.take(Progress{.bytesDone = 300,
                        .bytes = 900,
                        .filesDone = 2,
                        .files = 12,
                        .failures = 1,
                        .secondsLeft = 20.5,
                        .seconds = 10.25});
  EXPECT_EQ(json::parse(R"({"type": "status", "seconds": 10.25, "seconds_left": 20.5, "bytes_done": 300, "bytes": 900,
                            "files_done": 2, "files": 12, "failures": 1,
                            "running": [{"path": "a.mov", "phase": "copying"}, {"path": "b.mov", "phase": "reading-back"},
                                        {"path": "c.mov", "phase": "flushing"}]})"),
            onlyObject());
}

TEST_F(JsonDisplayTest, AStatusComesOnceASecondAndWhenSomebodyAsks) {
  for (const double seconds : {0.25, 0.5, 1.0, 1.25, 1.5, 2.5}) display.take(Progress{.seconds = seconds});
  display.take(Progress{.files = 2, .seconds = 2.75, .isAsked = true});
  std::vector<double> seconds;
  for (const json& status : objects()) {
    seconds.push_back(status.at("seconds"));
    EXPECT_TRUE(status.at("seconds_left").is_null());
  }
  EXPECT_EQ((std::vector{0.25, 1.25, 2.5, 2.75}), seconds);
  EXPECT_EQ("0 of 2 files, 0 bytes of 0 bytes, 0 %, no failures\n", messages.text());
}

TEST_F(JsonDisplayTest, AFileThatIsProvedHasItsDigest) {
  display.take(
      FileEnded{.path = "a.mov", .size = 900, .digest = digest, .outcome = FileOutcome::proved, .jobSeconds = 2.5});
  EXPECT_EQ(json::parse(R"({"type": "file", "path": "a.mov", "size": 900, "digest": "XXHash64BE:ef46db3751d8e999",
                            "outcome": "proved", "status": 0, "reason": null, "seconds": 2.5})"),
            onlyObject());
}

TEST_F(JsonDisplayTest, SecondsHaveNoMoreThanThreeDecimals) {
  display.take(FileEnded{.path = "a.mov", .jobSeconds = 0.026600000000000002});
  EXPECT_THAT(results.text(), testing::HasSubstr("\"seconds\":0.027}"));
}

TEST_F(JsonDisplayTest, AFileThatFailedHasStatusAndReason) {
  display.take(FileEnded{.path = "a.mov", .outcome = FileOutcome::failed, .status = 110, .reason = "no room"});
  const json file = onlyObject();
  EXPECT_EQ("failed", file.at("outcome"));
  EXPECT_EQ(110, file.at("status"));
  EXPECT_EQ("no room", file.at("reason"));
  EXPECT_TRUE(file.at("digest").is_null());
}

TEST_F(JsonDisplayTest, ANameThatIsNotUTF8ComesWithItsBytes) {
  display.take(FileEnded{.path = notUTF8, .outcome = FileOutcome::excluded});
  const json file = onlyObject();
  EXPECT_EQ("caf\ufffd.mov", file.at("path"));
  EXPECT_EQ("Y2Fm6S5tb3Y=", file.at("path_base64"));
}

TEST_F(JsonDisplayTest, ANameThatIsUTF8ComesWithoutThem) {
  for (const std::string name : {"a.mov", "Größe\n\"\\.mov", "\U0001F3AC\u202e"}) {
    display.take(FileEnded{.path = name});
    EXPECT_EQ(name, objects().back().at("path"));
    EXPECT_FALSE(objects().back().contains("path_base64"));
  }
}

TEST_F(JsonDisplayTest, LinesAreOfASCIIAndHaveNoControls) {
  const std::string name = "x\x1b[2J\n\r\x7f\u009b\u202e\u2028\xff\"";
  display.take(JobStarted{.job = 1, .path = name});
  display.take(Progress{});
  display.take(Warned{.text = name, .path = name});
  display.take(FileEnded{.path = name, .reason = name});
  display.take(Finished{.verdict = {.notProved = {{.path = name, .reason = name}}, .changes = {name + "!"}},
                        .destinations = {{.path = name, .fileSystem = name}}});
  for (const char c : results.text()) EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~'));
  EXPECT_EQ(5U, objects().size());
}

TEST_F(JsonDisplayTest, ASummaryIsTheLastLineAndNothingComesAfterIt) {
  display.take(Warned{.text = "a gap", .path = "p.2.dpx"});
  display.take(Finished{
      .verdict = {.isSafe = false,
                  .exitStatus = 4,
                  .notProved = {{.path = "a.mov", .status = 110, .reason = "no room"}},
                  .changes = {"b.mov came."},
                  .remarks = {"a gap", "Owners are not kept."},
                  .files = 12,
                  .proved = 11,
                  .bytes = 900},
      .destinations = {{.path = "/a", .fileSystem = "ext4", .readBack = platform::ReadBack::device},
                       {.path = "/b", .fileSystem = "nfs4", .readBack = platform::ReadBack::clientCacheBypassed},
                       {.path = "/c", .fileSystem = ""}},
      .seconds = 60.5});
  display.take(Progress{.seconds = 99});
  display.take(Warned{.text = "too late"});

  const std::vector<json> all = objects();
  ASSERT_EQ(4U, all.size());
  EXPECT_EQ(json::parse(R"({"type": "warning", "text": "a gap", "path": "p.2.dpx"})"), all[0]);
  EXPECT_EQ(json::parse(R"({"type": "warning", "text": "b.mov came."})"), all[1]);
  EXPECT_EQ(json::parse(R"({"type": "warning", "text": "Owners are not kept."})"), all[2]);
  EXPECT_EQ(json::parse(R"({"type": "summary", "verdict": "not-safe", "exit_status": 4, "files": 12, "proved": 11,
                            "bytes": 900, "seconds": 60.5,
                            "destinations": [{"path": "/a", "file_system": "ext4", "read_back": "device"},
                                             {"path": "/b", "file_system": "nfs4", "read_back": "client-cache-bypassed"},
                                             {"path": "/c", "file_system": "", "read_back": "unknown"}],
                            "not_proved": [{"path": "a.mov", "status": 110, "reason": "no room"}]})"),
            all[3]);
}

TEST_F(JsonDisplayTest, ARefusalEndsWithASummaryToo) {
  display.take(ErrorReported{.text = "the card is inside a destination", .path = "/card"});
  display.take(Finished{.verdict = {.exitStatus = 1}, .wasRefused = true});
  const std::vector<json> all = objects();
  ASSERT_EQ(2U, all.size());
  EXPECT_EQ(json::parse(R"({"type": "error", "text": "the card is inside a destination", "path": "/card"})"), all[0]);
  EXPECT_EQ("summary", all[1].at("type"));
  EXPECT_EQ("not-safe", all[1].at("verdict"));
  EXPECT_EQ(1, all[1].at("exit_status"));
}

TEST(JsonDisplayWithoutAReader, KeepsTheSummaryAndSaysHowManyLinesWereLeftOut) {
  platform::letWritesFailInsteadOfSignals();
  std::array<int, 2> ends{};
  ASSERT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
  OutputStream results(ends[1], std::size_t{1} << 20);
  JsonDisplay display(results);
  for (int file = 0; results.dropped() < 3; ++file) {
    display.take(FileEnded{.path = std::to_string(file), .reason = std::string(4096, 'r')});
  }
  display.take(Finished{});
  // Now it is read after all.
  std::string all;
  std::array<char, 65536> bytes{};
  while (!all.ends_with("\"not_proved\":[]}\n")) {
    const ssize_t count = ::read(ends[0], bytes.data(), bytes.size());
    ASSERT_GT(count, 0);
    all.append(bytes.data(), static_cast<std::size_t>(count));
  }
  const std::vector<std::string> lines = linesOf(all);
  EXPECT_EQ(json::parse(R"({"type": "warning", "text": "3 lines were left out, since nobody read them"})"),
            json::parse(lines[lines.size() - 2]));
  EXPECT_EQ("summary", json::parse(lines.back()).at("type"));
  ::close(ends[0]);
}

// --- The page ---

// Values of the fields as the page has them, by type and by field: "list", "text or null".
using Fields = std::map<std::string, std::string>;

std::map<std::string, Fields> documentedFields() {
  const std::regex row(R"(\| `([a-z]+)` \| `([a-z_\[\].0-9]+)` \| ([^|]+) \|.*)");
  std::map<std::string, Fields> fields;
  bool inside = false;
  for (const std::string& line : linesOf(readFile(projectFile("docs/output.md")))) {
    if (line.starts_with("## ")) inside = line == "## The lines of `kdxoffload --json`";
    std::smatch match;
    if (inside && std::regex_match(line, match, row)) fields[match[1]][match[2]] = match[3];
  }
  return fields;
}

bool hasValue(const json& value, const std::string& documented) {
  if (documented == "whole number") return value.is_number_integer();
  if (documented == "number") return value.is_number();
  if (documented == "number or null") return value.is_number() || value.is_null();
  if (documented == "text" || documented == "text or absent") return value.is_string();
  if (documented == "text or null") return value.is_string() || value.is_null();
  if (documented == "list") return value.is_array();
  const std::string oneOf = "one of ";
  return documented.starts_with(oneOf) && value.is_string() &&
         documented.find("`" + value.get<std::string>() + "`") != std::string::npos;
}

// Compares an object with the fields whose names begin with the prefix; a field of an entry of a list is "list[].field".
void expectAsDocumented(const json& object, const Fields& fields, const std::string& prefix) {
  for (const auto& [name, value] : object.items()) {
    if (prefix.empty() && name == "type") continue;
    const auto field = fields.find(prefix + name);
    ASSERT_NE(fields.end(), field) << prefix + name << " is not on the page";
    EXPECT_TRUE(hasValue(value, field->second)) << prefix + name << ": " << value << " is not " << field->second;
    if (!value.is_array()) continue;
    for (const json& entry : value) expectAsDocumented(entry, fields, prefix + name + "[].");
  }
  for (const auto& [name, value] : fields) {
    if (!name.starts_with(prefix) || name.find('.', prefix.size()) != std::string::npos) continue;
    if (value.ends_with("or absent")) continue;
    EXPECT_TRUE(object.contains(name.substr(prefix.size()))) << name << " is missing in " << object;
  }
}

// Events with all that there is to say, and with as little as possible.
std::vector<Event> everyEvent() {
  std::vector<Event> events{Planned{},
                            Warned{.text = "w"},
                            Warned{.text = "w", .path = notUTF8},
                            ErrorReported{.text = "e"},
                            ErrorReported{.text = "e", .path = notUTF8},
                            Progress{.isAsked = true}};
  for (const JobPhase phase : {JobPhase::copying, JobPhase::readingBack, JobPhase::flushing}) {
    const auto job = static_cast<uint64_t>(phase);
    events.emplace_back(JobStarted{.job = job, .path = notUTF8});
    events.emplace_back(JobPhaseChanged{.job = job, .phase = phase});
  }
  events.emplace_back(Progress{.secondsLeft = 0.5, .isAsked = true});
  for (const FileOutcome outcome : {FileOutcome::proved, FileOutcome::alreadyProved, FileOutcome::adopted,
                                    FileOutcome::failed, FileOutcome::excluded}) {
    events.emplace_back(FileEnded{.path = notUTF8, .digest = digest, .outcome = outcome, .reason = "r"});
    events.emplace_back(FileEnded{.outcome = outcome});
  }
  return events;
}

std::vector<Event> everyEnd() {
  std::vector<Event> ends{Finished{}};
  for (const auto readBack :
       {platform::ReadBack::device, platform::ReadBack::clientCacheBypassed, platform::ReadBack::unknown}) {
    ends.emplace_back(Finished{.verdict = {.isSafe = readBack == platform::ReadBack::device,
                                           .notProved = {{.path = notUTF8, .reason = "r"}, {.path = "a"}},
                                           .changes = {"c"}},
                               .destinations = {{.path = notUTF8, .readBack = readBack}, {.path = "a"}}});
  }
  return ends;
}

TEST(JsonLines, HaveTheTypesAndFieldsOfThePageAndNoOthers) {
  const std::map<std::string, Fields> documented = documentedFields();
  std::set<std::string> types;
  for (const Event& end : everyEnd()) {
    WrittenStream results;
    JsonDisplay display(results.stream());
    for (const Event& event : everyEvent()) display.take(event);
    display.take(end);
    for (const std::string& line : linesOf(results.text())) {
      const json object = json::parse(line);
      const std::string type = object.at("type");
      types.insert(type);
      ASSERT_TRUE(documented.contains(type)) << type;
      expectAsDocumented(object, documented.at(type), "");
    }
  }
  for (const auto& [type, fields] : documented) EXPECT_TRUE(types.contains(type)) << type << " never came";
  EXPECT_EQ(6U, documented.size());
}

TEST(JsonLines, HaveEachFieldThatThePageNames) {
  std::map<std::string, std::set<std::string>> seen;
  const std::function<void(const std::string&, const std::string&, const json&)> note =
      [&](const std::string& type, const std::string& prefix, const json& object) {
        for (const auto& [name, value] : object.items()) {
          seen[type].insert(prefix + name);
          if (!value.is_array()) continue;
          for (const json& entry : value) note(type, prefix + name + "[].", entry);
        }
      };
  WrittenStream results;
  JsonDisplay display(results.stream());
  for (const Event& event : everyEvent()) display.take(event);
  display.take(everyEnd().back());
  for (const std::string& line : linesOf(results.text())) {
    const json object = json::parse(line);
    note(object.at("type"), "", object);
  }
  for (const auto& [type, fields] : documentedFields()) {
    for (const auto& [name, value] : fields) EXPECT_TRUE(seen[type].contains(name)) << type << " " << name;
  }
}

}  // namespace
