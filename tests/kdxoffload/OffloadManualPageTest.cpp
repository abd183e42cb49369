// The manual page says of kdxoffload what is so: its options and statuses are compared with the program's own, and its
// examples are command lines that it takes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <variant>

#include "KDXFileTools/kdxoffload/CommandLine.h"
#include "tests/support/ExpectedText.h"
#include "tests/support/ManualPage.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

namespace {

using Texts = std::set<std::string>;

ManualPage page() {
  return ManualPage("kdxoffload");
}

Texts allMatches(const std::string& text, const std::string& pattern) {
  const std::regex expression(pattern);
  Texts found;
  for (std::sregex_iterator match(text.begin(), text.end(), expression); match != std::sregex_iterator(); ++match) {
    found.insert(match->str(1));
  }
  return found;
}

// "--json" for a switch, "-t=" for an option with an argument.
Texts optionsOfTheParser() {
  Texts options;
  for (const kdxoffload::CommandLineOption& option : kdxoffload::commandLineOptions()) {
    const std::string ending = option.takesArgument ? "=" : "";
    if (!option.longName.empty()) options.insert("--" + option.longName + ending);
    if (!option.shortName.empty()) options.insert("-" + option.shortName + ending);
  }
  return options;
}

// Of a line of macros: "Fl t Ar algorithm", "Fl -json".
Texts optionsIn(const std::string& line) {
  Texts options;
  for (const std::string& one : allMatches(replaced(line, "\\-", "-"), "(Fl [^|,]*)")) {
    const std::string name = one.substr(3, one.find(' ', 3) - 3);
    options.insert("-" + name + (one.find(" Ar ") != std::string::npos ? "=" : ""));
  }
  return options;
}

TEST(OffloadManualPage, ListsTheOptionsOfTheParserAndNoOthers) {
  Texts listed;
  for (const std::string& item : page().items("Options")) listed.merge(optionsIn(item));
  EXPECT_EQ(optionsOfTheParser(), listed);
}

TEST(OffloadManualPage, HasTheOptionsOfTheParserAndNoOthersInItsSynopsis) {
  Texts listed;
  for (const std::string& line : page().linesOfSection("SYNOPSIS")) listed.merge(optionsIn(line));
  EXPECT_EQ(optionsOfTheParser(), listed);
}

TEST(OffloadManualPage, ListsTheExitStatusesOfTheProgramAndNoOthers) {
  const std::string header = readFile(sourceTreePath("KDXFileTools/kdxoffload/ExitStatus.h"));
  Texts statuses = allMatches(header, "inline constexpr int \\w+ = ([0-9]+);");
  EXPECT_EQ(1U, statuses.erase("128"));
  statuses.insert("128 + n");
  const std::vector<std::string> items = page().items("EXIT STATUS");
  EXPECT_EQ(statuses, Texts(items.begin(), items.end()));
}

// The words of a command as a shell takes it apart, up to the first that is the shell's own.
std::vector<std::string> wordsOf(const std::string& command) {
  const std::string simple = std::regex_replace(command, std::regex(" (>|\\||&&) .*"), "");
  const ToolRun run = runTool(ToolStart{.wrapper = {"sh", "-c", "printf '%s\\n' " + simple}});
  return run.lines();
}

TEST(OffloadManualPage, HasExamplesThatTheParserTakes) {
  const std::vector<std::string> examples = page().displayedLines("EXAMPLES");
  EXPECT_LE(5U, examples.size());
  for (const std::string& example : examples) {
    std::vector<std::string> words = wordsOf(example);
    ASSERT_FALSE(words.empty());
    EXPECT_EQ("kdxoffload", words.front()) << example;
    words.erase(words.begin());
    EXPECT_TRUE(std::holds_alternative<kdxoffload::CommandLine>(kdxoffload::parseCommandLine(words))) << example;
  }
}

TEST(OffloadManualPage, IsCleanToTheFormatter) {
  if (!haveProgram("mandoc")) GTEST_SKIP() << "checking the format of the manual page needs mandoc";
  const ToolRun run = runTool(
      ToolStart{.wrapper = {"sh", "-c", "mandoc -T lint -W warning '" + sourceTreePath("docs/kdxoffload.1") + "'"}});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("", run.output + run.errors);
}

TEST(OffloadManualPage, ShowsItsExamplesAsTheyAreTyped) {
  if (!haveProgram("mandoc")) GTEST_SKIP() << "formatting the manual page needs mandoc";
  const ToolRun run =
      runTool(ToolStart{.wrapper = {"sh", "-c", "mandoc -T ascii '" + sourceTreePath("docs/kdxoffload.1") + "'"}});
  for (const std::string& example : page().displayedLines("EXAMPLES")) {
    EXPECT_THAT(run.output, testing::HasSubstr(text({" ", example, "\n"})));
  }
}

}  // namespace
