// What shells offer behind the name of kdxoffload, asked of the shells themselves.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <variant>

#include "KDXFileTools/kdxoffload/CommandLine.h"
#include "tests/support/ManualPage.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ShellCompletions.h"
#include "tests/support/ToolRun.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

using Lines = std::vector<std::string>;

std::set<std::string> optionsOfTheParser() {
  std::set<std::string> options;
  for (const kdxoffload::CommandLineOption& option : kdxoffload::commandLineOptions()) {
    if (!option.longName.empty()) options.insert("--" + option.longName);
    if (!option.shortName.empty()) options.insert("-" + option.shortName);
  }
  return options;
}

class OffloadCompletions : public testing::TestWithParam<Shell> {
 protected:
  void SetUp() override {
    if (!haveProgram(GetParam().name)) GTEST_SKIP() << "needs " << GetParam().name;
    writeFile(_folder.file("card/clip.mov"), "a clip");
  }

  [[nodiscard]] Lines offersAt(const std::string& line) const {
    return offersOfShell(GetParam(), line, _folder.path().string());
  }
  [[nodiscard]] Lines wordsAt(const std::string& line) const { return withoutDescriptions(offersAt(line)); }

 private:
  ScratchDirectory _folder;
};

TEST_P(OffloadCompletions, OfferEveryOptionOfTheParserAndNothingElse) {
  EXPECT_THAT(wordsAt("kdxoffload -"), testing::UnorderedElementsAreArray(optionsOfTheParser()));
}

TEST_P(OffloadCompletions, OfferTheOptionsThatBeginAsTyped) {
  EXPECT_THAT(wordsAt("kdxoffload --re"), UnorderedElementsAre("--recheck", "--replace"));
  EXPECT_THAT(wordsAt("kdxoffload card copy --js"), ElementsAre("--json"));
}

TEST_P(OffloadCompletions, OfferTheAlgorithmsThatTheParserTakes) {
  const Lines words = wordsAt("kdxoffload -t ");
  EXPECT_THAT(words, UnorderedElementsAre("md5", "sha1", "xxhash64be"));
  for (const std::string& word : words) {
    EXPECT_TRUE(std::holds_alternative<kdxoffload::CommandLine>(
        kdxoffload::parseCommandLine({"-t", word, "card", "destination"})));
  }
}

TEST_P(OffloadCompletions, OfferTheCommandsThatBeginAsTyped) {
  EXPECT_THAT(wordsAt("kdxoffload sta"), ElementsAre("status"));
  EXPECT_THAT(wordsAt("kdxoffload hist"), ElementsAre("history"));
}

TEST_P(OffloadCompletions, OfferNothingWhereANumberOrAPatternBelongs) {
  for (const char* option : {"--jobs", "--stall", "--exclude"}) {
    EXPECT_THAT(wordsAt(std::string("kdxoffload ") + option + " "), IsEmpty()) << option;
  }
}

TEST_P(OffloadCompletions, OfferFilesAsPathsAndForTheCatalogue) {
  for (const char* line : {"kdxoffload card/cl", "kdxoffload --json card/cl", "kdxoffload a card/cl",
                           "kdxoffload status card/cl", "kdxoffload --catalogue card/cl"}) {
    EXPECT_THAT(wordsAt(line), ElementsAre(EndsWith("clip.mov"))) << line;
  }
}

INSTANTIATE_TEST_SUITE_P(OfEachShell, OffloadCompletions,
                         testing::Values(Shell{"bash", "--norc", "completions/kdxoffload.bash"},
                                         Shell{"zsh", "-f", "completions/_kdxoffload"},
                                         Shell{"fish", "--no-config", "completions/kdxoffload.fish"}),
                         rowName);

class OffloadCompletionsOfFish : public OffloadCompletions {};

TEST_P(OffloadCompletionsOfFish, DescribeEveryOptionInTheWordsOfZsh) {
  const std::string ofZsh = readFile(sourceTreePath("completions/_kdxoffload"));
  for (const std::string& offer : offersAt("kdxoffload -")) {
    const std::size_t tabulator = offer.find('\t');
    ASSERT_NE(std::string::npos, tabulator) << offer;
    EXPECT_THAT(ofZsh, HasSubstr(offer.substr(0, tabulator) + "[" + offer.substr(tabulator + 1) + "]")) << offer;
  }
}

INSTANTIATE_TEST_SUITE_P(Alone, OffloadCompletionsOfFish,
                         testing::Values(Shell{"fish", "--no-config", "completions/kdxoffload.fish"}), rowName);

}  // namespace
