// Whole runs of the built program: its lines, its exit status, what lies on disk.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <ostream>

#include "tests/support/ClipOffload.h"
#include "tests/support/ExpectedText.h"
#include "tests/support/OutputLines.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Le;
using testing::MatchesRegex;

namespace {

namespace fs = std::filesystem;

using Names = std::vector<std::string>;
using Arguments = std::vector<std::string>;

// A command line and all that comes of it. Constants alone: large tables of strings take compilers minutes.
struct Run {
  const char* name;
  const char* arguments[9];  // up to the first null
  int status;
  const char* output;
  const char* logged = "";
  OnDisk names;
};

Arguments argumentsOf(const Run& run) {
  return {run.arguments, std::ranges::find(run.arguments, nullptr)};
}

void PrintTo(const Run& run, std::ostream* stream) {
  *stream << run.name;
}

void expectRun(const Run& row) {
  const ClipOffload offload;
  const ToolRun run = runTool(offload.filled(argumentsOf(row)));
  EXPECT_EQ(row.status, run.exitStatus);
  expectOutput(offload.filled(row.output), run.output);
  expectLogged(offload.filled(row.logged), run.errors);
  EXPECT_EQ(namesOf(row.names), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(offload.source));
  if (row.names == OnDisk::offloaded) {
    EXPECT_TRUE(offload.bytes == readFile(offload.destination));
  }
}

class ToolOptions : public testing::TestWithParam<Run> {};

TEST_P(ToolOptions, AreTakenAsDescribedAndTheOffloadSucceeds) {
  expectRun(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    ReadBack, ToolOptions,
    testing::Values(Run{.name = "None",
                        .arguments = {"{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}{bothReadBack}{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "NoReadBack",
                        .arguments = {"-k", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "NoDigestEither",
                        .arguments = {"-n", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{sizeChecked}{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "SourceNotReadBack",
                        .arguments = {"-ns", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}"
                                  "~INFO: verifying {backup}\n"
                                  "~verify of destination file #1 ({destination}) ok.\n"
                                  "{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "NoFlush",
                        .arguments = {"-nf", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}{bothReadBack}"
                                  "INFO: moving files in place..\n"
                                  "INFO: done.\n"
                                  "\n",
                        .names = OnDisk::offloaded},
                    Run{.name = "NoSizeCheckChangesNothingWhereFilesAreReadBack",
                        .arguments = {"-nfs", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}{bothReadBack}{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "NoReadBackAndTheSizeGiven",
                        .arguments = {"-k", "-nfs", "-a", "{size}", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}"
                                  "Copy completed successfully for destination file ({destination})\n"
                                  "{movedAndFlushed}",
                        .names = OnDisk::offloaded}),
    rowName);

INSTANTIATE_TEST_SUITE_P(Digests, ToolOptions,
                         testing::Values(Run{.name = "MD5",
                                             .arguments = {"-t", "md5", "{source}", "{destination}"},
                                             .status = 0,
                                             .output = "{started}{hashed}{bothReadBack}{movedAndFlushed}",
                                             .names = OnDisk::offloaded},
                                         Run{.name = "SHA1",
                                             .arguments = {"-t", "sha1", "{source}", "{destination}"},
                                             .status = 0,
                                             .output = "{started}"
                                                       "hash SHA1:{sha1}\n"
                                                       "{bothReadBack}{movedAndFlushed}",
                                             .names = OnDisk::offloaded},
                                         Run{.name = "XXHash64BE",
                                             .arguments = {"-t", "xxhash64be", "{source}", "{destination}"},
                                             .status = 0,
                                             .output = "{started}"
                                                       "hash XXHash64BE:{xxh64}\n"
                                                       "{bothReadBack}{movedAndFlushed}",
                                             .names = OnDisk::offloaded},
                                         Run{.name = "TheLastWordCounts",
                                             .arguments = {"-t", "bogus", "-t", "sha1", "{source}", "{destination}"},
                                             .status = 0,
                                             .output = "{started}"
                                                       "hash SHA1:{sha1}\n"
                                                       "{bothReadBack}{movedAndFlushed}",
                                             .names = OnDisk::offloaded},
                                         Run{.name = "AnyWordWithoutDigest",
                                             .arguments = {"-n", "-t", "bogus", "{source}", "{destination}"},
                                             .status = 0,
                                             .output = "{started}{sizeChecked}{movedAndFlushed}",
                                             .names = OnDisk::offloaded}),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    ExternalHashes, ToolOptions,
    testing::Values(Run{.name = "OfTheCopyAlgorithm",
                        .arguments = {"-e", "MD5:{md5}", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}{bothReadBack}{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "InCapitals",
                        .arguments = {"-k", "-e", "MD5:{MD5}", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "OfAnotherAlgorithm",
                        .arguments = {"-k", "-e", "SHA1:{sha1}", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "MostSignificantByteFirst",
                        .arguments = {"-k", "-e", "XXHash64BE:{xxh64}", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "LeastSignificantByteFirst",
                        .arguments = {"-k", "-e", "XXHash64:{xxh64reversed}", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "WithoutCopyDigest",
                        .arguments = {"-n", "-e", "SHA1:{sha1}", "{source}", "{destination}"},
                        .status = 0,
                        .output = "{started}{sizeChecked}{movedAndFlushed}",
                        .names = OnDisk::offloaded}),
    rowName);

INSTANTIATE_TEST_SUITE_P(Spellings, ToolOptions,
                         testing::Values(Run{.name = "RightSize",
                                             .arguments = {"-k", "-a", "{size}", "{source}", "{destination}"},
                                             .status = 0,
                                             .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                                             .names = OnDisk::offloaded},
                                         Run{.name = "RightSizeByItsLongName",
                                             .arguments = {"-k", "-f_size", "{size}", "{source}", "{destination}"},
                                             .status = 0,
                                             .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                                             .names = OnDisk::offloaded},
                                         Run{.name = "WrongSizeIsNotLookedAtWhereFilesAreReadBack",
                                             .arguments = {"-a", "5", "{source}", "{destination}"},
                                             .status = 0,
                                             .output = "{started}{hashed}{bothReadBack}{movedAndFlushed}",
                                             .names = OnDisk::offloaded},
                                         Run{.name = "IgnoredOnesChangeNothing",
                                             .arguments = {"-c", "-b", "value", "-z", "{source}", "{destination}"},
                                             .status = 0,
                                             .output = "{started}{hashed}{bothReadBack}{movedAndFlushed}",
                                             .names = OnDisk::offloaded},
                                         Run{.name = "OneWithoutItsArgumentIsPassedOver",
                                             .arguments = {"-k", "{source}", "{destination}", "-t"},
                                             .status = 0,
                                             .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                                             .names = OnDisk::offloaded},
                                         Run{.name = "BehindThePaths",
                                             .arguments = {"{source}", "{destination}", "-k"},
                                             .status = 0,
                                             .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                                             .names = OnDisk::offloaded},
                                         Run{.name = "BetweenThePaths",
                                             .arguments = {"{source}", "-k", "{destination}", "-nf"},
                                             .status = 0,
                                             .output = "{started}{hashed}{sizeChecked}"
                                                       "INFO: moving files in place..\nINFO: done.\n\n",
                                             .names = OnDisk::offloaded},
                                         Run{.name = "SeveralInOneWord",
                                             .arguments = {"-kf", "{source}", "{destination}"},
                                             .status = 0,
                                             .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                                             .names = OnDisk::offloaded}),
                         rowName);

INSTANTIATE_TEST_SUITE_P(WithoutDestinations, ToolOptions,
                         testing::Values(Run{.name = "ReadBack",
                                             .arguments = {"-j", "{source}"},
                                             .status = 0,
                                             .output = "{started}{hashed}"
                                                       "INFO: verifying {card}\n"
                                                       "verify of source file #1 ({source}) ok.\n"
                                                       "{movedAndFlushed}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "DigestAlone",
                                             .arguments = {"-j", "-k", "-t", "sha1", "{source}"},
                                             .status = 0,
                                             .output = "{started}"
                                                       "hash SHA1:{sha1}\n"
                                                       "{movedAndFlushed}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "NotEvenADigest",
                                             .arguments = {"-j", "-n", "-nf", "{source}"},
                                             .status = 0,
                                             .output = "{started}"
                                                       "INFO: moving files in place..\nINFO: done.\n\n",
                                             .names = OnDisk::untouched}),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    Paths, ToolOptions,
    testing::Values(Run{.name = "ASlashAtTheEndIsDropped",
                        .arguments = {"-k", "{source}/", "{destination}//"},
                        .status = 0,
                        .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "DotsAndDoubledSlashesStay",
                        .arguments = {"-k", "{scratch}//card/.//clip.mov", "{scratch}/card/../backup//clip.mov"},
                        .status = 0,
                        .output = "INFO: copying {scratch}//card/....\n"
                                  "{hashed}"
                                  "Copy completed successfully for destination file with file size check "
                                  "({scratch}/card/../backup//clip.mov)\n"
                                  "{movedAndFlushed}",
                        .names = OnDisk::offloaded},
                    Run{.name = "ADestinationThatIsNoTextIsDropped",
                        .arguments = {"-k", "{source}", "{scratch}/backup/\xff.mov", "{destination}"},
                        .status = 0,
                        .output = "{started}{hashed}{sizeChecked}{movedAndFlushed}",
                        .names = OnDisk::offloaded}),
    rowName);

class ToolRefusals : public testing::TestWithParam<Run> {};

TEST_P(ToolRefusals, SayWhatIsWrongAndGiveNoFinalName) {
  auto refused = GetParam();
  if (std::string_view(refused.output).ends_with("{invalid}")) refused.logged = usage;
  expectRun(refused);
}

INSTANTIATE_TEST_SUITE_P(CommandLines, ToolRefusals,
                         testing::Values(Run{.name = "NoArguments",
                                             .arguments = {nullptr},
                                             .status = 1,
                                             .output = "no destination specified\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "OptionsAlone",
                                             .arguments = {"-v", "-k"},
                                             .status = 1,
                                             .output = "no destination specified\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "NoDestination",
                                             .arguments = {"{source}"},
                                             .status = 1,
                                             .output = "no destination specified\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "OnlyADestinationThatIsNoText",
                                             .arguments = {"{source}", "{scratch}/backup/\xff.mov"},
                                             .status = 1,
                                             .output = "no destination specified\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "NeitherSourceNorDestinationNeeded",
                                             .arguments = {"-j"},
                                             .status = 1,
                                             .output = "no source specified\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "ASourceThatIsNoText",
                                             .arguments = {"{scratch}/card/\xff.mov", "{destination}"},
                                             .status = 1,
                                             .output = "no source specified\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "ASourceThatIsNoTextWithoutDestination",
                                             .arguments = {"{scratch}/card/\xff.mov"},
                                             .status = 1,
                                             .output = "no destination specified\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "AnUnknownDigest",
                                             .arguments = {"-t", "bogus", "{source}", "{destination}"},
                                             .status = 1,
                                             .output = "invalid digest algorithm bogus\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "ADigestInCapitals",
                                             .arguments = {"-t", "MD5", "{source}", "{destination}"},
                                             .status = 1,
                                             .output = "invalid digest algorithm MD5\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "ADigestThatOnlyExternalHashesHave",
                                             .arguments = {"-t", "xxhash64", "{source}", "{destination}"},
                                             .status = 1,
                                             .output = "invalid digest algorithm xxhash64\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "AnUnknownDigestThatLooksLikeAFormat",
                                             .arguments = {"-t", "%s{}%n", "{source}", "{destination}"},
                                             .status = 1,
                                             .output = "invalid digest algorithm %s{}%n\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "ASequenceAskedForBehindTheSource",
                                             .arguments = {"{source}", "-s", "{destination}"},
                                             .status = 1,
                                             .output = "is sequence but could not get input sequence\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "ASequenceWithoutPaths",
                                             .arguments = {"-s", "-j"},
                                             .status = 1,
                                             .output = "is sequence but could not get input sequence\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "ASequenceWithoutDestination",
                                             .arguments = {"-s", "{card}/clip.1-2_##.mov"},
                                             .status = 1,
                                             .output = "no destination specified\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "AFileForASequence",
                                             .arguments = {"-s", "{source}", "{destination}"},
                                             .status = 1,
                                             .output = "ERROR: Wrong arguments - missing hashes in identifier.\n"
                                                       "is sequence but could not get input sequence\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "AFileForASequenceWithoutDestination",
                                             .arguments = {"-s", "{source}"},
                                             .status = 1,
                                             .output = "ERROR: Wrong arguments - missing hashes in identifier.\n"
                                                       "no destination specified\n"
                                                       "{invalid}",
                                             .names = OnDisk::untouched}),
                         rowName);

TEST(Tool, EveryFileOfASequenceGetsTheNameOfItsSourceInTheFolderOfTheDestination) {
  const ScratchDirectory scratch;
  const Names frames{"clip.0009.dpx", "clip.0010.dpx", "clip.0011.dpx"};
  for (uint32_t index = 0; index < 3; ++index)
    writeFile(scratch.file("card/" + frames[index]), mediaBytes(100'000 + index, index));
  fs::create_directories(scratch.path() / "backup");
  const ToolRun run = runTool(ToolStart{.arguments = {"-s", "clip.9-11.####.dpx", "../backup/any"},
                                        .workingDirectory = scratch.path() / "card"});
  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_EQ((Names{"backup/" + frames[0], "backup/" + frames[1], "backup/" + frames[2], "card/" + frames[0],
                   "card/" + frames[1], "card/" + frames[2]}),
            namesBelow(scratch.path()));
  for (const std::string& frame : frames)
    EXPECT_TRUE(readFile(scratch.file("card/" + frame)) == readFile(scratch.file("backup/" + frame))) << frame;
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ToolRefusals,
    testing::Values(
        Run{.name = "TooLarge",
            .arguments = {"-k", "-a", "3145746", "{source}", "{destination}"},
            .status = 104,
            .output = "{started}{hashed}"
                      "the expected filesize (3145746) is not the number of bytes copied (3145745)\n",
            .logged = "the expected filesize (3145746) is not the number of bytes copied (3145745)",
            .names = OnDisk::notMoved},
        Run{.name = "Zero",
            .arguments = {"-k", "-a", "0", "{source}", "{destination}"},
            .status = 104,
            .output = "{started}{hashed}"
                      "the expected filesize (0) is not the number of bytes copied (3145745)\n",
            .logged = "the expected filesize (0) is not the number of bytes copied (3145745)",
            .names = OnDisk::notMoved},
        Run{.name = "Negative",
            .arguments = {"-k", "-a", "-1", "{source}", "{destination}"},
            .status = 104,
            .output = "{started}{hashed}"
                      "the expected filesize (18446744073709551615) is not the number of bytes copied (3145745)\n",
            .logged = "the expected filesize (18446744073709551615) is not the number of bytes copied (3145745)",
            .names = OnDisk::notMoved},
        Run{.name = "NotANumber",
            .arguments = {"-n", "-a", "many", "{source}", "{destination}"},
            .status = 104,
            .output = "{started}"
                      "the expected filesize (0) is not the number of bytes copied (3145745)\n",
            .logged = "the expected filesize (0) is not the number of bytes copied (3145745)",
            .names = OnDisk::notMoved},
        // The source is not asked for its size then, so there is nothing that the bytes copied could be right against.
        Run{.name = "NoneWhereSizesOnDiskAreNotLookedAt",
            .arguments = {"-k", "-nfs", "{source}", "{destination}"},
            .status = 104,
            .output = "{started}{hashed}"
                      "the expected filesize (0) is not the number of bytes copied (3145745)\n",
            .logged = "the expected filesize (0) is not the number of bytes copied (3145745)",
            .names = OnDisk::notMoved},
        Run{.name = "WrongEvenWhereSizesOnDiskAreNotLookedAt",
            .arguments = {"-k", "-nfs", "-a", "5", "{source}", "{destination}"},
            .status = 104,
            .output = "{started}{hashed}"
                      "the expected filesize (5) is not the number of bytes copied (3145745)\n",
            .logged = "the expected filesize (5) is not the number of bytes copied (3145745)",
            .names = OnDisk::notMoved}),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    ExternalHashes, ToolRefusals,
    testing::Values(Run{.name = "Wrong",
                        .arguments = {"-e", "MD5:abc", "{source}", "{destination}"},
                        .status = 103,
                        .output = "{started}{hashed}"
                                  "INFO: external hash: MD5:abc but got hash: MD5:{md5}.\n"
                                  "INFO: external hash: MD5:abc but got hash: MD5:{md5}.\n",
                        .logged = "INFO: external hash: MD5:abc but got hash: MD5:{md5}.",
                        .names = OnDisk::notMoved},
                    Run{.name = "WrongBehindTheSizeCheck",
                        .arguments = {"-k", "-e", "SHA1:abc", "{source}", "{destination}"},
                        .status = 103,
                        .output = "{started}{hashed}{sizeChecked}"
                                  "INFO: external hash: SHA1:abc but got hash: SHA1:{sha1}.\n"
                                  "INFO: external hash: SHA1:abc but got hash: SHA1:{sha1}.\n",
                        .logged = "INFO: external hash: SHA1:abc but got hash: SHA1:{sha1}.",
                        .names = OnDisk::notMoved},
                    Run{.name = "WrongWithoutCopyDigest",
                        .arguments = {"-n", "-e", "MD5:abc", "{source}", "{destination}"},
                        .status = 103,
                        .output = "{started}{sizeChecked}"
                                  "INFO: external hash: MD5:abc but got hash: MD5:{md5}.\n"
                                  "INFO: external hash: MD5:abc but got hash: MD5:{md5}.\n",
                        .logged = "INFO: external hash: MD5:abc but got hash: MD5:{md5}.",
                        .names = OnDisk::notMoved},
                    Run{.name = "OneByteOrderForTheOther",
                        .arguments = {"-k", "-e", "XXHash64:{xxh64}", "{source}", "{destination}"},
                        .status = 103,
                        .output = "{started}{hashed}{sizeChecked}"
                                  "INFO: external hash: XXHash64:{xxh64} but got hash: XXHash64:{xxh64reversed}.\n"
                                  "INFO: external hash: XXHash64:{xxh64} but got hash: XXHash64:{xxh64reversed}.\n",
                        .logged = "INFO: external hash: XXHash64:{xxh64} but got hash: XXHash64:{xxh64reversed}.",
                        .names = OnDisk::notMoved},
                    Run{.name = "WithoutAColon",
                        .arguments = {"-e", "MD5", "{source}", "{destination}"},
                        .status = 1,
                        .output = "{started}"
                                  "invalid external hash string: MD5\n",
                        .names = OnDisk::untouched},
                    Run{.name = "WithoutDigits",
                        .arguments = {"-e", "MD5:", "{source}", "{destination}"},
                        .status = 1,
                        .output = "{started}"
                                  "invalid external hash string: MD5:\n",
                        .names = OnDisk::untouched},
                    Run{.name = "WithTwoColons",
                        .arguments = {"-e", "a:b:c", "{source}", "{destination}"},
                        .status = 1,
                        .output = "{started}"
                                  "invalid external hash string: a:b:c\n",
                        .names = OnDisk::untouched},
                    Run{.name = "Empty",
                        .arguments = {"-e", "", "{source}", "{destination}"},
                        .status = 1,
                        .output = "{started}"
                                  "invalid external hash string: \n",
                        .names = OnDisk::untouched},
                    Run{.name = "OfALowerCaseAlgorithm",
                        .arguments = {"-e", "md5:{md5}", "{source}", "{destination}"},
                        .status = 1,
                        .output = "{started}"
                                  "invalid external hash format: md5:{md5}\n",
                        .names = OnDisk::untouched},
                    Run{.name = "WithoutAnAlgorithm",
                        .arguments = {"-n", "-e", ":abc", "{source}", "{destination}"},
                        .status = 1,
                        .output = "{started}"
                                  "invalid external hash format: :abc\n",
                        .names = OnDisk::untouched}),
    rowName);

INSTANTIATE_TEST_SUITE_P(Files, ToolRefusals,
                         testing::Values(Run{.name = "NoSuchSource",
                                             .arguments = {"{scratch}/card/none.mov", "{destination}"},
                                             .status = 108,
                                             .output = "{started}"
                                                       "ERROR: could not open file at path: {scratch}/card/none.mov\n",
                                             .names = OnDisk::notMoved},
                                         Run{.name = "ASourceThatIsAFolder",
                                             .arguments = {"{card}", "{destination}"},
                                             .status = 111,
                                             .output = "INFO: copying {scratch}...\n",
                                             .names = OnDisk::notMoved},
                                         Run{.name = "NoSuchFolder",
                                             .arguments = {"{source}", "{scratch}/none/clip.mov"},
                                             .status = 107,
                                             .output = "{started}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "NoSuchFolderForTheSecondDestination",
                                             .arguments = {"{source}", "{destination}", "{scratch}/none/clip.mov"},
                                             .status = 107,
                                             .output = "{started}",
                                             .names = OnDisk::notMoved},
                                         Run{.name = "AFileInTheWayOfAFolder",
                                             .arguments = {"{source}", "{source}/clip.mov"},
                                             .status = 107,
                                             .output = "{started}",
                                             .names = OnDisk::untouched},
                                         Run{.name = "TheRootFolderAsDestination",
                                             .arguments = {"{source}", "/"},
                                             .status = 109,
                                             .output = "{started}"
                                                       "failed to perform copy\n",
                                             .logged = "/ already exists",
                                             .names = OnDisk::untouched}),
                         rowName);

TEST(Tool, AnOffloadWithoutReadBackPrintsItsLinesInOrderAndLeavesTheFinalName) {
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  const std::string destination = scratch.file("backup/clip.mov");
  writeFile(source, mediaBytes(3 * MiB + 17));

  const ToolRun run = runTool({"-k", source, destination});

  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(
      run.lines(),
      ElementsAre("INFO: copying " + scratch.file("card") + "...", "hash MD5:" + digestByProgram("md5sum", source),
                  "Copy completed successfully for destination file with file size check (" + destination + ")",
                  "INFO: moving files in place..", "INFO: flushing files", "INFO: done.", ""));
  EXPECT_EQ((Names{"backup/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ(readFile(source), readFile(destination));
}

class ToolDestinations : public testing::TestWithParam<int> {};

TEST_P(ToolDestinations, AllGetTheWholeSourceAndAreReadBackByTheirNumbers) {
  const ClipOffload offload;
  Arguments arguments{offload.source};
  std::string readBack = "~INFO: verifying {card}\n";
  Names names{"card/clip.mov"};
  for (int number = 1; number <= GetParam(); ++number) {
    const std::string folder = "drive" + std::to_string(number);
    arguments.push_back(offload.scratch.file(folder + "/clip.mov"));
    names.push_back(folder + "/clip.mov");
    readBack += "~INFO: verifying {scratch}/" + folder + "\n";
    readBack += "~verify of destination file #" + std::to_string(number) + " (" + arguments.back() + ") ok.\n";
  }
  readBack += "~verify of source file #" + std::to_string(GetParam() + 1) + " ({source}) ok.\n";

  const ToolRun run = runTool(arguments);

  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("", run.errors);
  expectOutput(offload.filled(text({started, hashed, readBack, movedAndFlushed})), run.output);
  std::ranges::sort(names);
  EXPECT_EQ(names, offload.names());
  for (const std::string& path : arguments) EXPECT_TRUE(offload.bytes == readFile(path)) << path;
}

INSTANTIATE_TEST_SUITE_P(Numbers, ToolDestinations, testing::Values(1, 2, 3, 16), testing::PrintToStringParamName());

class ToolSourceSizes : public testing::TestWithParam<std::size_t> {};

TEST_P(ToolSourceSizes, AreCopiedToTheLastByteWithBuffersOfOneMebibyte) {
  const ClipOffload offload(GetParam());
  const ScratchDirectory settings;
  writeFile(settings.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");

  const ToolRun run = runTool(ToolStart{.arguments = {"-t", "sha1", offload.source, offload.destination},
                                        .environment = {{"XDG_CONFIG_HOME", settings.path()}}});

  EXPECT_EQ(0, run.exitStatus);
  expectOutput(offload.filled(text({started, "hash SHA1:{sha1}\n", bothReadBack, movedAndFlushed})), run.output);
  EXPECT_EQ("kdxdispatchcopy: KDXReadFile buffer size 1\n", run.errors);
  EXPECT_EQ(offloaded(), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(offload.destination));
}

INSTANTIATE_TEST_SUITE_P(AroundBufferAndBlockEnds, ToolSourceSizes,
                         testing::Values(0, 1, 4095, 4096, 4097, MiB - 1, MiB, MiB + 1, 2 * MiB, 3 * MiB + 511),
                         testing::PrintToStringParamName());

TEST(Tool, AnEmptySourceBecomesAnEmptyDestination) {
  const ClipOffload offload(0);
  const ToolRun run = runTool({offload.source, offload.destination});
  EXPECT_EQ(0, run.exitStatus);
  expectOutput(
      offload.filled(text({started, "hash MD5:d41d8cd98f00b204e9800998ecf8427e\n", bothReadBack, movedAndFlushed})),
      run.output);
  EXPECT_EQ(offloaded(), offload.names());
  EXPECT_EQ("", readFile(offload.destination));
}

// A number that is no size of a buffer leaves the default one, and nothing is said.
class ToolSettings : public testing::TestWithParam<const char*> {};

TEST_P(ToolSettings, AreAsIfThereWereNone) {
  const ClipOffload offload;
  const ScratchDirectory settings;
  writeFile(settings.file("kdxdispatchcopy/defaults.ini"), GetParam());
  const ToolRun run = runTool(ToolStart{.arguments = {"-k", offload.source, offload.destination},
                                        .environment = {{"XDG_CONFIG_HOME", settings.path()}}});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("", run.errors);
  EXPECT_EQ(offload.filled(text({started, hashed, sizeChecked, movedAndFlushed})), run.output);
  EXPECT_EQ(offloaded(), offload.names());
}

INSTANTIATE_TEST_SUITE_P(WithoutABufferSize, ToolSettings,
                         testing::Values("", "readBufferSizeMB = 0\n", "readBufferSizeMB = -3\n",
                                         "readBufferSizeMB = large\n", "readBufferSize = 1\n", "[[[\n\xff\n"));

// Whether there is progress to tell depends on the speed of the machine, and the times do: the output without the
// former, and with TIME for the latter where they are written as they should be.
std::string withoutTimes(const std::string& output) {
  Names lines;
  for (std::string line : linesOf(output)) {
    const bool isProgress = line.starts_with("INFO: copied ") || line.starts_with("INFO: verified ");
    if (isProgress && line.find(" of 3145745 bytes") != std::string::npos) continue;
    if (testing::Matches(MatchesRegex(".* in [0-9]+\\.[0-9][0-9][0-9][0-9][0-9] sec \\([0-9]+\\.[0-9] MB/sec\\)"))(
            line)) {
      line.replace(line.rfind(" in "), std::string::npos, " in TIME");
    }
    lines.push_back(line);
  }
  return asText(lines);
}

TEST(Tool, AVerboseOffloadTellsTheSpeedOfTheCopyAndOfTheReadBack) {
  const ClipOffload offload;
  const ToolRun run = runTool({"-v", offload.source, offload.destination});
  EXPECT_EQ(0, run.exitStatus);
  expectOutput(offload.filled(text({started, hashed, "INFO: copy speed 3145745 bytes in TIME\n", bothReadBack,
                                    "INFO: verification speed 3145745 bytes in TIME\n", movedAndFlushed})),
               withoutTimes(run.output));
}

TEST(Tool, AVerboseOffloadWithoutReadBackTellsTheSpeedOfTheCopyAlone) {
  const ClipOffload offload;
  const ToolRun run = runTool({"-v", "-k", offload.source, offload.destination});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ(
      offload.filled(text({started, hashed, "INFO: copy speed 3145745 bytes in TIME\n", sizeChecked, movedAndFlushed})),
      withoutTimes(run.output));
}

TEST(Tool, AVerboseReadBackCountsTheSourceOnceWhateverTheNumberOfDestinations) {
  const ClipOffload offload;
  const ToolRun run = runTool({"-v", offload.source, offload.destination, offload.scratch.file("shuttle/clip.mov")});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_THAT(withoutTimes(run.output), HasSubstr("INFO: verification speed 3145745 bytes in TIME\n"));
}

TEST(Tool, AFinalNameThatIsTakenIsRefusedBeforeAnythingIsCreated) {
  const ClipOffload offload;
  const std::string taken = offload.scratch.file("shuttle/clip.mov");
  writeFile(taken, "an earlier take");

  const ToolRun run = runTool({offload.source, offload.destination, taken});

  EXPECT_EQ(109, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, "failed to perform copy\n"})), run.output);
  expectLogged(taken + " already exists", run.errors);
  EXPECT_EQ((Names{"card/clip.mov", "shuttle/clip.mov"}), offload.names());
  EXPECT_EQ("an earlier take", readFile(taken));
}

TEST(Tool, AFinalNameThatIsTakenIsReplacedOnlyWhenThatIsAskedFor) {
  const ClipOffload offload;
  writeFile(offload.destination, "an earlier take");

  const ToolRun refused = runTool({"-k", offload.source, offload.destination});
  EXPECT_EQ(109, refused.exitStatus);
  EXPECT_EQ("an earlier take", readFile(offload.destination));

  const ToolRun run = runTool({"-k", "-f", offload.source, offload.destination});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, hashed, sizeChecked, movedAndFlushed})), run.output);
  EXPECT_EQ("", run.errors);
  EXPECT_EQ(offloaded(), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(offload.destination));
}

// An offload that fails its proof must not have cost the earlier take.
TEST(Tool, AReplacedNameKeepsItsFileUntilTheCopyIsProved) {
  const ClipOffload offload;
  writeFile(offload.destination, "an earlier take");

  const ToolRun run = runTool({"-f", "-e", "MD5:abc", offload.source, offload.destination});

  EXPECT_EQ(103, run.exitStatus);
  EXPECT_EQ((Names{"backup/clip.mov", "backup/clip.mov.kdxcopy", "card/clip.mov"}), offload.names());
  EXPECT_EQ("an earlier take", readFile(offload.destination));
}

TEST(Tool, AnOldTemporaryFileIsReplacedSilently) {
  const ClipOffload offload;
  writeFile(offload.destination + ".kdxcopy", mediaBytes(4 * MiB, 2));

  const ToolRun run = runTool({offload.source, offload.destination});

  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("", run.errors);
  expectOutput(offload.filled(text({started, hashed, bothReadBack, movedAndFlushed})), run.output);
  EXPECT_EQ(offloaded(), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(offload.destination));
}

TEST(Tool, RelativePathsAreShownBehindTheWorkingDirectory) {
  const ClipOffload offload;
  const ToolRun run = runTool(
      ToolStart{.arguments = {"-k", "card/clip.mov", "./backup/clip.mov"}, .workingDirectory = offload.scratch.path()});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, hashed,
                                 "Copy completed successfully for destination file with file size check "
                                 "({scratch}/./backup/clip.mov)\n",
                                 movedAndFlushed})),
            run.output);
  EXPECT_EQ(offloaded(), offload.names());
}

TEST(Tool, ANameAloneIsOffloadedWithinTheWorkingDirectory) {
  const ClipOffload offload;
  const ToolRun run =
      runTool(ToolStart{.arguments = {"clip.mov", "take2"}, .workingDirectory = offload.scratch.path() / "card"});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ((Names{"card/clip.mov", "card/take2"}), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(offload.scratch.path() / "card/take2"));
}

// Descriptor 0 is never a file of ours: it would mean that something else of the process reads and writes the media.
TEST(Tool, ASourceThatGetsTheNumberOfAClosedStandardInputIsAFailedAssertionBehindAllLinesQueued) {
  const ClipOffload offload;
  const ToolRun run = runTool(ToolStart{.arguments = {"-j", offload.source}, .closedDescriptors = {0}});
  EXPECT_EQ(134, run.exitStatus);
  EXPECT_EQ(offload.filled(started), run.output);
  EXPECT_THAT(run.errors, HasSubstr("assertion failed: fd > 0 && @\"invalid fd\""));
  EXPECT_TRUE(offload.bytes == readFile(offload.source));
}

TEST(Tool, AClosedStandardInputDoesNotStopAnOffloadWithoutReadBack) {
  const ClipOffload offload;
  const ToolRun run =
      runTool(ToolStart{.arguments = {"-k", offload.source, offload.destination}, .closedDescriptors = {0}});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, hashed, sizeChecked, movedAndFlushed})), run.output);
  EXPECT_EQ(offloaded(), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(offload.destination));
}

class ToolClosedOutputs : public testing::TestWithParam<std::vector<int>> {};

TEST_P(ToolClosedOutputs, PutNothingIntoTheMediaAndDoNotStopTheOffload) {
  const ClipOffload offload;
  const ToolRun run =
      runTool(ToolStart{.arguments = {"-v", offload.source, offload.destination}, .closedDescriptors = GetParam()});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ(offloaded(), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(offload.destination));
  EXPECT_TRUE(offload.bytes == readFile(offload.source));
  const bool outputIsClosed = std::ranges::find(GetParam(), 1) != GetParam().end();
  EXPECT_EQ(outputIsClosed, run.output.empty());
}

INSTANTIATE_TEST_SUITE_P(Descriptors, ToolClosedOutputs,
                         testing::Values(std::vector{1}, std::vector{2}, std::vector{1, 2}));

TEST(Tool, AnErrorWithClosedStandardErrorLeavesTheMediaAlone) {
  const ClipOffload offload;
  const ToolRun run = runTool(
      ToolStart{.arguments = {"-e", "MD5:abc", offload.source, offload.destination}, .closedDescriptors = {1, 2}});
  EXPECT_EQ(103, run.exitStatus);
  EXPECT_EQ(notMoved(), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(offload.destination + ".kdxcopy"));
}

TEST(Tool, AFullStandardOutputDoesNotStopTheOffload) {
  const ClipOffload offload;
  const ToolRun run = runTool(ToolStart{.arguments = {offload.source, offload.destination},
                                        .wrapper = {"sh", "-c", "exec \"$0\" \"$@\" > /dev/full"}});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("", run.errors);
  EXPECT_EQ(offloaded(), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(offload.destination));
}

// Sanitizers keep memory of their own for every byte.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool memoryIsTheToolsOwn = false;
#else
constexpr bool memoryIsTheToolsOwn = true;
#endif

// The peak of a run with a source of that size. The source is a hole, so that the test itself holds none of it.
int64_t peakMemoryOfRun(std::size_t size, int destinations) {
  const ScratchDirectory scratch;
  const std::string source = scratch.file("clip.mov");
  writeFile(source, "");
  fs::resize_file(source, size);
  Arguments arguments{source};
  for (int number = 1; number <= destinations; ++number)
    arguments.push_back(scratch.file("drive" + std::to_string(number) + "/clip.mov"));
  const ToolRun run = runTool(arguments);
  EXPECT_EQ(0, run.exitStatus) << run.output;
  return run.peakMemoryKiB;
}

TEST(Tool, ThreeDestinationsOfALargeSourceNeedLessThan64MebibytesOfMemory) {
  if (!memoryIsTheToolsOwn) GTEST_SKIP() << "a sanitizer's memory is counted too";
  EXPECT_LT(peakMemoryOfRun(120 * MiB, 3), 64 * 1024);
}

TEST(Tool, MemoryDoesNotGrowWithTheSource) {
  if (!memoryIsTheToolsOwn) GTEST_SKIP() << "a sanitizer's memory is counted too";
  const int64_t small = peakMemoryOfRun(60 * MiB, 1);
  const int64_t large = peakMemoryOfRun(180 * MiB, 1);
  // Less than one buffer: how many are in use at the same moment is not always the same.
  EXPECT_THAT(large - small, Le(10 * 1024)) << "from " << small << " KiB to " << large << " KiB";
}

}  // namespace
