// Whole runs of the built program over numbered sequences: its lines, its exit status, what lies on disk.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <ostream>
#include <regex>

#include "tests/support/ExpectedText.h"
#include "tests/support/OutputLines.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::AnyOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::SizeIs;

namespace {

namespace fs = std::filesystem;

using Names = std::vector<std::string>;
using Arguments = std::vector<std::string>;

// A digest as the tool names it, and the program of the system that knows it.
struct Method {
  const char* name;
  const char* program;
};

constexpr Method md5{.name = "MD5", .program = "md5sum"};
constexpr Method sha1{.name = "SHA1", .program = "sha1sum"};
constexpr Method xxh64{.name = "XXHash64BE", .program = "xxh64sum"};

constexpr const char* moving = "INFO: moving files in place..\n";
constexpr const char* movedAndFlushed =
    "INFO: moving files in place..\n"
    "INFO: flushing files\n"
    "INFO: done.\n"
    "\n";
constexpr const char* movedWithoutFlush =
    "INFO: moving files in place..\n"
    "INFO: done.\n"
    "\n";

std::string frameName(std::size_t number) {
  return fmt::format("p.{:04}.dpx", number);
}

// One frame that fits a block badly, an empty one, and one of more than a buffer.
const std::vector<std::size_t> usualSizes{70'001, 0, MiB + 513};

// A card with a sequence, and the folders it is offloaded to.
class Offload {
 public:
  explicit Offload(std::size_t destinationCount = 2, const std::vector<std::size_t>& sizes = usualSizes,
                   std::string cardName = "card")
      : _cardName(std::move(cardName)) {
    for (std::size_t number = 1; number <= sizes.size(); ++number) {
      frames.push_back(mediaBytes(sizes[number - 1], static_cast<uint32_t>(number)));
      writeFile(frame(number), frames.back());
    }
    for (std::size_t number = 1; number <= destinationCount; ++number) {
      folders.push_back(scratch.path() / fmt::format("b{:02}", number));
      fs::create_directory(folders.back());
    }
  }

  [[nodiscard]] std::string card() const { return scratch.path() / _cardName; }
  [[nodiscard]] std::string frame(std::size_t number) const {
    return scratch.file(_cardName + "/" + frameName(number));
  }
  // The frame's final name in a destination; both counted from 1.
  [[nodiscard]] std::string copied(std::size_t destination, std::size_t number) const {
    return folders[destination - 1] + "/" + frameName(number);
  }
  [[nodiscard]] std::string identifier() const { return fmt::format("{}/p.1-{}.####.dpx", card(), frames.size()); }

  // The whole command line: options, sequence, every folder.
  [[nodiscard]] Arguments arguments(Arguments options = {}) const {
    options.insert(options.end(), {"-s", identifier()});
    for (const std::string& folder : folders) options.push_back(folder + "/any name");
    return options;
  }
  [[nodiscard]] ToolRun run(Arguments options = {}) const { return runTool(arguments(std::move(options))); }

  [[nodiscard]] std::string frameDigest(std::size_t number, const Method& method = md5) const {
    return digestByProgram(method.program, frame(number));
  }
  // Digest of a text.
  [[nodiscard]] std::string digestOf(const std::string& text, const Method& method) const {
    const ScratchDirectory folder;
    writeFile(folder.file("text"), text);
    return digestByProgram(method.program, folder.file("text"));
  }
  // The bare digests of all frames as one text.
  [[nodiscard]] std::string joinedDigests(const Method& method = md5) const {
    std::string joined;
    for (std::size_t number = 1; number <= frames.size(); ++number) joined += frameDigest(number, method);
    return joined;
  }
  [[nodiscard]] std::string sequenceDigest(const Method& method = md5) const {
    return digestOf(joinedDigests(method), method);
  }

  [[nodiscard]] std::size_t totalSize() const {
    std::size_t total = 0;
    for (const std::string& bytes : frames) total += bytes.size();
    return total;
  }

  [[nodiscard]] std::string hashLines(const Method& method = md5) const {
    std::string lines;
    for (std::size_t number = 1; number <= frames.size(); ++number) {
      lines += fmt::format("hash {}:{}\n", method.name, frameDigest(number, method));
    }
    return lines;
  }
  [[nodiscard]] std::string completedLines(const std::string& addition) const {
    std::string lines;
    for (std::size_t destination = 1; destination <= folders.size(); ++destination) {
      for (std::size_t number = 1; number <= frames.size(); ++number) {
        lines += fmt::format("Copy completed successfully for destination file{} ({})\n", addition,
                             copied(destination, number));
      }
    }
    return lines;
  }
  // Lines behind a "~" may come in any order.
  [[nodiscard]] std::string verifyingLines() const {
    std::string lines = "~INFO: verifying " + card() + "\n";
    for (const std::string& folder : folders) lines += "~INFO: verifying " + folder + "\n";
    return lines;
  }

  // The text with its words in braces filled in.
  [[nodiscard]] std::string filled(std::string in, const Method& method = md5) const {
    const std::map<std::string, std::function<std::string()>> words{
        {"{started}", [&] { return "INFO: copying " + card() + "...\n"; }},
        {"{hashes}", [&] { return hashLines(method); }},
        {"{sequence}", [&] { return fmt::format("sequence-hash {}:{}\n", method.name, sequenceDigest(method)); }},
        {"{verifying}", [&] { return verifyingLines(); }},
        {"{sizeChecked}", [&] { return completedLines(" with file size check"); }},
        {"{notSizeChecked}", [&] { return completedLines(""); }},
        {"{movedAndFlushed}", [] { return movedAndFlushed; }},
        {"{movedWithoutFlush}", [] { return movedWithoutFlush; }},
        {"{total}", [&] { return std::to_string(totalSize()); }},
    };
    for (const auto& [word, meaning] : words) {
      if (in.find(word) != std::string::npos) in = replaced(std::move(in), word, meaning());
    }
    return in;
  }

  [[nodiscard]] Names names() const { return namesBelow(scratch.path()); }
  [[nodiscard]] Names namesIn(std::size_t destination) const { return namesBelow(folders[destination - 1]); }

  void expectSourceUntouched() const {
    for (std::size_t number = 1; number <= frames.size(); ++number) {
      EXPECT_TRUE(frames[number - 1] == readFile(frame(number))) << frame(number);
    }
  }

  // Every frame is in every folder, whole and under its final name, and nothing else is anywhere.
  void expectOffloaded() const {
    Names expected;
    for (std::size_t number = 1; number <= frames.size(); ++number) {
      expected.push_back(_cardName + "/" + frameName(number));
      for (std::size_t destination = 1; destination <= folders.size(); ++destination) {
        expected.push_back(fs::path(folders[destination - 1]).filename() / frameName(number));
        EXPECT_TRUE(frames[number - 1] == readFile(copied(destination, number))) << copied(destination, number);
      }
    }
    std::ranges::sort(expected);
    EXPECT_EQ(expected, names());
    expectSourceUntouched();
  }

  ScratchDirectory scratch;
  std::vector<std::string> frames;   // contents
  std::vector<std::string> folders;  // of the destinations

 private:
  std::string _cardName;
};

Names allTemporary() {
  return {"p.0001.dpx.kdxcopy", "p.0002.dpx.kdxcopy", "p.0003.dpx.kdxcopy"};
}

// --- Options ---

// Options, and all that comes of them. Constants alone: large tables of strings take compilers minutes.
struct OptionRow : NamedRow {
  const char* options;  // with a space between two
  const char* output;
  std::size_t destinations = 2;
  Method method = md5;
};

class ToolSequenceOptions : public testing::TestWithParam<OptionRow> {};

TEST_P(ToolSequenceOptions, AreTakenAsDescribedAndEveryFrameArrives) {
  const OptionRow& row = GetParam();
  const Offload offload(row.destinations);

  const ToolRun run = offload.run(wordsOf(row.options));

  EXPECT_EQ(0, run.exitStatus);
  expectOutput(offload.filled(row.output, row.method), run.output);
  EXPECT_EQ("", run.errors);
  offload.expectOffloaded();
}

constexpr const char* allProved = "{started}{hashes}{sequence}{verifying}{movedAndFlushed}";
constexpr const char* allProvedWithoutFlush = "{started}{hashes}{sequence}{verifying}{movedWithoutFlush}";

INSTANTIATE_TEST_SUITE_P(
    Rows, ToolSequenceOptions,
    testing::Values(
        OptionRow{"NoneToOneDestination", "", allProved, 1}, OptionRow{"NoneToTwoDestinations", "", allProved},
        OptionRow{"NoneToSixteenDestinations", "-nf", allProvedWithoutFlush, 16},
        OptionRow{"NoReadBack", "-k", "{started}{hashes}{sequence}{sizeChecked}{movedAndFlushed}"},
        OptionRow{"NoDigestEither", "-n -nf", "{started}sequence-hash (null)\n{sizeChecked}{movedWithoutFlush}"},
        OptionRow{"WithoutReadingTheSourceBackNothingIsReadBack", "-ns -nf",
                  "{started}{hashes}{sequence}{movedWithoutFlush}"},
        OptionRow{"NoSizeCheckChangesNothingWhereFilesAreReadBack", "-nfs -nf", allProvedWithoutFlush},
        OptionRow{"NeitherReadBackNorSizeCheck", "-k -nfs -nf",
                  "{started}{hashes}{sequence}{notSizeChecked}{movedWithoutFlush}"},
        OptionRow{"AWrongSizeIsNotLookedAtWithoutSizeCheck", "-k -nfs -nf -a5",
                  "{started}{hashes}{sequence}{notSizeChecked}{movedWithoutFlush}"},
        OptionRow{"AWrongSizeIsNotLookedAtWhereFilesAreReadBack", "-nf -a5", allProvedWithoutFlush},
        OptionRow{"OverwritingWithNothingToOverwrite", "-f -nf", allProvedWithoutFlush},
        OptionRow{"SHA1", "-t sha1 -nf", allProvedWithoutFlush, 2, sha1},
        OptionRow{"XXHash64BE", "-t xxhash64be -nf", allProvedWithoutFlush, 2, xxh64},
        OptionRow{"NoDestination", "-j", allProved, 0},
        OptionRow{"NoDestinationAndNoReadBack", "-j -k", "{started}{hashes}{sequence}{movedAndFlushed}", 0},
        OptionRow{"NoDestinationAndNoDigest", "-j -n", "{started}sequence-hash (null)\n{movedAndFlushed}", 0}),
    rowName);

TEST(ToolSequence, VerboselyEveryFrameReadBackAndTheSpeedsAreNamed) {
  const Offload offload;

  const ToolRun run = offload.run({"-v", "-nf"});

  EXPECT_EQ(0, run.exitStatus);
  std::string expected =
      offload.filled("{started}{hashes}INFO: copy speed {total} bytes in TIME\n{sequence}{verifying}");
  for (std::size_t number = 1; number <= 3; ++number) {
    expected += fmt::format("~verify of source file {} of 3 of sequence #3 ({}) ok.\n", number, offload.frame(number));
    for (std::size_t destination = 1; destination <= 2; ++destination) {
      expected += fmt::format("~verify of destination file {} of 3 of sequence #{} ({}) ok.\n", number, destination,
                              offload.copied(destination, number));
    }
  }
  // The size of one file, which no one has given.
  expected += "INFO: verification speed 0 bytes in TIME\n";
  expected += movedWithoutFlush;
  // On a busy machine a run takes longer than the half second between two lines of progress.
  const std::regex progress("INFO: (copied|verified) [0-9]+ of " + std::to_string(offload.totalSize()) + " bytes.*\n");
  const std::regex time(R"([0-9]+\.[0-9]{5} sec \([0-9]+\.[0-9] MB/sec\))");
  expectOutput(expected, std::regex_replace(std::regex_replace(run.output, progress, ""), time, "TIME"));
  offload.expectOffloaded();
}

TEST(ToolSequence, TheFramesOfAListAreReadBackInTheirOrder) {
  const Offload offload(1);

  const Names lines = offload.run({"-v", "-nf"}).lines();

  Names ofDestination;
  std::ranges::copy_if(lines, std::back_inserter(ofDestination),
                       [](const std::string& line) { return line.starts_with("verify of destination"); });
  EXPECT_THAT(ofDestination, ElementsAre(HasSubstr(" 1 of 3 "), HasSubstr(" 2 of 3 "), HasSubstr(" 3 of 3 ")));
}

TEST(ToolSequence, TheLastComponentOfADestinationIsDroppedEvenIfItIsAFolder) {
  const Offload offload(1);

  const ToolRun run = runTool({"-nf", "-s", offload.identifier(), offload.folders[0] + "/"});

  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_THAT(offload.namesIn(1), IsEmpty());
  EXPECT_TRUE(offload.frames[2] == readFile(offload.scratch.file(frameName(3))));
}

// --- Sizes of frames ---

struct Sizes : NamedRow {
  std::vector<std::size_t> sizes;
};

class ToolSequenceSizes : public testing::TestWithParam<Sizes> {};

TEST_P(ToolSequenceSizes, ArriveWholeAndAreProved) {
  const Offload offload(2, GetParam().sizes);

  const ToolRun run = offload.run({"-nf"});

  EXPECT_EQ(0, run.exitStatus);
  expectOutput(offload.filled(allProvedWithoutFlush), run.output);
  offload.expectOffloaded();
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ToolSequenceSizes,
    testing::Values(Sizes{"OneFrame", {4096}}, Sizes{"OneEmptyFrame", {0}}, Sizes{"EmptyFramesAtBothEnds", {0, 5, 0}},
                    Sizes{"AroundBlocks", {1, 511, 512, 513, 4095, 4096, 4097, 8192 - 512}},
                    Sizes{"AroundTheSmallestBuffer", {1, MiB - 1, MiB, MiB + 1, MiB + 4096, 2 * MiB, 2 * MiB + 512}},
                    Sizes{"LaterOnesLargerThanABufferThatFitsTheFirst", {MiB, 4 * MiB + 4097, 3}},
                    Sizes{"LaterOnesSmaller", {3 * MiB + 5, 2, 4096}}),
    rowName);

TEST(ToolSequence, ASizeThatIsGivenIsThatOfOneFrameSoSeveralFailTheSizeCheck) {
  const Offload offload(2, {4096, 4096, 4096});

  const ToolRun run = offload.run({"-k", "-a", "4096"});

  EXPECT_EQ(104, run.exitStatus);
  const std::string reason = "the expected filesize (4096) is not the number of bytes copied (12288)\n";
  expectOutput(offload.filled("{started}{hashes}{sequence}") + reason, run.output);
  EXPECT_THAT(run.errors, EndsWith(reason));
  EXPECT_EQ(allTemporary(), offload.namesIn(1));
  EXPECT_EQ(allTemporary(), offload.namesIn(2));
}

TEST(ToolSequence, ASizeThatIsGivenFitsOneFrame) {
  const Offload offload(2, {4096});

  const ToolRun run = offload.run({"-k", "-nf", "-a", "4096"});

  EXPECT_EQ(0, run.exitStatus);
  expectOutput(offload.filled("{started}{hashes}{sequence}{sizeChecked}{movedWithoutFlush}"), run.output);
  offload.expectOffloaded();
}

// --- Ranges ---

TEST(ToolSequence, ARangeWithoutFramesHasTheDigestOfNothing) {
  const Offload offload(1);

  const ToolRun run = runTool({"-nf", "-s", offload.card() + "/p.2-1.####.dpx", offload.folders[0] + "/x"});

  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ(offload.filled("{started}sequence-hash MD5:d41d8cd98f00b204e9800998ecf8427e\n{movedWithoutFlush}"),
            run.output);
  EXPECT_THAT(offload.namesIn(1), IsEmpty());
}

TEST(ToolSequence, ARangeWithoutFramesHasNothingToFlushWhichIsAFailedFlush) {
  const Offload offload(1);

  // Standard input is the null device, which can't be synced.
  const ToolRun run = runTool({"-s", offload.card() + "/p.2-1.####.dpx", offload.folders[0] + "/x"});

  EXPECT_EQ(106, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("INFO: flushing files\n"
                                   "Error: couldn't sync the file system of file (null) (error code -1)\n"));
}

TEST(ToolSequence, ARangeThatEndsBeforeItStartsHasNoPath) {
  const Offload offload(1);

  const ToolRun run = runTool({"-s", offload.card() + "/p.5-3.####.dpx", offload.folders[0] + "/x"});

  EXPECT_EQ(1, run.exitStatus);
  EXPECT_EQ(offload.filled("{started}"
                           "ERROR: framenumber not in range of sequence.\n"
                           "ERROR no path for index: 0failed to perform copy\n"),
            run.output);
  EXPECT_EQ("", run.errors);
  EXPECT_THAT(offload.namesIn(1), IsEmpty());
}

TEST(ToolSequence, AnIdentifierWithoutHashesIsRefused) {
  const ToolRun run = runTool({"-s", "/nowhere/p.1-3.dpx", "/nowhere/x"});

  EXPECT_EQ(1, run.exitStatus);
  EXPECT_EQ(
      "ERROR: Wrong arguments - missing hashes in identifier.\n"
      "is sequence but could not get input sequence\n"
      "invalid arguments\n",
      run.output);
}

TEST(ToolSequence, APercentSignInTheNameOfTheCardIsADirectiveThatGivesNoPath) {
  for (const char* card : {"100%", "100%d", "%s", "%n", "%99999999d"}) {
    const Offload offload(1, usualSizes, card);

    const ToolRun run = offload.run();

    EXPECT_EQ(1, run.exitStatus) << card;
    EXPECT_EQ("INFO: copying " + offload.card() + "...\nERROR no path for index: 0failed to perform copy\n",
              run.output);
    EXPECT_THAT(offload.namesIn(1), IsEmpty());
    offload.expectSourceUntouched();
  }
}

TEST(ToolSequence, ADoubledPercentSignInTheIdentifierStandsForOne) {
  const Offload offload(1, usualSizes, "100%");

  const ToolRun run = runTool({"-nf", "-s", replaced(offload.identifier(), "%", "%%"), offload.folders[0] + "/x"});

  EXPECT_EQ(0, run.exitStatus);
  offload.expectOffloaded();
}

TEST(ToolSequence, APercentSignInTheNameOfADestinationIsAPercentSign) {
  Offload offload(0);
  offload.folders.push_back(offload.scratch.path() / "%s 100%n %d");
  fs::create_directory(offload.folders[0]);

  const ToolRun run = offload.run({"-nf"});

  EXPECT_EQ(0, run.exitStatus);
  expectOutput(offload.filled(allProvedWithoutFlush), run.output);
  offload.expectOffloaded();
}

// --- External hashes ---

struct ExternalHash : NamedRow {
  const char* algorithm;  // of the copy, as the command line has it
  Method method;
  const char* hash;  // with words for digests
};

class ToolSequenceExternalHash : public testing::TestWithParam<ExternalHash> {
 protected:
  // {xxh64:most first} is the digest of the frames' digests that have the most significant byte first.
  static std::string filled(const Offload& offload, std::string hash) {
    const std::string mostFirst = offload.joinedDigests(xxh64);
    std::string leastFirst;
    for (std::size_t at = 0; at < mostFirst.size(); at += 16) leastFirst += bytesTurnedRound(mostFirst.substr(at, 16));
    hash = replaced(std::move(hash), "{md5}", offload.sequenceDigest(md5));
    hash = replaced(std::move(hash), "{MD5}", inCapitals(offload.sequenceDigest(md5)));
    hash = replaced(std::move(hash), "{sha1}", offload.sequenceDigest(sha1));
    hash = replaced(std::move(hash), "{most of most}", offload.digestOf(mostFirst, xxh64));
    hash = replaced(std::move(hash), "{most of least}", offload.digestOf(leastFirst, xxh64));
    hash = replaced(std::move(hash), "{least of most}", bytesTurnedRound(offload.digestOf(mostFirst, xxh64)));
    return replaced(std::move(hash), "{least of least}", bytesTurnedRound(offload.digestOf(leastFirst, xxh64)));
  }
};

TEST_P(ToolSequenceExternalHash, ThatIsRightChangesNothing) {
  const ExternalHash& row = GetParam();
  const Offload offload(1);

  const ToolRun run = offload.run({"-k", "-nf", "-t", row.algorithm, "-e", filled(offload, row.hash)});

  EXPECT_EQ(0, run.exitStatus);
  expectOutput(offload.filled("{started}{hashes}{sequence}{sizeChecked}{movedWithoutFlush}", row.method), run.output);
  offload.expectOffloaded();
}

// The two byte orders of XXHash64 are told apart by the name in front; of the frames' digests either order will do.
INSTANTIATE_TEST_SUITE_P(
    Right, ToolSequenceExternalHash,
    testing::Values(
        ExternalHash{"OfTheCopyAlgorithm", "md5", md5, "MD5:{md5}"},
        ExternalHash{"InCapitals", "md5", md5, "MD5:{MD5}"},
        ExternalHash{"OfAnotherAlgorithm", "md5", md5, "SHA1:{sha1}"},
        ExternalHash{"MostSignificantFirst", "md5", md5, "XXHash64BE:{most of most}"},
        ExternalHash{"MostSignificantFirstOfTheOtherOrder", "md5", md5, "XXHash64BE:{most of least}"},
        ExternalHash{"LeastSignificantFirst", "md5", md5, "XXHash64:{least of least}"},
        ExternalHash{"LeastSignificantFirstOfTheOtherOrder", "md5", md5, "XXHash64:{least of most}"},
        ExternalHash{"OfTheCopyAlgorithmMostSignificantFirst", "xxhash64be", xxh64, "XXHash64BE:{most of most}"},
        ExternalHash{"LeastSignificantFirstBesideTheMost", "xxhash64be", xxh64, "XXHash64:{least of least}"},
        ExternalHash{"MD5BesideXXHash64", "xxhash64be", xxh64, "MD5:{md5}"}),
    rowName);

TEST(ToolSequence, AWrongExternalHashIsNamedTwiceAndNothingIsReadBackOrMoved) {
  const Offload offload(2);
  const std::string wrong = "MD5:00000000000000000000000000000000";

  const ToolRun run = offload.run({"-e", wrong});

  EXPECT_EQ(103, run.exitStatus);
  const std::string reason =
      "INFO: external hash: " + wrong + " but got hash: MD5:" + offload.sequenceDigest(md5) + ".\n";
  expectOutput(offload.filled("{started}{hashes}{sequence}") + reason + reason, run.output);
  EXPECT_THAT(run.errors, EndsWith(reason));
  EXPECT_EQ(allTemporary(), offload.namesIn(1));
  EXPECT_EQ(allTemporary(), offload.namesIn(2));
}

TEST(ToolSequence, TheDigestOfNothingIsNotThatOfASequence) {
  const Offload offload(1);

  const ToolRun run = offload.run({"-t", "xxhash64be", "-e", "XXHash64BE:ef46db3751d8e999"});

  EXPECT_EQ(103, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("but got hash: XXHash64BE:" + offload.sequenceDigest(xxh64) + ".\n"));
  EXPECT_EQ(allTemporary(), offload.namesIn(1));
}

TEST(ToolSequence, AnExternalHashOfTheFirstFrameIsNotThatOfTheSequence) {
  const Offload offload(1);

  const ToolRun run = offload.run({"-e", "XXHash64BE:" + offload.frameDigest(1, xxh64)});

  EXPECT_EQ(103, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("but got hash: XXHash64BE:" + offload.sequenceDigest(xxh64) + ".\n"));
}

TEST(ToolSequence, AnExternalHashOfUnknownFormEndsTheRunBeforeAnyFrameIsCreated) {
  const Offload offload(1);

  const ToolRun run = offload.run({"-e", "md5:00"});

  EXPECT_EQ(1, run.exitStatus);
  EXPECT_EQ(offload.filled("{started}invalid external hash format: md5:00\n"), run.output);
  EXPECT_THAT(offload.namesIn(1), IsEmpty());
}

// --- Files that are missing or in the way ---

TEST(ToolSequence, AMissingFrameInTheMiddleEndsTheRun) {
  const Offload offload(2);
  const std::string hash = "hash MD5:" + offload.frameDigest(1);
  fs::remove(offload.frame(2));

  const ToolRun run = offload.run();

  EXPECT_EQ(108, run.exitStatus);
  const std::string start = "INFO: copying " + offload.card() + "...";
  const std::string missing = "ERROR: could not open file at path: " + offload.frame(2);
  // The reader is ahead of the digest: the line of the first frame comes before, behind or not at all.
  EXPECT_THAT(run.lines(),
              AnyOf(ElementsAre(start, missing), ElementsAre(start, hash, missing), ElementsAre(start, missing, hash)));
  EXPECT_THAT(offload.namesIn(1), IsSubsetOf(allTemporary()));
  EXPECT_THAT(offload.namesIn(2), IsSubsetOf(allTemporary()));
  EXPECT_TRUE(offload.frames[2] == readFile(offload.frame(3)));
}

TEST(ToolSequence, ADestinationFolderThatIsMissingEndsTheRunWithoutAMessage) {
  const Offload offload(2);
  fs::remove(offload.folders[1]);

  const ToolRun run = offload.run();

  EXPECT_EQ(107, run.exitStatus);
  EXPECT_EQ(offload.filled("{started}"), run.output);
  offload.expectSourceUntouched();
}

TEST(ToolSequence, ASymbolicLinkAtATemporaryNameIsNotFollowed) {
  const Offload offload(2);
  writeFile(offload.scratch.file("elsewhere"), "precious");
  fs::create_symlink(offload.scratch.file("elsewhere"), offload.copied(2, 2) + ".kdxcopy");

  const ToolRun run = offload.run();

  EXPECT_EQ(107, run.exitStatus);
  EXPECT_EQ(offload.filled("{started}hash MD5:" + offload.frameDigest(1) + "\n"), run.output);
  EXPECT_EQ("precious", readFile(offload.scratch.file("elsewhere")));
  EXPECT_THAT(offload.namesIn(1), IsSubsetOf(allTemporary()));
  offload.expectSourceUntouched();
}

TEST(ToolSequence, AnExistingFileIsKeptAndEndsTheMoveThere) {
  const Offload offload(2);
  writeFile(offload.copied(2, 2), "an older take");

  const ToolRun run = offload.run();

  EXPECT_EQ(109, run.exitStatus);
  expectOutput(offload.filled("{started}{hashes}{sequence}{verifying}") + moving + "failed to move files in place\n",
               run.output);
  EXPECT_EQ("an older take", readFile(offload.copied(2, 2)));
  EXPECT_THAT(offload.namesIn(1), ElementsAre("p.0001.dpx", "p.0002.dpx", "p.0003.dpx"));
  EXPECT_THAT(offload.namesIn(2), ElementsAre("p.0001.dpx", "p.0002.dpx", "p.0002.dpx.kdxcopy", "p.0003.dpx.kdxcopy"));
  offload.expectSourceUntouched();
}

TEST(ToolSequence, AnExistingFileIsReplacedOnDemand) {
  const Offload offload(2);
  writeFile(offload.copied(2, 2), "an older take");

  const ToolRun run = offload.run({"-f", "-nf"});

  EXPECT_EQ(0, run.exitStatus);
  expectOutput(offload.filled(allProvedWithoutFlush), run.output);
  offload.expectOffloaded();
}

TEST(ToolSequence, AFolderAtAFinalNameIsNeverRemoved) {
  const Offload offload(1);
  writeFile(offload.scratch.file("b01/p.0002.dpx/inside"), "precious");

  const ToolRun run = offload.run({"-f", "-nf"});

  EXPECT_EQ(EISDIR, run.exitStatus);
  EXPECT_THAT(run.output,
              EndsWith("failed to remove " + offload.copied(1, 2) + " before movingfailed to move files in place\n"));
  EXPECT_EQ("precious", readFile(offload.copied(1, 2) + "/inside"));
}

TEST(ToolSequence, IntoTheFolderItIsReadFromNothingIsReplaced) {
  Offload offload(0);
  offload.folders.push_back(offload.card());

  const ToolRun run = offload.run({"-nf"});

  EXPECT_EQ(109, run.exitStatus);
  expectOutput(offload.filled("{started}{hashes}{sequence}{verifying}") + moving + "failed to move files in place\n",
               run.output);
  offload.expectSourceUntouched();
}

TEST(ToolSequence, IntoTheFolderItIsReadFromNothingIsReplacedOnDemandEither) {
  Offload offload(0);
  offload.folders.push_back(offload.card());

  const ToolRun run = offload.run({"-f", "-nf"});

  EXPECT_EQ(EBUSY, run.exitStatus);
  expectOutput(offload.filled("{started}{hashes}{sequence}{verifying}") + moving + "failed to remove " +
                   offload.frame(1) + " before movingfailed to move files in place\n",
               run.output);
  EXPECT_THAT(run.errors, HasSubstr(offload.frame(1)));
  offload.expectSourceUntouched();
}

TEST(ToolSequence, TheSameDestinationTwiceKeepsTheFirstCopyAndTheSecondFails) {
  for (const char* overwrite : {"-nf", "-f"}) {
    Offload offload(1);
    offload.folders.push_back(offload.folders[0]);

    const ToolRun run = offload.run({"-nf", overwrite});

    EXPECT_EQ(1, run.exitStatus) << overwrite;
    expectOutput(offload.filled("{started}{hashes}{sequence}{verifying}") + moving + "failed to move files in place\n",
                 run.output);
    EXPECT_EQ("", run.errors);
    EXPECT_THAT(offload.namesIn(1), ElementsAre("p.0001.dpx", "p.0002.dpx", "p.0003.dpx"));
    for (std::size_t number = 1; number <= 3; ++number) {
      EXPECT_TRUE(offload.frames[number - 1] == readFile(offload.copied(1, number)));
    }
    offload.expectSourceUntouched();
  }
}

// --- Permanence ---

TEST(ToolSequence, ASyncOfTheFileSystemThatFailsBeforeTheMoveLeavesTheTemporaryNames) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const Offload offload(2);

  const ToolRun run = runTool({.arguments = offload.arguments(), .wrapper = injecting("syncfs:error=EIO")});

  EXPECT_EQ(106, run.exitStatus);
  expectOutput(offload.filled("{started}{hashes}{sequence}{verifying}") + moving +
                   "Error: couldn't sync the file system of file " + offload.copied(1, 1) +
                   ".kdxcopy (error code -1)\n",
               run.output);
  EXPECT_EQ(allTemporary(), offload.namesIn(1));
  EXPECT_EQ(allTemporary(), offload.namesIn(2));
}

TEST(ToolSequence, ADeviceWhoseCacheCanNotBeEmptiedBeforeTheMoveIsAFailedFlush) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const Offload offload(2);
  const std::string first = offload.copied(1, 1) + ".kdxcopy";

  const ToolRun run =
      runTool({.arguments = offload.arguments(), .wrapper = injectingAt(first, {"fdatasync:error=EIO"})});

  EXPECT_EQ(106, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("Error: couldn't sync the file system of file " + first + " (error code -1)\n"));
  EXPECT_EQ(allTemporary(), offload.namesIn(1));
}

TEST(ToolSequence, DestinationsOfOneFileSystemAreSyncedOnceBeforeTheMove) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const Offload offload(2);

  // The second such call would fail.
  const ToolRun run =
      runTool({.arguments = offload.arguments({"-k"}), .wrapper = injecting("syncfs:error=EIO:when=2+")});

  EXPECT_EQ(0, run.exitStatus) << run.output;
  offload.expectOffloaded();
}

TEST(ToolSequence, WithoutFlushNothingIsSynced) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const Offload offload(2);

  const ToolRun run =
      runTool({.arguments = offload.arguments({"-k", "-nf"}), .wrapper = injecting("syncfs:error=EIO")});

  EXPECT_EQ(0, run.exitStatus) << run.output;
  offload.expectOffloaded();
}

TEST(ToolSequence, WithoutStandardInputTheFirstFrameDoesNotTakeItsPlace) {
  const Offload offload(1);

  const ToolRun run = runTool({.arguments = {"-j", "-k", "-s", offload.identifier()}, .closedDescriptors = {0}});

  EXPECT_EQ(134, run.exitStatus) << run.output;
}

// --- What a long sequence takes ---

// Many names of one small file, and where they go.
struct LongSequence {
  explicit LongSequence(std::size_t count) {
    writeFile(scratch.file("frame"), "the same small frame");
    fs::create_directory(scratch.path() / "card");
    for (std::size_t number = 1; number <= count; ++number) {
      fs::create_hard_link(scratch.path() / "frame", scratch.path() / "card" / fmt::format("p.{:06}.dpx", number));
    }
    for (const char* folder : {"a", "b"}) fs::create_directory(scratch.path() / folder);
    identifier = fmt::format("{}/card/p.1-{}.######.dpx", scratch.path().string(), count);
  }

  // In memory where that is at hand: thousands of files take a disk long.
  ScratchDirectory scratch{fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path()};
  std::string identifier;
};

TEST(ToolSequence, NeedsNoMoreDescriptorsForMoreFrames) {
  if (!haveProgram("prlimit")) GTEST_SKIP() << "prlimit is not installed";
  const LongSequence frames(200);

  const ToolRun run =
      runTool({.arguments = {"-nf", "-s", frames.identifier, frames.scratch.file("a/x"), frames.scratch.file("b/x")},
               .wrapper = {"prlimit", "--nofile=24"}});

  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_THAT(namesBelow(frames.scratch.path() / "a"), SizeIs(200));
  EXPECT_THAT(namesBelow(frames.scratch.path() / "b"), SizeIs(200));
}

// In KiB, of an offload that is read back.
int64_t peakMemoryFor(std::size_t count, std::size_t numberOfDestinations) {
  const LongSequence frames(count);
  std::vector<std::string> arguments{"-nf", "-s", frames.identifier};
  for (std::size_t number = 1; number <= numberOfDestinations; ++number) {
    arguments.push_back(frames.scratch.file(fmt::format("{:0>150}/x", number)));
  }
  const ToolRun run = runTool(std::move(arguments));
  EXPECT_EQ(0, run.exitStatus) << run.errors;
  return run.peakMemoryKiB;
}

TEST(ToolSequence, NeedsLessThanAKibibyteOfMemoryForEachFurtherFrame) {
  if (isSanitized()) GTEST_SKIP() << "sanitizers take memory of their own";

  EXPECT_LT(peakMemoryFor(11'000, 1) - peakMemoryFor(1'000, 1), 10'000);
}

TEST(ToolSequence, NeedsLessThanAKibibyteOfMemoryForEachFurtherFrameToSixteenDestinationsToo) {
  if (isSanitized()) GTEST_SKIP() << "sanitizers take memory of their own";

  EXPECT_LT(peakMemoryFor(2'500, 16) - peakMemoryFor(500, 16), 2'000);
}

}  // namespace
