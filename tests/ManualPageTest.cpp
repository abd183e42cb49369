// The manual page says of the tool what is so: its tables are compared with the tool's own, its examples are run, and every
// line that the tool prints must be explained.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <ostream>
#include <regex>
#include <set>

#include "KDXFileTools/kdxdispatchcopy/CommandLine.h"
#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/KDXFileSequence.h"
#include "tests/support/ExpectedText.h"
#include "tests/support/ManualPage.h"
#include "tests/support/OutputLines.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::IsEmpty;
using testing::Not;

namespace {

namespace fs = std::filesystem;

using Texts = std::set<std::string>;
using Lines = std::vector<std::string>;

std::vector<std::string> allMatches(const std::string& text, const std::string& pattern, std::size_t group = 0) {
  const std::regex expression(pattern);
  std::vector<std::string> found;
  for (std::sregex_iterator match(text.begin(), text.end(), expression); match != std::sregex_iterator(); ++match) {
    found.push_back(match->str(group));
  }
  return found;
}

Texts asSet(const Lines& lines) {
  return {lines.begin(), lines.end()};
}

// Options: "k" for a switch, "t=" for one with an argument.

Texts optionsOfTheParser() {
  Texts options;
  for (const CommandLineOption& option : commandLineOptions()) {
    const std::string ending = option.takesArgument ? "=" : "";
    options.insert(std::string(option.longName) + ending);
    if (option.shortName != '\0') options.insert(option.shortName + ending);
  }
  return options;
}

// Of a text with the macros of options and arguments, as they stand in lists and in the synopsis. A word that is no name
// of an option is a cluster of switches.
Texts optionsIn(const std::string& macros) {
  const Texts known = optionsOfTheParser();
  Texts options;
  for (const std::string& one : allMatches(macros, "Fl [^,|]*")) {
    const std::string name = allMatches(one, "Fl (\\S+)", 1).front();
    const bool hasArgument = one.find(" Ar ") != std::string::npos;
    if (hasArgument || known.contains(name)) {
      options.insert(name + (hasArgument ? "=" : ""));
    } else {
      for (const char letter : name) options.insert(std::string(1, letter));
    }
  }
  return options;
}

TEST(ManualPage, ListsTheOptionsOfTheParserAndNoOthers) {
  Texts listed;
  for (const std::string& item : ManualPage().items("Options")) listed.merge(optionsIn(item));
  EXPECT_EQ(optionsOfTheParser(), listed);
}

TEST(ManualPage, HasTheOptionsOfTheParserAndNoOthersInItsSynopsis) {
  Texts listed;
  for (const std::string& line : ManualPage().linesOfSection("SYNOPSIS")) listed.merge(optionsIn(line));
  EXPECT_EQ(optionsOfTheParser(), listed);
}

// The first cells of the table below a heading of README.
std::string firstCells(const std::string& heading) {
  std::string cells;
  bool inside = false;
  for (const std::string& line : linesOf(readFile(sourceTreePath("README.md")))) {
    if (line.starts_with("## ")) inside = line == "## " + heading;
    if (inside && line.starts_with("| ")) cells += line.substr(2, line.find(" | ") - 2) + "\n";
  }
  return cells;
}

TEST(Readme, ListsTheOptionsOfTheParserAndNoOthers) {
  Texts listed;
  for (const std::string& option : allMatches(firstCells("Options"), "`-([a-z_]+( )?)", 1)) {
    listed.insert(option.ends_with(' ') ? option.substr(0, option.size() - 1) + "=" : option);
  }
  EXPECT_EQ(optionsOfTheParser(), listed);
}

// Exit statuses, as text.

Texts statusesOfTheTool() {
  Texts statuses{"other"};
  for (const ExitStatusText& row : exitStatuses) statuses.insert(std::to_string(row.status));
  return statuses;
}

TEST(ManualPage, ListsTheExitStatusesOfTheToolAndNoOthers) {
  EXPECT_EQ(statusesOfTheTool(), asSet(ManualPage().items("EXIT STATUS")));
}

TEST(Readme, ListsTheExitStatusesOfTheToolAndNoOthers) {
  const Texts listed = asSet(allMatches(replaced(firstCells("How a run ends"), "Status\n", ""), "[^,\\s]+"));
  EXPECT_EQ(statusesOfTheTool(), listed);
}

// The table of sequence identifiers

TEST(ManualPage, SaysWhatBecomesOfASequenceIdentifier) {
  const Lines items = ManualPage().items("Sequences");
  ASSERT_THAT(items, testing::SizeIs(testing::Ge(2U)));
  EXPECT_EQ("Em identifier Ta Em prefix Ta Em frames Ta Em digits Ta Em postfix Ta Em first name", items.front());
  for (std::size_t row = 1; row < items.size(); ++row) {
    const std::string identifier = items[row].substr(0, items[row].find(" Ta "));
    const auto sequence = KDXFileSequence::initWithIdentifier(identifier);
    ASSERT_NE(nullptr, sequence) << identifier;
    const std::string range =
        std::to_string(sequence->startFrame()) + "-" + std::to_string(sequence->endFrameInclusive());
    EXPECT_EQ(
        text({identifier, " Ta ", sequence->prefix(), " Ta ", range, " Ta ", std::to_string(sequence->numberOfDigits()),
              " Ta ", sequence->postfix(), " Ta ", sequence->filenameForIndex(0).value_or("(none)")}),
        items[row]);
  }
}

// Lines of output. The page has "%s" for text, "%d" for whole numbers and "%f" for others.

Lines documentedLines() {
  return ManualPage().items("DIAGNOSTICS");
}

// Matches the text itself.
std::string literally(const std::string& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), "\\$&");
}

// True for a line that the page explains, or several of which all but the last have no newline.
bool isDocumented(const std::string& line) {
  static const std::regex pattern = [] {
    std::string lines;
    for (const std::string& documented : documentedLines()) {
      std::string one = replaced(literally(documented), "%s", ".+");
      one = replaced(one, "%d", "-?[0-9]+");
      lines += (lines.empty() ? "(" : "|(") + replaced(one, "%f", "[0-9]+\\.[0-9]+") + ")";
    }
    return std::regex("(" + lines + ")+");
  }();
  return std::regex_match(line, pattern);
}

void expectOnlyDocumentedLines(const ToolRun& run) {
  for (const std::string& line : run.lines()) EXPECT_TRUE(line.empty() || isDocumented(line)) << line;
  for (const std::string& line : linesOf(run.errors)) EXPECT_TRUE(isDocumented(line)) << line;
}

TEST(ManualPage, ALineIsNotTakenForOneThatItExplainsByChance) {
  EXPECT_TRUE(isDocumented("INFO: copied 5 of 10 bytes"));
  EXPECT_TRUE(isDocumented("write failed: -1"));
  for (const char* line :
       {"INFO: copied x of 10 bytes", "INFO: copied 5 of 10 bytes.", "INFO: done", "hash ", "anything"})
    EXPECT_FALSE(isDocumented(line)) << line;
}

// The source files of the tool, but for the headers that have no texts.
std::vector<fs::path> sourceFiles() {
  std::vector<fs::path> files;
  for (const char* folder : {"KDXFileTools/kdxdispatchcopy", "platform", "digest", "extensions"}) {
    for (const fs::directory_entry& entry : fs::directory_iterator(sourceTreePath(folder))) {
      if (entry.path().extension() == ".cpp" || entry.path().filename() == "ErrorTexts.h")
        files.push_back(entry.path());
    }
  }
  return files;
}

// The texts of several words in a source file, which are those that people read, with "{...}" for what is filled in.
Lines messagesIn(const fs::path& file) {
  Lines messages;
  for (const std::string& line : linesOf(readFile(file))) {
    const std::string code = line.substr(0, line.find("//"));
    for (std::string literal : allMatches(code, R"re("((?:[^"\\]|\\.)*)")re", 1)) {
      literal = replaced(replaced(literal, "\\n", ""), "\\\"", "\"");
      if (std::regex_search(literal, std::regex("[a-z]{2} | [a-z]{2}"))) messages.push_back(literal);
    }
  }
  return messages;
}

struct Message {
  std::string file;
  std::string text;
  std::regex pattern;
};

std::vector<Message> messagesOfTheTool() {
  const std::regex filledIn(R"(\\\{[^}]*\\\})");
  std::vector<Message> messages;
  for (const fs::path& file : sourceFiles()) {
    for (const std::string& message : messagesIn(file)) {
      const std::regex pattern(std::regex_replace(literally(message), filledIn, ".*"));
      messages.push_back({.file = file.filename().string(), .text = message, .pattern = pattern});
    }
  }
  EXPECT_LT(40U, messages.size());
  return messages;
}

bool isIn(const std::string& line, const Message& message) {
  return std::regex_search(line, message.pattern);
}

TEST(ManualPage, ExplainsEveryMessageInTheSource) {
  const Lines documented = documentedLines();
  for (const Message& message : messagesOfTheTool()) {
    EXPECT_TRUE(std::ranges::any_of(documented, [&](const std::string& line) { return isIn(line, message); }))
        << message.file << ": " << message.text;
  }
}

TEST(ManualPage, ExplainsNoMessageThatIsNotInTheSource) {
  const std::vector<Message> messages = messagesOfTheTool();
  for (const std::string& line : documentedLines()) {
    // The error of a failed phase is nothing but what it is made of.
    if (line.find("ErrorDomain %d: ") != std::string::npos) continue;
    EXPECT_TRUE(std::ranges::any_of(messages, [&](const Message& message) { return isIn(line, message); })) << line;
  }
}

// Examples

// What the examples find where they are run.
class ExampleFolder {
 public:
  ExampleFolder() {
    for (const char* name :
         {"card/clip.mov", "card/reel.mov", "card/take_1001.dpx", "card/take_1002.dpx", "card/take_1003.dpx",
          "card/take_1004.dpx", "card/100%/take_0001.dpx", "card/100%/take_0002.dpx"}) {
      writeFile(_scratch.file(name), mediaBytes(300'000, ++_seed));
    }
    writeFile(_scratch.file("card/clip.mov.md5"), digestByProgram("md5sum", path("card/clip.mov")) + "  clip.mov\n");
    writeFile(_scratch.file("raid/reel.mov"), "an older copy");
    writeFile(_scratch.file("shuttle/lost.mov.kdxcopy"), "of a run that failed");
  }

  [[nodiscard]] std::string path(const std::string& name) const { return (_scratch.path() / name).string(); }

  [[nodiscard]] ToolRun runCommand(const std::string& command) const {
    const std::string folderOfTool = fs::path(toolPath()).parent_path().string();
    return runTool(ToolStart{.wrapper = {"sh", "-c", command},
                             .workingDirectory = _scratch.path().string(),
                             .environment = {{"PATH", folderOfTool + ":" + std::getenv("PATH")}}});
  }

  // The files that stand under final names on raid and shuttle, each with the file on the card that has the same bytes.
  [[nodiscard]] std::map<std::string, std::string> copies() const {
    std::map<std::string, std::string> found;
    for (const std::string& name : namesBelow(_scratch.path())) {
      if (name.starts_with("card/") || name.ends_with(".kdxcopy")) continue;
      found[name] = "another";
      for (const std::string& original : namesBelow(_scratch.path() / "card")) {
        if (readFile(path(name)) == readFile(path("card/" + original))) found[name] = original;
      }
    }
    return found;
  }

 private:
  ScratchDirectory _scratch;
  uint32_t _seed = 0;
};

struct Example {
  const char* name;
  const char* command;
  int status = 0;
  std::map<std::string, std::string> copies = {{"raid/reel.mov", "another"}};
  const char* output = "";  // a part of it
};

void PrintTo(const Example& row, std::ostream* out) {
  *out << row.name;
}

const std::vector<Example>& examples() {
  static const std::vector<Example> rows{
      {.name = "TwoDestinations",
       .command = "kdxdispatchcopy card/clip.mov raid/clip.mov shuttle/clip.mov",
       .copies = {{"raid/clip.mov", "clip.mov"}, {"raid/reel.mov", "another"}, {"shuttle/clip.mov", "clip.mov"}},
       .output = "verify of source file #3"},
      {.name = "FastDigest",
       .command = "kdxdispatchcopy -v -t xxhash64be card/clip.mov raid/clip.mov shuttle/clip.mov",
       .copies = {{"raid/clip.mov", "clip.mov"}, {"raid/reel.mov", "another"}, {"shuttle/clip.mov", "clip.mov"}},
       .output = "hash XXHash64BE:"},
      {.name = "ExternalHash",
       .command = "kdxdispatchcopy -e \"MD5:$(cut -c1-32 card/clip.mov.md5)\" card/clip.mov raid/clip.mov",
       .copies = {{"raid/clip.mov", "clip.mov"}, {"raid/reel.mov", "another"}}},
      {.name = "Replace",
       .command = "kdxdispatchcopy -f card/reel.mov raid/reel.mov",
       .copies = {{"raid/reel.mov", "reel.mov"}}},
      {.name = "NotReplaced",
       .command = "kdxdispatchcopy card/reel.mov raid/reel.mov",
       .status = 109,
       .output = "failed to perform copy\n"},
      {.name = "SizeAlone",
       .command = "kdxdispatchcopy -k -f_size 300000 card/clip.mov raid/clip.mov",
       .copies = {{"raid/clip.mov", "clip.mov"}, {"raid/reel.mov", "another"}},
       .output = "with file size check"},
      {.name = "DigestAlone", .command = "kdxdispatchcopy -j card/clip.mov", .output = "verify of source file #1"},
      {.name = "Sequence",
       .command = "kdxdispatchcopy -s 'card/take_1001-1004.####.dpx' raid/frames shuttle/frames",
       .copies = {{"raid/reel.mov", "another"},
                  {"raid/take_1001.dpx", "take_1001.dpx"},
                  {"raid/take_1002.dpx", "take_1002.dpx"},
                  {"raid/take_1003.dpx", "take_1003.dpx"},
                  {"raid/take_1004.dpx", "take_1004.dpx"},
                  {"shuttle/take_1001.dpx", "take_1001.dpx"},
                  {"shuttle/take_1002.dpx", "take_1002.dpx"},
                  {"shuttle/take_1003.dpx", "take_1003.dpx"},
                  {"shuttle/take_1004.dpx", "take_1004.dpx"}},
       .output = "sequence-hash MD5:"},
      {.name = "SequenceDigestByOthers",
       .command = R"(for f in card/take_????.dpx; do md5sum "$f" | cut -c1-32 | tr -d '\n'; done | md5sum)"},
      {.name = "PercentSign",
       .command = "kdxdispatchcopy -s 'card/100%%/take_0001-0002.####.dpx' raid/frames",
       .copies = {{"raid/reel.mov", "another"},
                  {"raid/take_0001.dpx", "100%/take_0001.dpx"},
                  {"raid/take_0002.dpx", "100%/take_0002.dpx"}}},
      {.name = "MissingFrame",
       .command = "kdxdispatchcopy -s 'card/take_1001-1005.####.dpx' raid/frames",
       .status = 108,
       .output = "card/take_1005.dpx\n"},
      {.name = "Leftovers", .command = "find raid shuttle -name '*.kdxcopy'", .output = "shuttle/lost.mov.kdxcopy\n"}};
  return rows;
}

TEST(ManualPage, HasTheExamplesThatAreRunHereAndNoOthers) {
  Lines commands;
  for (const Example& row : examples()) commands.emplace_back(row.command);
  EXPECT_EQ(commands, ManualPage().displayedLines("EXAMPLES"));
}

class ManualPageExample : public testing::TestWithParam<Example> {};

TEST_P(ManualPageExample, DoesWhatIsSaidOfIt) {
  const ExampleFolder folder;
  const ToolRun run = folder.runCommand(GetParam().command);
  EXPECT_EQ(GetParam().status, run.exitStatus) << run.errors;
  EXPECT_EQ(GetParam().copies, folder.copies());
  EXPECT_THAT(run.output, testing::HasSubstr(GetParam().output));
  if (std::string(GetParam().command).find("kdxdispatchcopy ") != std::string::npos) expectOnlyDocumentedLines(run);
}

INSTANTIATE_TEST_SUITE_P(EachExample, ManualPageExample, testing::ValuesIn(examples()), rowName);

TEST(ManualPage, TheSequenceDigestByOtherProgramsIsThatOfTheTool) {
  const ExampleFolder folder;
  const auto outputOf = [&](const std::string& name) {
    const auto row = std::ranges::find_if(examples(), [&](const Example& example) { return name == example.name; });
    return folder.runCommand(row->command).output;
  };
  const std::string digits = outputOf("SequenceDigestByOthers").substr(0, 32);
  EXPECT_THAT(outputOf("Sequence"), testing::HasSubstr("sequence-hash MD5:" + digits + "\n"));
}

// What else the page says of the command line and of ends of runs, in the folder of the examples.

INSTANTIATE_TEST_SUITE_P(
    OtherStatements, ManualPageExample,
    testing::Values(
        Example{.name = "AnOptionWithAnArgumentThatItDoesNotTakeIsIgnored",
                .command = "kdxdispatchcopy -k=5 -j card/clip.mov",
                .output = "verify of source file"},
        Example{.name = "NsvIsNAndV",
                .command = "kdxdispatchcopy -nsv card/clip.mov raid/clip.mov",
                .copies = {{"raid/clip.mov", "clip.mov"}, {"raid/reel.mov", "another"}},
                .output = "INFO: copy speed 300000 bytes"},
        Example{.name = "AGluedLongSizeIsFAndE",
                .command = "kdxdispatchcopy -f_size5 card/clip.mov raid/clip.mov",
                .status = 1,
                .output = "invalid external hash string: 5\n"},
        Example{.name = "AShortSizeWithAnEqualsSignIsZero",
                .command = "kdxdispatchcopy -k -a=5 card/clip.mov raid/clip.mov",
                .status = 104,
                .output = "the expected filesize (0) is not"},
        Example{.name = "AShortOptionBehindTwoDashesLeavesAPath",
                .command = "kdxdispatchcopy --a 5 card/clip.mov",
                .status = 109},
        Example{.name = "WithoutSizesOnDiskASizeHasToBeGiven",
                .command = "kdxdispatchcopy -k -nfs card/clip.mov raid/clip.mov",
                .status = 104},
        Example{.name = "TheSizeOfOneFrameIsComparedWithAllOfThem",
                .command = "kdxdispatchcopy -s -k -a 300000 'card/take_1001-1004.####.dpx' raid/x",
                .status = 104,
                .output = "the expected filesize (300000) is not the number of bytes copied (1200000)"},
        Example{.name = "AHashOfASequenceWithoutDigestsIsComparedWithThatOfNothing",
                .command = "kdxdispatchcopy -s -n -e MD5:00 'card/take_1001-1002.####.dpx' raid/x",
                .status = 103,
                .output = "but got hash: MD5:d41d8cd98f00b204e9800998ecf8427e."},
        Example{.name = "ARangeThatEndsBeforeItStartsGivesNoName",
                .command = "kdxdispatchcopy -s 'card/take_1003-1001.####.dpx' raid/x",
                .status = 1,
                .output = "ERROR no path for index: 0failed to perform copy\n"},
        Example{.name = "ASignInFrontOfTheEndGivesNoName",
                .command = "kdxdispatchcopy -s 'card/take-0100_####.dpx' raid/x",
                .status = 1},
        Example{.name = "ASequenceOfNoFilesFlushesStandardInput",
                .command = "kdxdispatchcopy -s 'card/take_1002-1001.####.dpx' raid/x",
                .status = 106,
                .output = "couldn't sync the file system of file (null) (error code -1)\n"},
        Example{.name = "FramesThatDifferInAFolderAloneAreNotCopied",
                .command = "mkdir 1 2; cp card/clip.mov 1; cp card/clip.mov 2;"
                           " kdxdispatchcopy -s '1-2.#/clip.mov' raid/x",
                .status = 107,
                .copies = {{"1/clip.mov", "clip.mov"}, {"2/clip.mov", "clip.mov"}, {"raid/reel.mov", "another"}}},
        Example{.name = "AFolderIsNotReplaced",
                .command = "mkdir raid/clip.mov; kdxdispatchcopy -f card/clip.mov raid/clip.mov",
                .status = 21,
                .output = "before movingfailed to move"},
        Example{.name = "TheSourceIsNotReplaced",
                .command = "kdxdispatchcopy -f card/clip.mov card/clip.mov",
                .status = 16},
        Example{.name = "AFolderIsNoSource", .command = "kdxdispatchcopy card raid/card", .status = 111},
        Example{
            .name = "AMissingFolderIsNotMade", .command = "kdxdispatchcopy card/clip.mov no/clip.mov", .status = 107},
        Example{.name = "ClosedStandardInputIsAFailedAssertion",
                .command = "ulimit -c 0; exec kdxdispatchcopy card/clip.mov raid/clip.mov <&-",
                .status = 134},
        Example{.name = "TheNameOfAnExternalHashIsTakenExactly",
                .command = "kdxdispatchcopy -e md5:00 card/clip.mov raid/clip.mov",
                .status = 1},
        Example{.name = "ASequenceWithoutHashesIsRefused",
                .command = "kdxdispatchcopy -s card/clip.mov raid/clip.mov",
                .status = 1,
                .output = "missing hashes in identifier.\nis sequence but could not get input sequence\n"},
        Example{.name = "VerificationSpeedOfASequenceCountsNoBytes",
                .command = "kdxdispatchcopy -v -j -s 'card/take_1001-1002.####.dpx'",
                .output = "INFO: verification speed 0 bytes"}),
    rowName);

// Format of the page

TEST(ManualPage, IsCleanToTheFormatter) {
  if (!haveProgram("mandoc")) GTEST_SKIP() << "checking the format of the manual page needs mandoc";
  const ToolRun run = runTool(ToolStart{
      .wrapper = {"sh", "-c", "mandoc -T lint -W warning '" + sourceTreePath("docs/kdxdispatchcopy.1") + "'"}});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("", run.output + run.errors);
}

TEST(ManualPage, ShowsItsExamplesAsTheyAreTyped) {
  if (!haveProgram("mandoc")) GTEST_SKIP() << "formatting the manual page needs mandoc";
  const ToolRun run =
      runTool(ToolStart{.wrapper = {"sh", "-c", "mandoc -T ascii '" + sourceTreePath("docs/kdxdispatchcopy.1") + "'"}});
  for (const Example& row : examples()) EXPECT_THAT(run.output, testing::HasSubstr(text({" ", row.command, "\n"})));
}

}  // namespace
