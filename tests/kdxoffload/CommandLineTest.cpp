#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/CommandLine.h"

namespace kdxoffload {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

CommandLine parsed(std::vector<std::string> arguments) {
  const auto answer = parseCommandLine(std::move(arguments));
  const auto* const refusal = std::get_if<CommandLineAnswer>(&answer);
  EXPECT_EQ(nullptr, refusal) << refusal->text;
  return refusal == nullptr ? std::get<CommandLine>(answer) : CommandLine{};
}

CommandLineAnswer refused(std::vector<std::string> arguments) {
  const auto answer = parseCommandLine(std::move(arguments));
  const auto* const refusal = std::get_if<CommandLineAnswer>(&answer);
  EXPECT_NE(nullptr, refusal);
  return refusal != nullptr ? *refusal : CommandLineAnswer{};
}

}  // namespace

TEST(OffloadCommandLine, WithoutOptionsEverythingIsAsTheManualSays) {
  const CommandLine line = parsed({"card", "a", "b"});
  EXPECT_EQ(Command::offload, line.command);
  EXPECT_EQ("card", line.card);
  EXPECT_THAT(line.destinations, ElementsAre("a", "b"));
  EXPECT_EQ(KDXDigestAlgorithmXXHash64BE, line.algorithm);
  EXPECT_EQ(std::nullopt, line.jobs);
  EXPECT_EQ(300, line.stallSeconds);
  EXPECT_TRUE(line.readBack && line.hashList);
  EXPECT_FALSE(line.partial || line.recheck || line.replace || line.checksums || line.json || line.quiet);
  EXPECT_EQ(std::nullopt, line.catalogue);
}

TEST(OffloadCommandLine, EveryOptionIsTaken) {
  const CommandLine line =
      parsed({"-t",        "md5",       "--jobs",      "3",         "--stall=7",      "--exclude", "*.tmp",
              "card",      "--exclude", "x/**",        "--partial", "--no-read-back", "--no-mhl",  "--checksums",
              "--recheck", "--replace", "--catalogue", "f",         "--json",         "--quiet",   "a"});
  EXPECT_EQ(KDXDigestAlgorithmMD5, line.algorithm);
  EXPECT_EQ(3U, line.jobs);
  EXPECT_EQ(7, line.stallSeconds);
  EXPECT_THAT(line.excluded, ElementsAre("*.tmp", "x/**"));
  EXPECT_TRUE(line.partial && line.recheck && line.replace && line.checksums && line.json && line.quiet);
  EXPECT_FALSE(line.readBack || line.hashList);
  EXPECT_EQ("f", line.catalogue);
  EXPECT_EQ("card", line.card);
  EXPECT_THAT(line.destinations, ElementsAre("a"));
}

TEST(OffloadCommandLine, ACommandIsTheFirstWordThatIsNoOption) {
  EXPECT_EQ(Command::status, parsed({"status", "card"}).command);
  EXPECT_EQ(Command::status, parsed({"--catalogue", "status", "status", "card", "a"}).command);
  EXPECT_EQ(Command::history, parsed({"--json", "history"}).command);
  const CommandLine line = parsed({"card", "status"});
  EXPECT_EQ(Command::offload, line.command);
  EXPECT_THAT(line.destinations, ElementsAre("status"));
}

TEST(OffloadCommandLine, BehindTwoDashesEverythingIsAPath) {
  const CommandLine line = parsed({"--", "status", "--json", "-t"});
  EXPECT_EQ(Command::offload, line.command);
  EXPECT_EQ("status", line.card);
  EXPECT_THAT(line.destinations, ElementsAre("--json", "-t"));
  EXPECT_FALSE(line.json);
}

TEST(OffloadCommandLine, WhatIsWrongIsRefusedWithStatusOne) {
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{{},
                                                                                     {"card"},
                                                                                     {"status"},
                                                                                     {"history", "x"},
                                                                                     {"-t", "md6", "card", "a"},
                                                                                     {"--jobs", "0", "card", "a"},
                                                                                     {"--jobs", "many", "card", "a"},
                                                                                     {"--stall", "-1", "card", "a"},
                                                                                     {"--unknown", "card", "a"},
                                                                                     {"card", "a", "-t"}}) {
    const CommandLineAnswer answer = refused(words);
    EXPECT_EQ(1, answer.exitStatus) << testing::PrintToString(words);
    EXPECT_THAT(answer.text, HasSubstr("kdxoffload: "));
    EXPECT_FALSE(answer.json);
  }
  EXPECT_TRUE(refused({"--json"}).json);
}

TEST(OffloadCommandLine, HelpAndVersionGoWithStatusZero) {
  EXPECT_EQ(0, refused({"--help"}).exitStatus);
  EXPECT_THAT(refused({"--help"}).text, HasSubstr("kdxoffload [OPTIONS] CARD DESTINATION..."));
  EXPECT_EQ("kdxoffload " KDX_VERSION "\n", refused({"--version"}).text);
}

TEST(OffloadCommandLine, EveryOptionIsKnownToWhoAsks) {
  std::vector<std::string> names;
  for (const CommandLineOption& option : commandLineOptions()) {
    names.push_back((option.longName.empty() ? option.shortName : option.longName) + (option.takesArgument ? "=" : ""));
  }
  EXPECT_THAT(names, testing::UnorderedElementsAre("help", "version", "t=", "jobs=", "stall=", "exclude=", "partial",
                                                   "no-read-back", "no-mhl", "checksums", "recheck", "replace",
                                                   "catalogue=", "json", "quiet"));
}

}  // namespace kdxoffload
