// What shells offer behind the tool's name, asked of the shells themselves.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "KDXFileTools/kdxdispatchcopy/CommandLine.h"
#include "digest/KDXDigestContext.h"
#include "tests/support/ManualPage.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ShellCompletions.h"
#include "tests/support/ToolRun.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

using Lines = std::vector<std::string>;

std::set<std::string> longOptionsWithOneDash() {
  std::set<std::string> options;
  for (const CommandLineOption& option : commandLineOptions()) options.insert("-" + std::string(option.longName));
  return options;
}

class Completions : public testing::TestWithParam<Shell> {
 protected:
  void SetUp() override {
    if (!haveProgram(GetParam().name)) GTEST_SKIP() << "needs " << GetParam().name;
    writeFile(_folder.file("card/clip.mov"), mediaBytes(1000));
  }

  // What the shell offers at the end of the line, where it stands in a folder with the file card/clip.mov; in its order,
  // behind a tabulator with the description where it shows one.
  [[nodiscard]] Lines offersAt(const std::string& line) const {
    return offersOfShell(GetParam(), line, _folder.path().string());
  }

  // The same without descriptions.
  [[nodiscard]] Lines wordsAt(const std::string& line) const { return withoutDescriptions(offersAt(line)); }

 private:
  ScratchDirectory _folder;
};

TEST_P(Completions, OfferEveryLongOptionWithOneDashAndNothingElse) {
  const Lines words = wordsAt("kdxdispatchcopy -");
  EXPECT_THAT(words, testing::UnorderedElementsAreArray(longOptionsWithOneDash()));
}

TEST_P(Completions, OfferTheOptionsThatBeginAsTyped) {
  EXPECT_THAT(wordsAt("kdxdispatchcopy -n"), UnorderedElementsAre("-n", "-nf", "-nfs", "-ns"));
  EXPECT_THAT(wordsAt("kdxdispatchcopy -f_"), ElementsAre("-f_size"));
  EXPECT_THAT(wordsAt("kdxdispatchcopy card/clip.mov copy.mov -j"), ElementsAre("-j"));
}

TEST_P(Completions, OfferTheAlgorithmsThatTheToolTakes) {
  const Lines words = wordsAt("kdxdispatchcopy -t ");
  EXPECT_THAT(words, UnorderedElementsAre("md5", "sha1", "xxhash64be"));
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "a clip");
  for (const std::string& word : words) EXPECT_EQ(0, runTool({"-j", "-t", word, scratch.file("clip.mov")}).exitStatus);
}

TEST_P(Completions, OfferTheNamesOfDigestsForAnExternalHash) {
  const Lines words = wordsAt("kdxdispatchcopy -e ");
  EXPECT_THAT(words, UnorderedElementsAre("MD5:", "SHA1:", "XXHash64:", "XXHash64BE:"));
  for (const std::string& word : words) {
    EXPECT_NE(KDXDigestAlgorithmNone, KDXDigestAlgorithmFromName(word.substr(0, word.size() - 1))) << word;
  }
}

TEST_P(Completions, OfferNothingWhereANumberOrAnIgnoredArgumentBelongs) {
  for (const char* option : {"-f_size", "-a", "-b"})
    EXPECT_THAT(wordsAt(std::string("kdxdispatchcopy ") + option + " "), IsEmpty()) << option;
}

TEST_P(Completions, OfferFilesAsPaths) {
  for (const char* line : {"kdxdispatchcopy card/cl", "kdxdispatchcopy -v card/cl", "kdxdispatchcopy -s card/cl",
                           "kdxdispatchcopy source.mov card/cl", "kdxdispatchcopy -t sha1 a.mov b.mov card/cl"}) {
    EXPECT_THAT(wordsAt(line), ElementsAre(testing::EndsWith("clip.mov"))) << line;
  }
}

INSTANTIATE_TEST_SUITE_P(OfEachShell, Completions,
                         testing::Values(Shell{"bash", "--norc", "completions/kdxdispatchcopy.bash"},
                                         Shell{"zsh", "-f", "completions/_kdxdispatchcopy"},
                                         Shell{"fish", "--no-config", "completions/kdxdispatchcopy.fish"}),
                         rowName);

class CompletionsOfBash : public Completions {};

TEST_P(CompletionsOfBash, OfferArgumentsBehindAnEqualsSignToo) {
  EXPECT_THAT(wordsAt("kdxdispatchcopy -t="), UnorderedElementsAre("md5", "sha1", "xxhash64be"));
  EXPECT_THAT(wordsAt("kdxdispatchcopy --e=X"), UnorderedElementsAre("XXHash64:", "XXHash64BE:"));
}

TEST_P(CompletionsOfBash, OfferNoFilesForTheDigitsOfAnExternalHash) {
  for (const char* line : {"kdxdispatchcopy -e MD5:", "kdxdispatchcopy -e MD5:c", "kdxdispatchcopy -e=MD5:"})
    EXPECT_THAT(wordsAt(line), IsEmpty()) << line;
}

INSTANTIATE_TEST_SUITE_P(Alone, CompletionsOfBash,
                         testing::Values(Shell{"bash", "--norc", "completions/kdxdispatchcopy.bash"}), rowName);

class CompletionsOfFish : public Completions {};

TEST_P(CompletionsOfFish, DescribeEveryOptionInTheWordsOfZsh) {
  const std::string ofZsh = readFile(sourceTreePath("completions/_kdxdispatchcopy"));
  for (const std::string& offer : offersAt("kdxdispatchcopy -")) {
    const std::size_t tabulator = offer.find('\t');
    ASSERT_NE(std::string::npos, tabulator) << offer;
    EXPECT_THAT(ofZsh, HasSubstr("'" + offer.substr(0, tabulator) + "[" + offer.substr(tabulator + 1) + "]")) << offer;
  }
}

INSTANTIATE_TEST_SUITE_P(Alone, CompletionsOfFish,
                         testing::Values(Shell{"fish", "--no-config", "completions/kdxdispatchcopy.fish"}), rowName);

}  // namespace
