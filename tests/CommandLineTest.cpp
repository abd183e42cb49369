#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/CommandLine.h"
#include "tests/support/ClipOffload.h"
#include "tests/support/ParsedLine.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::ElementsAre;

namespace {

using Words = std::vector<std::string>;

std::vector<std::string> pathsOf(const std::vector<platform::FileURL>& files) {
  std::vector<std::string> paths;
  for (const platform::FileURL& file : files) paths.push_back(file.path());
  return paths;
}

std::string sourceOf(const CommandLine& line) {
  return line.source ? line.source->path() : "(none)";
}

// Everything but the paths, in one line: the verification options, then what differs from an empty command line.
std::string settingsOf(const CommandLine& line) {
  std::string text = std::to_string(line.verificationOptions);
  if (line.isSequence) text += " sequence";
  if (line.noDestinationNeeded) text += " no-destination";
  if (line.verbose) text += " verbose";
  if (line.forceOverwrite) text += " overwrite";
  if (line.skipFlush) text += " no-flush";
  if (line.expectedFilesize) text += " size=" + std::to_string(*line.expectedFilesize);
  if (line.algorithmWord) text += " word=" + *line.algorithmWord;
  if (line.externalHash) text += " hash=" + *line.externalHash;
  return text;
}

struct Options : NamedRow {
  Words options;
  std::string settings;
};

class OptionsAnywhere : public testing::TestWithParam<Options> {
 protected:
  // The options of the row behind so many of the three paths.
  static void expectTheirEffectBehind(std::ptrdiff_t paths) {
    Words words{"/card/clip.mov", "/a/clip.mov", "/b/clip.mov"};
    words.insert(words.begin() + paths, GetParam().options.begin(), GetParam().options.end());
    const CommandLine line = parsedLine(words);
    EXPECT_EQ(GetParam().settings, settingsOf(line)) << "behind " << paths << " paths";
    EXPECT_EQ("/card/clip.mov", sourceOf(line)) << "behind " << paths << " paths";
    EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/clip.mov", "/b/clip.mov"))
        << "behind " << paths << " paths";
  }
};

TEST_P(OptionsAnywhere, HaveTheirEffectWhereverTheyStandAmongThePaths) {
  for (const std::ptrdiff_t paths : {0, 1, 2, 3}) expectTheirEffectBehind(paths);
}

INSTANTIATE_TEST_SUITE_P(
    EachOption, OptionsAnywhere,
    testing::Values(Options{"None", {}, "14"},                                     //
                    Options{"Verbose", {"-v"}, "14 verbose"},                      //
                    Options{"VerboseLong", {"--v"}, "14 verbose"},                 //
                    Options{"Size", {"-a", "5"}, "14 size=5"},                     //
                    Options{"SizeLong", {"--f_size", "5"}, "14 size=5"},           //
                    Options{"SizeLongSingleDash", {"-f_size", "5"}, "14 size=5"},  //
                    Options{"NoReadBack", {"-k"}, "2"},                            //
                    Options{"NoReadBackLong", {"--k"}, "2"},                       //
                    Options{"NoDigest", {"-n"}, "0"},                              //
                    Options{"NoDigestLong", {"--n"}, "0"},                         //
                    Options{"NoDestination", {"-j"}, "14 no-destination"},         //
                    Options{"NoDestinationLong", {"--j"}, "14 no-destination"},    //
                    Options{"NoSourceReadBack", {"-ns"}, "10"},                    //
                    Options{"NoSourceReadBackLong", {"--ns"}, "10"},               //
                    Options{"NoFlush", {"-nf"}, "14 no-flush"},                    //
                    Options{"NoFlushLong", {"--nf"}, "14 no-flush"},               //
                    Options{"NoFileSize", {"-nfs"}, "30"},                         //
                    Options{"NoFileSizeLong", {"--nfs"}, "30"},                    //
                    Options{"Overwrite", {"-f"}, "14 overwrite"},                  //
                    Options{"OverwriteLong", {"--f"}, "14 overwrite"},             //
                    Options{"Algorithm", {"-t", "sha1"}, "14 word=sha1"},          //
                    Options{"AlgorithmLong", {"--t", "sha1"}, "14 word=sha1"},     //
                    Options{"Hash", {"-e", "MD5:00"}, "14 hash=MD5:00"},           //
                    Options{"HashLong", {"--e", "MD5:00"}, "14 hash=MD5:00"},      //
                    Options{"IgnoredSwitch", {"-c"}, "14"},                        //
                    Options{"IgnoredSwitchLong", {"--c"}, "14"},                   //
                    Options{"IgnoredArgument", {"-b", "value"}, "14"},             //
                    Options{"IgnoredArgumentLong", {"--b", "value"}, "14"},        //
                    Options{"AllTogether",
                            {"-v", "-a", "7", "-k", "-j", "-c", "-ns", "-nf", "-nfs", "-f", "-t", "xxhash64be", "-b",
                             "x", "-e", "SHA1:ff"},
                            "18 no-destination verbose overwrite no-flush size=7 word=xxhash64be hash=SHA1:ff"}),
    rowName);

INSTANTIATE_TEST_SUITE_P(OtherSpellings, OptionsAnywhere,
                         testing::Values(Options{"AClusterOfTwo", {"-kv"}, "2 verbose"},               //
                                         Options{"AClusterOfThree", {"-fvk"}, "2 verbose overwrite"},  //
                                         Options{"AClusterThatEndsInAnArgument", {"-kva", "9"}, "2 verbose size=9"},
                                         Options{"AClusterWithAGluedArgument", {"-kva9"}, "2 verbose size=9"},  //
                                         Options{"AClusterThatStartsWithN", {"-nv"}, "0 verbose"},              //
                                         Options{"AnAbbreviation", {"-f_s", "5"}, "14 size=5"},                 //
                                         Options{"TheShortestAbbreviation", {"-f_", "5"}, "14 size=5"},         //
                                         Options{"AnAbbreviationWithTwoDashes", {"--f_siz", "5"}, "14 size=5"},
                                         Options{"AnAbbreviationWithAnEqualsSign", {"--f_s=5"}, "14 size=5"},  //
                                         Options{"ASizeWithAnEqualsSign", {"--f_size=5"}, "14 size=5"},        //
                                         Options{"ASizeWithAnEqualsSignAndOneDash", {"-f_size=5"}, "14 size=5"},
                                         Options{"AnAlgorithmWithAnEqualsSign", {"--t=sha1"}, "14 word=sha1"},
                                         Options{"AnAlgorithmWithAnEqualsSignAndOneDash", {"-t=sha1"}, "14 word=sha1"},
                                         Options{"AHashWithAnEqualsSign", {"--e=MD5:00"}, "14 hash=MD5:00"},
                                         Options{"AHashWithAnEqualsSignAndOneDash", {"-e=MD5:00"}, "14 hash=MD5:00"},
                                         Options{"AGluedSize", {"-a5"}, "14 size=5"},                        //
                                         Options{"AGluedAlgorithm", {"-tsha1"}, "14 word=sha1"},             //
                                         Options{"AGluedHash", {"-eMD5:00"}, "14 hash=MD5:00"},              //
                                         Options{"AGluedIgnoredArgument", {"-bvalue"}, "14"},                //
                                         Options{"AnIgnoredArgumentWithAnEqualsSign", {"--b=value"}, "14"},  //
                                         Options{"AnEmptyArgument", {"--t="}, "14 word="},                   //
                                         Options{"AnArgumentThatLooksLikeAnOption", {"-e", "-k"}, "14 hash=-k"},
                                         Options{"AnIgnoredArgumentThatLooksLikeAnOption", {"-b", "-k"}, "14"},
                                         Options{"AnArgumentThatIsTwoDashes", {"-t", "--"}, "14 word=--"}),
                         rowName);

INSTANTIATE_TEST_SUITE_P(NotUnderstood, OptionsAnywhere,
                         testing::Values(Options{"AnUnknownLetter", {"-z"}, "14"},                       //
                                         Options{"AnUnknownWord", {"--unknown"}, "14"},                  //
                                         Options{"AnUnknownWordWithAnArgument", {"--unknown=5"}, "14"},  //
                                         Options{"AnUnknownLetterBetweenOthers", {"-k", "-z", "-v"}, "2 verbose"},
                                         Options{"AnUnknownLetterInACluster", {"-vzk"}, "2 verbose"},        //
                                         Options{"AWordThatStartsWithAnUnknownLetter", {"-zkv"}, "14"},      //
                                         Options{"ALetterThatIsNoLongOption", {"--a", "-v"}, "14 verbose"},  //
                                         Options{"AnArgumentWhereNoneBelongs", {"--k=5"}, "14"},             //
                                         Options{"AnotherCase", {"-V", "-K", "-NFS"}, "14"},                 //
                                         Options{"AskingForHelp", {"--help"}, "14"}),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    Sizes, OptionsAnywhere,
    testing::Values(Options{"Zero", {"-a", "0"}, "14 size=0"},                   //
                    Options{"Negative", {"-a", "-5"}, "14 size=-5"},             //
                    Options{"NegativeGlued", {"-a-5"}, "14 size=-5"},            //
                    Options{"AWord", {"-a", "many"}, "14 size=0"},               //
                    Options{"NothingAtAll", {"-a", ""}, "14 size=0"},            //
                    Options{"ANumberAndMore", {"-a", "12MB"}, "14 size=12"},     //
                    Options{"SpacesInFront", {"-a", "  12"}, "14 size=12"},      //
                    Options{"AHexadecimalNumber", {"-a", "0x10"}, "14 size=0"},  //
                    Options{"MoreThan32Bits", {"-a", "5000000000"}, "14 size=5000000000"},
                    Options{"TheLargest", {"-a", "9223372036854775807"}, "14 size=9223372036854775807"},
                    Options{"TheSmallest", {"-a", "-9223372036854775808"}, "14 size=-9223372036854775808"},
                    Options{"AShortOptionWithAnEqualsSign", {"-a=5"}, "14 size=0"}),
    rowName);

INSTANTIATE_TEST_SUITE_P(Combined, OptionsAnywhere,
                         testing::Values(Options{"NoReadBackThenNoFileSize", {"-k", "-nfs"}, "18"},        //
                                         Options{"NoFileSizeThenNoReadBack", {"-nfs", "-k"}, "18"},        //
                                         Options{"NoFileSizeThenNoDigest", {"-nfs", "-n"}, "16"},          //
                                         Options{"NoDigestThenNoFileSize", {"-n", "-nfs"}, "16"},          //
                                         Options{"NoSourceReadBackThenNoReadBack", {"-ns", "-k"}, "2"},    //
                                         Options{"NoReadBackThenNoSourceReadBack", {"-k", "-ns"}, "2"},    //
                                         Options{"NoDigestThenNoReadBack", {"-n", "-k"}, "0"},             //
                                         Options{"NoSourceReadBackAndNoFileSize", {"-ns", "-nfs"}, "26"},  //
                                         Options{"NoDigestWithAnAlgorithm", {"-n", "-t", "bogus"}, "0 word=bogus"}),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    Repeated, OptionsAnywhere,
    testing::Values(Options{"TheLastSizeCounts", {"-a", "1", "-a", "2", "-f_size", "3"}, "14 size=3"},
                    Options{"TheLastAlgorithmCounts", {"-t", "sha1", "-tmd5"}, "14 word=md5"},
                    Options{"TheLastHashCounts", {"-e", "MD5:00", "--e=SHA1:11"}, "14 hash=SHA1:11"},
                    Options{"SwitchesStaySet",
                            {"-v", "-v", "-f", "-f", "-nf", "-nf", "-nfs", "-nfs", "-k", "-k"},
                            "18 verbose overwrite no-flush"}),
    rowName);

// An option that lacks its argument can only be the last word.

class MissingArgument : public testing::TestWithParam<Options> {};

TEST_P(MissingArgument, IsPassedOver) {
  Words words{"-v", "/card/clip.mov", "/a/clip.mov"};
  words.insert(words.end(), GetParam().options.begin(), GetParam().options.end());
  const CommandLine line = parsedLine(words);
  EXPECT_EQ(GetParam().settings, settingsOf(line));
  EXPECT_EQ("/card/clip.mov", sourceOf(line));
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/clip.mov"));
}

INSTANTIATE_TEST_SUITE_P(CommandLine, MissingArgument,
                         testing::Values(Options{"OfTheSize", {"-a"}, "14 verbose"},
                                         Options{"OfTheLongSize", {"--f_size"}, "14 verbose"},
                                         Options{"OfTheAlgorithm", {"-t"}, "14 verbose"},
                                         Options{"OfTheLongAlgorithm", {"--t"}, "14 verbose"},
                                         Options{"OfTheHash", {"-e"}, "14 verbose"},
                                         Options{"OfTheIgnoredOption", {"-b"}, "14 verbose"},
                                         Options{"OfTheLastOfACluster", {"-ka"}, "2 verbose"},
                                         Options{"OfASecondSize", {"-a", "5", "-a"}, "14 verbose size=5"}),
                         rowName);

// Paths

TEST(CommandLine, OptionsBehindThePathsCountWhereThePOSIXOrderIsAskedForToo) {
  ::setenv("POSIXLY_CORRECT", "1", 1);
  const CommandLine line = parsedLine({"/card/clip.mov", "-k", "/a/clip.mov", "-v", "-a", "5"});
  ::unsetenv("POSIXLY_CORRECT");
  EXPECT_EQ("2 verbose size=5", settingsOf(line));
  EXPECT_EQ("/card/clip.mov", sourceOf(line));
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/clip.mov"));
}

TEST(CommandLine, WithoutArgumentsIsEmpty) {
  const CommandLine line = parsedLine({});
  EXPECT_EQ("14", settingsOf(line));
  EXPECT_FALSE(line.source.has_value());
  EXPECT_EQ(nullptr, line.sourceSequence);
  EXPECT_THAT(line.destinations, testing::IsEmpty());
}

TEST(CommandLine, TheFirstPathIsTheSourceAndTheOthersAreDestinations) {
  const CommandLine line = parsedLine({"/card/clip.mov", "/a/clip.mov", "/b/clip.mov"});
  EXPECT_EQ("/card/clip.mov", sourceOf(line));
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/clip.mov", "/b/clip.mov"));
}

TEST(CommandLine, ASinglePathIsTheSource) {
  const CommandLine line = parsedLine({"/card/clip.mov"});
  EXPECT_EQ("/card/clip.mov", sourceOf(line));
  EXPECT_THAT(line.destinations, testing::IsEmpty());
}

TEST(CommandLine, DestinationsKeepTheirOrderAndDuplicatesStay) {
  const CommandLine line = parsedLine({"/s", "/z", "/a", "/z", "/m", "/s", "/a"});
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/z", "/a", "/z", "/m", "/s", "/a"));
}

TEST(CommandLine, RelativePathsArePutBehindTheWorkingDirectory) {
  const ScratchDirectory scratch;
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(scratch.path());
  const CommandLine line = parsedLine({"clip.mov", "./a/clip.mov", "../clip.mov", "/b/clip.mov"});
  std::filesystem::current_path(before);
  const std::string directory = scratch.path().string();
  EXPECT_EQ(directory + "/clip.mov", sourceOf(line));
  EXPECT_THAT(pathsOf(line.destinations),
              ElementsAre(directory + "/./a/clip.mov", directory + "/../clip.mov", "/b/clip.mov"));
}

TEST(CommandLine, SymbolicLinksAreNotFollowed) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "media");
  std::filesystem::create_symlink("clip.mov", scratch.path() / "link.mov");
  EXPECT_EQ(scratch.file("link.mov"), sourceOf(parsedLine({scratch.file("link.mov")})));
}

TEST(CommandLine, ASingleDashIsAPath) {
  const std::string directory = std::filesystem::current_path().string();
  const CommandLine line = parsedLine({"/card/clip.mov", "-"});
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre(directory + "/-"));
}

TEST(CommandLine, AnEmptyArgumentIsAPathThatNamesTheWorkingDirectory) {
  const std::string directory = std::filesystem::current_path().string();
  const CommandLine line = parsedLine({"", "/a/clip.mov", ""});
  EXPECT_EQ(directory, sourceOf(line));
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/clip.mov", directory));
}

TEST(CommandLine, TwoDashesEndTheCommandLine) {
  const CommandLine line = parsedLine({"-v", "/card/clip.mov", "/a/clip.mov", "--", "/b/clip.mov", "-k"});
  EXPECT_EQ("14 verbose", settingsOf(line));
  EXPECT_EQ("/card/clip.mov", sourceOf(line));
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/clip.mov"));
}

TEST(CommandLine, PathsWithSpacesAndLettersOfAllScriptsStayAsTheyAre) {
  const CommandLine line = parsedLine({"/card/A B.mov", "/\xc3\xbc/\xe3\x82\xaf\xe3\x83\xaa.mov", "/\xf0\x9f\x8e\xac"});
  EXPECT_EQ("/card/A B.mov", sourceOf(line));
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/\xc3\xbc/\xe3\x82\xaf\xe3\x83\xaa.mov", "/\xf0\x9f\x8e\xac"));
}

TEST(CommandLine, AnEarlierCommandLineLeavesNothingBehind) {
  parsedLine({"-v", "-k", "-a", "5", "/a", "/b", "-s"});
  const CommandLine line = parsedLine({"/card/clip.mov", "/a/clip.mov"});
  EXPECT_EQ("14", settingsOf(line));
  EXPECT_EQ("/card/clip.mov", sourceOf(line));
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/clip.mov"));
}

// Arguments that are not UTF-8

struct NotText : NamedRow {
  std::string bytes;
};

class BytesThatAreNoText : public testing::TestWithParam<NotText> {};

TEST_P(BytesThatAreNoText, GiveNoSourceAndTheNextPathIsADestination) {
  const CommandLine line = parsedLine({GetParam().bytes, "/a/clip.mov"});
  EXPECT_FALSE(line.source.has_value());
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/clip.mov"));
}

TEST_P(BytesThatAreNoText, AreDroppedAmongTheDestinations) {
  const CommandLine line = parsedLine({"/card/clip.mov", "/a/clip.mov", GetParam().bytes, "/b/clip.mov"});
  EXPECT_EQ("/card/clip.mov", sourceOf(line));
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/clip.mov", "/b/clip.mov"));
}

TEST_P(BytesThatAreNoText, GiveNoSequenceAndTheNextPathIsADestination) {
  const CommandLine line = parsedLine({"-s", GetParam().bytes, "/a/frames"});
  EXPECT_TRUE(line.isSequence);
  EXPECT_EQ(nullptr, line.sourceSequence);
  EXPECT_FALSE(line.source.has_value());
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/frames"));
}

TEST_P(BytesThatAreNoText, AreNoHashThatIsForgotten) {
  // Without it the copy would pass as compared with a hash that nobody looked at.
  EXPECT_TRUE(parsedLine({"-e", GetParam().bytes, "/card/clip.mov", "/a/clip.mov"}).externalHash.has_value());
}

INSTANTIATE_TEST_SUITE_P(CommandLine, BytesThatAreNoText,
                         testing::Values(NotText{"ALatin1Letter", "/caf\xe9.mov"}, NotText{"ALoneByte", "\xff"},
                                         NotText{"AnOverlongForm", "/\xc0\xaf"}, NotText{"ASurrogate", "/\xed\xa0\x80"},
                                         NotText{"ACutOffLetter", "/a\xe3\x82"},
                                         NotText{"BeyondTheLastLetter", "/\xf4\x90\x80\x80"},
                                         NotText{"AFrameRange", "/\xe4.1-2_##.dpx"}),
                         rowName);

// Sequences

constexpr const char* frames = "/card/clip.0001-0100.####.dpx";

std::string identifierOf(const CommandLine& line) {
  return line.sourceSequence ? line.sourceSequence->identifier() : "(none)";
}

TEST(CommandLine, TheFirstPathBehindTheSequenceOptionIsItsIdentifier) {
  for (const char* option : {"-s", "--s"}) {
    const CommandLine line = parsedLine({option, frames, "/a/frames", "/b/frames"});
    EXPECT_EQ("14 sequence", settingsOf(line));
    ASSERT_EQ(frames, identifierOf(line));
    EXPECT_EQ(1, line.sourceSequence->startFrame());
    EXPECT_EQ(100U, line.sourceSequence->duration());
    EXPECT_FALSE(line.source.has_value());
    EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/frames", "/b/frames"));
  }
}

TEST(CommandLine, AnIdentifierStaysTheTextThatWasGiven) {
  for (const char* identifier : {"clip.##.dpx", "./../clip.1-2_##.dpx", "/card//clip.1-2_##.dpx/", "##"})
    EXPECT_EQ(identifier, identifierOf(parsedLine({"-s", identifier, "/a/frames"})));
}

TEST(CommandLine, TheSequenceOptionBehindTheSourceLeavesItAPlainFile) {
  const CommandLine line = parsedLine({frames, "-s", "/a/frames.1-2_##"});
  EXPECT_TRUE(line.isSequence);
  EXPECT_EQ(nullptr, line.sourceSequence);
  EXPECT_EQ(frames, sourceOf(line));
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/frames.1-2_##"));
}

TEST(CommandLine, WithoutTheSequenceOptionHashesAreLettersOfAName) {
  const CommandLine line = parsedLine({frames, "/a/frames"});
  EXPECT_EQ("14", settingsOf(line));
  EXPECT_EQ(nullptr, line.sourceSequence);
  EXPECT_EQ(frames, sourceOf(line));
}

TEST(CommandLine, OtherOptionsMayStandBetweenTheSequenceOptionAndItsIdentifier) {
  const CommandLine line = parsedLine({"-s", "-v", "-a", "5", frames, "-j", "/a/frames"});
  EXPECT_EQ("14 sequence no-destination verbose size=5", settingsOf(line));
  EXPECT_EQ(frames, identifierOf(line));
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/frames"));
}

TEST(CommandLine, ASequenceOptionWithoutAPathHasNoIdentifier) {
  const CommandLine line = parsedLine({"-s"});
  EXPECT_TRUE(line.isSequence);
  EXPECT_EQ(nullptr, line.sourceSequence);
}

TEST(CommandLine, AnIdentifierWithoutHashesIsTheSourceAllTheSameAndTheNextPathADestination) {
  const CommandLine line = parsedLine({"-s", "/card/clip.dpx", "/a/frames.1-2_##"});
  EXPECT_TRUE(line.isSequence);
  EXPECT_EQ(nullptr, line.sourceSequence);
  EXPECT_FALSE(line.source.has_value());
  EXPECT_THAT(pathsOf(line.destinations), ElementsAre("/a/frames.1-2_##"));
}

TEST(CommandLine, NothingIsPrintedAboutOptionsThatAreNotUnderstood) {
  const ToolRun run = runTool({"--unknown", "-z", "--k=5", "-a"});
  EXPECT_EQ("no destination specified\ninvalid arguments\n", run.output);
  EXPECT_EQ("kdxdispatchcopy: " + std::string(usage) + "\n", run.errors);
}

}  // namespace
