// The two commands on real folders and a real catalogue.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "KDXFileTools/kdxoffload/Catalogue.h"
#include "KDXFileTools/kdxoffload/JsonDisplay.h"
#include "KDXFileTools/kdxoffload/Lister.h"
#include "KDXFileTools/kdxoffload/StatusAndHistory.h"
#include "tests/support/OutputLines.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/WrittenStream.h"

using namespace kdxoffload;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

// Keeps what is told.
class Heard final : public Listener {
 public:
  void take(const Event& event) override {
    if (const auto* finished = std::get_if<Finished>(&event)) ends.push_back(*finished);
    if (const auto* error = std::get_if<ErrorReported>(&event)) errors.push_back(error->text);
    if (const auto* warned = std::get_if<Warned>(&event)) warnings.push_back(warned->text);
  }
  std::vector<Finished> ends;
  std::vector<std::string> errors;
  std::vector<std::string> warnings;
};

// A card with one file, copied to two destinations, all of it recorded as proved.
class StatusAndHistoryTest : public testing::Test {
 protected:
  StatusAndHistoryTest() {
    for (const std::string& folder : {card, raid, shuttle}) {
      std::filesystem::create_directories(folder + "/day1");
      writeFile(folder + "/day1/clip.mov", "media");
      std::filesystem::create_symlink("day1/clip.mov", folder + "/latest");
    }
    line.card = card;
    line.catalogue = scratch.file("catalogue.sqlite");
    remember();
  }

  // As an offload that has just ended.
  void remember() const {
    Catalogue catalogue = Catalogue::open(*line.catalogue);
    catalogue.startOffload(card, {raid, shuttle}, 1000);
    std::vector<FileOfRecord> files;
    for (const std::string& destination : {raid, shuttle}) {
      const platform::ItemFacts onCard = factsOf(card);
      const platform::ItemFacts there = factsOf(destination);
      files.push_back({.destination = files.size(),
                       .path = "day1/clip.mov",
                       .record = {.state = FileRecord::State::proved,
                                  .size = onCard.size,
                                  .modified = onCard.modified,
                                  .destinationSize = there.size,
                                  .destinationModified = there.modified}});
    }
    catalogue.prove(files);
    catalogue.endOffload({.ended = 2000, .files = 1, .proved = 1, .bytes = 5, .verdict = "SAFE TO ERASE: all."});
    ASSERT_FALSE(catalogue.problem());
  }

  static platform::ItemFacts factsOf(const std::string& root) {
    const auto folder = platform::Folder::open(root + "/day1", nullptr);
    return folder->factsOf("clip.mov", nullptr).value_or(platform::ItemFacts{});
  }

  Verdict status() {
    Heard heard;
    const int exitStatus = tellStatus(line, heard);
    EXPECT_EQ(1U, heard.ends.size());
    const Verdict verdict = heard.ends.empty() ? Verdict{} : heard.ends.back().verdict;
    EXPECT_EQ(exitStatus, verdict.exitStatus);
    warnings = heard.warnings;
    errors = heard.errors;
    return verdict;
  }

  ScratchDirectory scratch;
  std::string root = std::filesystem::canonical(scratch.path());
  std::string card = root + "/card";
  std::string raid = root + "/raid";
  std::string shuttle = root + "/shuttle";
  CommandLine line;
  std::vector<std::string> warnings;
  std::vector<std::string> errors;
};

}  // namespace

TEST_F(StatusAndHistoryTest, StatusFindsEverythingProvedAtTheDestinationsThatAreKnown) {
  const Verdict verdict = status();
  EXPECT_EQ("SAFE TO ERASE: 1 file (5 bytes) is proved on 2 destinations.", verdict.line);
  EXPECT_EQ(0, verdict.exitStatus);
  EXPECT_THAT(warnings, IsEmpty());
}

TEST_F(StatusAndHistoryTest, StatusLooksAtTheDestinationsAskedForAlone) {
  std::filesystem::remove(shuttle + "/day1/clip.mov");
  EXPECT_EQ(2, status().exitStatus);
  line.destinations = {raid};
  EXPECT_EQ("SAFE TO ERASE: 1 file (5 bytes) is proved on 1 destination.", status().line);
  line.destinations = {shuttle};
  EXPECT_EQ(2, status().exitStatus);
}

TEST_F(StatusAndHistoryTest, StatusReadsNoFileAndChangesNothing) {
  const std::string before = readFile(*line.catalogue);
  const std::vector<std::string> names = namesBelow(scratch.path());
  // Other bytes, of the same size and time: who reads notices.
  const std::string clip = raid + "/day1/clip.mov";
  const auto time = std::filesystem::last_write_time(clip);
  writeFile(clip, "MEDIA");
  std::filesystem::last_write_time(clip, time);
  EXPECT_EQ(0, status().exitStatus);
  EXPECT_EQ(before, readFile(*line.catalogue));
  EXPECT_EQ(names, namesBelow(scratch.path()));
}

TEST_F(StatusAndHistoryTest, StatusFindsWhatCameToTheCard) {
  writeFile(card + "/new.mov", "x");
  const Verdict verdict = status();
  EXPECT_EQ("DO NOT ERASE: 1 of 2 files is not proved.", verdict.line);
  ASSERT_EQ(1U, verdict.notProved.size());
  EXPECT_EQ("new.mov", verdict.notProved[0].path);
}

TEST_F(StatusAndHistoryTest, StatusFindsALinkThatLeadsElsewhere) {
  std::filesystem::remove(shuttle + "/latest");
  std::filesystem::create_symlink("day1/elsewh.mov", shuttle + "/latest");
  const Verdict verdict = status();
  EXPECT_EQ(2, verdict.exitStatus);
  ASSERT_EQ(1U, verdict.notProved.size());
  EXPECT_EQ("latest", verdict.notProved[0].path);
}

TEST_F(StatusAndHistoryTest, StatusOfACardThatIsNotKnownSaysSo) {
  std::filesystem::create_directory(scratch.path() / "other");
  writeFile(scratch.file("other/a"), "x");
  line.card = root + "/other";
  EXPECT_EQ(2, status().exitStatus);
  EXPECT_THAT(warnings, ElementsAre(HasSubstr("no offload of this card is known")));
}

TEST_F(StatusAndHistoryTest, StatusOfADestinationThatIsGoneIsNotSafe) {
  std::filesystem::remove_all(shuttle);
  EXPECT_EQ(2, status().exitStatus);
  EXPECT_THAT(warnings, ElementsAre(HasSubstr("can't be opened")));
}

TEST_F(StatusAndHistoryTest, StatusWithoutACardOrACatalogueDoesNotBegin) {
  line.catalogue = card + "/day1/clip.mov";
  EXPECT_EQ(1, status().exitStatus);
  EXPECT_THAT(errors, ElementsAre(HasSubstr("not a catalogue")));
  line.catalogue = scratch.file("catalogue.sqlite");
  line.card = root + "/missing";
  const Verdict verdict = status();
  EXPECT_EQ(1, verdict.exitStatus);
  EXPECT_THAT(verdict.line, StartsWith("DO NOT ERASE: "));
  EXPECT_THAT(errors, ElementsAre(HasSubstr("card")));
}

TEST_F(StatusAndHistoryTest, HistoryIsTextForAPerson) {
  WrittenStream results;
  Heard heard;
  EXPECT_EQ(0, tellHistory(line, results.stream(), heard));
  EXPECT_THAT(results.text(), AllOf(HasSubstr(card), HasSubstr("  to " + raid), HasSubstr("SAFE TO ERASE: all.")));
  EXPECT_THAT(heard.ends, IsEmpty());
}

TEST_F(StatusAndHistoryTest, HistoryForAProgramEndsWithASummaryThatSaysNothingOfSafe) {
  line.json = true;
  WrittenStream results;
  JsonDisplay display(results.stream());
  EXPECT_EQ(0, tellHistory(line, results.stream(), display));
  EXPECT_THAT(linesOf(results.text()),
              ElementsAre(HasSubstr(R"("type":"offload")"),
                          AllOf(HasSubstr(R"("type":"summary")"), HasSubstr(R"("verdict":"not-safe")"))));
}

TEST_F(StatusAndHistoryTest, HistoryOfACatalogueThatCanNotBeReadIsAnError) {
  line.catalogue = card + "/day1/clip.mov";
  line.json = true;
  WrittenStream results;
  JsonDisplay display(results.stream());
  EXPECT_EQ(1, tellHistory(line, results.stream(), display));
  EXPECT_THAT(linesOf(results.text()), ElementsAre(HasSubstr(R"("type":"error")"), HasSubstr(R"("exit_status":1)")));
}

TEST_F(StatusAndHistoryTest, HistoryWithoutACatalogueIsEmpty) {
  line.catalogue = scratch.file("missing.sqlite");
  WrittenStream results;
  Heard heard;
  EXPECT_EQ(0, tellHistory(line, results.stream(), heard));
  EXPECT_EQ("Nothing was offloaded yet.\n", results.text());
}
