// Whole runs of the built program: its lines, its exit status, what lies on disk.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

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
struct Run : NamedRow {
  const char* arguments;  // words with one space between them; "{paths}" are the source and the destination
  int status;
  const char* output;  // "{logged}": the same text as below
  OnDisk names;
  const char* logged = "";
};

constexpr Run offloads(const char* name, const char* arguments, const char* output) {
  return {name, arguments, 0, output, OnDisk::offloaded};
}

constexpr Run refused(const char* name, const char* arguments, const char* output) {
  return {name, arguments, 1, output, OnDisk::untouched};
}

void expectRun(const Run& row) {
  const ClipOffload offload;
  const ToolRun run = runTool(offload.filled(wordsOf(replaced(row.arguments, "{paths}", "{source} {destination}"))));
  EXPECT_EQ(row.status, run.exitStatus);
  expectOutput(offload.filled(replaced(row.output, "{logged}", row.logged)), run.output);
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
    testing::Values(offloads("None", "{paths}", "{started}{hashed}{bothReadBack}{movedAndFlushed}"),
                    offloads("NoReadBack", "-k {paths}", "{started}{hashed}{sizeChecked}{movedAndFlushed}"),
                    offloads("NoDigestEither", "-n {paths}", "{started}{sizeChecked}{movedAndFlushed}"),
                    offloads("SourceNotReadBack", "-ns {paths}",
                             "{started}{hashed}~INFO: verifying {backup}\n"
                             "~verify of destination file #1 ({destination}) ok.\n"
                             "{movedAndFlushed}"),
                    offloads("NoFlush", "-nf {paths}",
                             "{started}{hashed}{bothReadBack}INFO: moving files in place..\n"
                             "INFO: done.\n"
                             "\n"),
                    offloads("NoSizeCheckChangesNothingWhereFilesAreReadBack", "-nfs {paths}",
                             "{started}{hashed}{bothReadBack}{movedAndFlushed}"),
                    offloads("NoReadBackAndTheSizeGiven", "-k -nfs -a {size} {paths}",
                             "{started}{hashed}Copy completed successfully for destination file ({destination})\n"
                             "{movedAndFlushed}")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Digests, ToolOptions,
    testing::Values(offloads("MD5", "-t md5 {paths}", "{started}{hashed}{bothReadBack}{movedAndFlushed}"),
                    offloads("SHA1", "-t sha1 {paths}", "{started}hash SHA1:{sha1}\n{bothReadBack}{movedAndFlushed}"),
                    offloads("XXHash64BE", "-t xxhash64be {paths}",
                             "{started}hash XXHash64BE:{xxh64}\n"
                             "{bothReadBack}{movedAndFlushed}"),
                    offloads("TheLastWordCounts", "-t bogus -t sha1 {paths}",
                             "{started}hash SHA1:{sha1}\n{bothReadBack}{movedAndFlushed}"),
                    offloads("AnyWordWithoutDigest", "-n -t bogus {paths}", "{started}{sizeChecked}{movedAndFlushed}")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    ExternalHashes, ToolOptions,
    testing::Values(
        offloads("OfTheCopyAlgorithm", "-e MD5:{md5} {paths}", "{started}{hashed}{bothReadBack}{movedAndFlushed}"),
        offloads("InCapitals", "-k -e MD5:{MD5} {paths}", "{started}{hashed}{sizeChecked}{movedAndFlushed}"),
        offloads("OfAnotherAlgorithm", "-k -e SHA1:{sha1} {paths}", "{started}{hashed}{sizeChecked}{movedAndFlushed}"),
        offloads("MostSignificantByteFirst", "-k -e XXHash64BE:{xxh64} {paths}",
                 "{started}{hashed}{sizeChecked}{movedAndFlushed}"),
        offloads("LeastSignificantByteFirst", "-k -e XXHash64:{xxh64reversed} {paths}",
                 "{started}{hashed}{sizeChecked}{movedAndFlushed}"),
        offloads("WithoutCopyDigest", "-n -e SHA1:{sha1} {paths}", "{started}{sizeChecked}{movedAndFlushed}")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Spellings, ToolOptions,
    testing::Values(offloads("RightSize", "-k -a {size} {paths}", "{started}{hashed}{sizeChecked}{movedAndFlushed}"),
                    offloads("RightSizeByItsLongName", "-k -f_size {size} {paths}",
                             "{started}{hashed}{sizeChecked}{movedAndFlushed}"),
                    offloads("WrongSizeIsNotLookedAtWhereFilesAreReadBack", "-a 5 {paths}",
                             "{started}{hashed}{bothReadBack}{movedAndFlushed}"),
                    offloads("IgnoredOnesChangeNothing", "-c -b value -z {paths}",
                             "{started}{hashed}{bothReadBack}{movedAndFlushed}"),
                    offloads("OneWithoutItsArgumentIsPassedOver", "-k {paths} -t",
                             "{started}{hashed}{sizeChecked}{movedAndFlushed}"),
                    offloads("BehindThePaths", "{paths} -k", "{started}{hashed}{sizeChecked}{movedAndFlushed}"),
                    offloads("BetweenThePaths", "{source} -k {destination} -nf",
                             "{started}{hashed}{sizeChecked}INFO: moving files in place..\n"
                             "INFO: done.\n"
                             "\n"),
                    offloads("SeveralInOneWord", "-kf {paths}", "{started}{hashed}{sizeChecked}{movedAndFlushed}")),
    rowName);

INSTANTIATE_TEST_SUITE_P(WithoutDestinations, ToolOptions,
                         testing::Values(Run{"ReadBack", "-j {source}", 0,
                                             "{started}{hashed}INFO: verifying {card}\n"
                                             "verify of source file #1 ({source}) ok.\n"
                                             "{movedAndFlushed}",
                                             OnDisk::untouched},
                                         Run{"DigestAlone", "-j -k -t sha1 {source}", 0,
                                             "{started}hash SHA1:{sha1}\n{movedAndFlushed}", OnDisk::untouched},
                                         Run{"NotEvenADigest", "-j -n -nf {source}", 0,
                                             "{started}INFO: moving files in place..\nINFO: done.\n\n",
                                             OnDisk::untouched}),
                         rowName);

INSTANTIATE_TEST_SUITE_P(Paths, ToolOptions,
                         testing::Values(offloads("ASlashAtTheEndIsDropped", "-k {source}/ {destination}//",
                                                  "{started}{hashed}{sizeChecked}{movedAndFlushed}"),
                                         offloads("DotsAndDoubledSlashesStay",
                                                  "-k {scratch}//card/.//clip.mov {scratch}/card/../backup//clip.mov",
                                                  "INFO: copying {scratch}//card/....\n"
                                                  "{hashed}Copy completed successfully for destination file with file "
                                                  "size check ({scratch}/card/../backup//clip.mov)\n"
                                                  "{movedAndFlushed}"),
                                         offloads("ADestinationThatIsNoTextIsDropped",
                                                  "-k {source} {scratch}/backup/\xff.mov {destination}",
                                                  "{started}{hashed}{sizeChecked}{movedAndFlushed}")),
                         rowName);

class ToolRefusals : public testing::TestWithParam<Run> {};

TEST_P(ToolRefusals, SayWhatIsWrongAndGiveNoFinalName) {
  auto row = GetParam();
  if (std::string_view(row.output).ends_with("{invalid}")) row.logged = usage;
  expectRun(row);
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, ToolRefusals,
    testing::Values(
        refused("NoArguments", "", "no destination specified\n{invalid}"),
        refused("OptionsAlone", "-v -k", "no destination specified\n{invalid}"),
        refused("NoDestination", "{source}", "no destination specified\n{invalid}"),
        refused("OnlyADestinationThatIsNoText", "{source} {scratch}/backup/\xff.mov",
                "no destination specified\n{invalid}"),
        refused("NeitherSourceNorDestinationNeeded", "-j", "no source specified\n{invalid}"),
        refused("ASourceThatIsNoText", "{scratch}/card/\xff.mov {destination}", "no source specified\n{invalid}"),
        refused("ASourceThatIsNoTextWithoutDestination", "{scratch}/card/\xff.mov",
                "no destination specified\n{invalid}"),
        refused("AnUnknownDigest", "-t bogus {paths}", "invalid digest algorithm bogus\n{invalid}"),
        refused("ADigestInCapitals", "-t MD5 {paths}", "invalid digest algorithm MD5\n{invalid}"),
        refused("ADigestThatOnlyExternalHashesHave", "-t xxhash64 {paths}",
                "invalid digest algorithm xxhash64\n{invalid}"),
        refused("AnUnknownDigestThatLooksLikeAFormat", "-t %s{}%n {paths}",
                "invalid digest algorithm %s{}%n\n{invalid}"),
        refused("ASequenceAskedForBehindTheSource", "{source} -s {destination}",
                "is sequence but could not get input sequence\n{invalid}"),
        refused("ASequenceWithoutPaths", "-s -j", "is sequence but could not get input sequence\n{invalid}"),
        refused("ASequenceWithoutDestination", "-s {card}/clip.1-2_##.mov", "no destination specified\n{invalid}"),
        refused("AFileForASequence", "-s {paths}",
                "ERROR: Wrong arguments - missing hashes in identifier.\n"
                "is sequence but could not get input sequence\n"
                "{invalid}"),
        refused("AFileForASequenceWithoutDestination", "-s {source}",
                "ERROR: Wrong arguments - missing hashes in identifier.\n"
                "no destination specified\n"
                "{invalid}")),
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
        Run{"TooLarge", "-k -a 3145746 {paths}", 104, "{started}{hashed}{logged}\n", OnDisk::notMoved,
            "the expected filesize (3145746) is not the number of bytes copied (3145745)"},
        Run{"Zero", "-k -a 0 {paths}", 104, "{started}{hashed}{logged}\n", OnDisk::notMoved,
            "the expected filesize (0) is not the number of bytes copied (3145745)"},
        Run{"Negative", "-k -a -1 {paths}", 104, "{started}{hashed}{logged}\n", OnDisk::notMoved,
            "the expected filesize (18446744073709551615) is not the number of bytes copied (3145745)"},
        Run{"NotANumber", "-n -a many {paths}", 104, "{started}{logged}\n", OnDisk::notMoved,
            "the expected filesize (0) is not the number of bytes copied (3145745)"},
        // The source is not asked for its size then, so there is nothing that the bytes copied could be right against.
        Run{"NoneWhereSizesOnDiskAreNotLookedAt", "-k -nfs {paths}", 104, "{started}{hashed}{logged}\n",
            OnDisk::notMoved, "the expected filesize (0) is not the number of bytes copied (3145745)"},
        Run{"WrongEvenWhereSizesOnDiskAreNotLookedAt", "-k -nfs -a 5 {paths}", 104, "{started}{hashed}{logged}\n",
            OnDisk::notMoved, "the expected filesize (5) is not the number of bytes copied (3145745)"}),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    ExternalHashes, ToolRefusals,
    testing::Values(
        Run{"Wrong", "-e MD5:abc {paths}", 103, "{started}{hashed}{logged}\n{logged}\n", OnDisk::notMoved,
            "INFO: external hash: MD5:abc but got hash: MD5:{md5}."},
        Run{"WrongBehindTheSizeCheck", "-k -e SHA1:abc {paths}", 103,
            "{started}{hashed}{sizeChecked}{logged}\n{logged}\n", OnDisk::notMoved,
            "INFO: external hash: SHA1:abc but got hash: SHA1:{sha1}."},
        Run{"WrongWithoutCopyDigest", "-n -e MD5:abc {paths}", 103, "{started}{sizeChecked}{logged}\n{logged}\n",
            OnDisk::notMoved, "INFO: external hash: MD5:abc but got hash: MD5:{md5}."},
        Run{"OneByteOrderForTheOther", "-k -e XXHash64:{xxh64} {paths}", 103,
            "{started}{hashed}{sizeChecked}{logged}\n{logged}\n", OnDisk::notMoved,
            "INFO: external hash: XXHash64:{xxh64} but got hash: XXHash64:{xxh64reversed}."},
        refused("WithoutAColon", "-e MD5 {paths}", "{started}invalid external hash string: MD5\n"),
        refused("WithoutDigits", "-e MD5: {paths}", "{started}invalid external hash string: MD5:\n"),
        refused("WithTwoColons", "-e a:b:c {paths}", "{started}invalid external hash string: a:b:c\n"),
        refused("Empty", "-e  {paths}", "{started}invalid external hash string: \n"),
        refused("OfALowerCaseAlgorithm", "-e md5:{md5} {paths}", "{started}invalid external hash format: md5:{md5}\n"),
        refused("WithoutAnAlgorithm", "-n -e :abc {paths}", "{started}invalid external hash format: :abc\n")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Files, ToolRefusals,
    testing::Values(Run{"NoSuchSource", "{scratch}/card/none.mov {destination}", 108,
                        "{started}ERROR: could not open file at path: {scratch}/card/none.mov\n", OnDisk::notMoved},
                    Run{"ASourceThatIsAFolder", "{card} {destination}", 111, "INFO: copying {scratch}...\n",
                        OnDisk::notMoved},
                    Run{"NoSuchFolder", "{source} {scratch}/none/clip.mov", 107, "{started}", OnDisk::untouched},
                    Run{"NoSuchFolderForTheSecondDestination", "{paths} {scratch}/none/clip.mov", 107, "{started}",
                        OnDisk::notMoved},
                    Run{"AFileInTheWayOfAFolder", "{source} {source}/clip.mov", 107, "{started}", OnDisk::untouched},
                    Run{"TheRootFolderAsDestination", "{source} /", 109, "{started}failed to perform copy\n",
                        OnDisk::untouched, "/ already exists"}),
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
