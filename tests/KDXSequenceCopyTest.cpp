// The copy job of a numbered sequence: how it is configured, its copy, and the check of sizes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <tuple>

#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/KDXSequenceCopy.h"
#include "platform/Log.h"
#include "tests/support/FileSizeLimit.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/OutputLines.h"
#include "tests/support/PhaseRun.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using platform::FileURL;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

namespace fs = std::filesystem;
using ErrorSlot = std::optional<platform::Error>;
using Names = std::vector<std::string>;

constexpr int32_t hashOnly = KDXVerificationOptionHashDuringCopy;
constexpr int32_t skipSize = KDXVerificationOptionSkipFileSizeCheck;

// A card with frames 9 to 11, whose order by number is not that by name. Frame 11 does not fit the reader's buffer.
class SequenceCopyTest : public testing::Test {
 protected:
  SequenceCopyTest() { ::setenv("XDG_CONFIG_HOME", settings.path().c_str(), 1); }

  void writeFrames() const {
    for (std::size_t index = 0; index < contents.size(); ++index) writeFile(frame(index), contents[index]);
  }

  [[nodiscard]] static std::string frameName(std::size_t index) {
    return "plate." + std::to_string(9 + index) + ".dpx";
  }
  [[nodiscard]] std::string frame(std::size_t index) const { return scratch.file("card/" + frameName(index)); }
  // The temporary file of a frame in a folder.
  [[nodiscard]] std::string copyOf(std::size_t index, const std::string& folder) const {
    return (scratch.path() / folder / (frameName(index) + ".kdxcopy")).string();
  }
  [[nodiscard]] std::string folder(const std::string& name) const { return (scratch.path() / name).string(); }

  // An MD5 job; the options are those of a run that reads nothing back.
  [[nodiscard]] static std::shared_ptr<KDXSequenceCopy> jobOf(const std::string& identifier,
                                                              const Names& destinations) {
    auto job = KDXSequenceCopy::initWithFileSequence(KDXFileSequence::initWithIdentifier(identifier));
    for (const std::string& destination : destinations) job->addDestinationURL(FileURL(destination));
    job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
    job->setVerificationOptions(hashOnly);
    return job;
  }
  [[nodiscard]] std::shared_ptr<KDXSequenceCopy> jobTo(const Names& destinations) const {
    return jobOf(identifier, destinations);
  }

  [[nodiscard]] std::string startLine() const { return "INFO: copying " + folder("card") + "...\n"; }

  // The lines of the digests as a program of the system tells them.
  [[nodiscard]] std::string hashLines(const std::string& method, const std::string& program, std::size_t count) const {
    std::string lines;
    std::string joined;
    for (std::size_t index = 0; index < count; ++index) {
      const std::string digits = digestByProgram(program, frame(index));
      lines += "hash " + method + ":" + digits + "\n";
      joined += digits;
    }
    writeFile(settings.file("joined"), joined);
    return lines + "sequence-hash " + method + ":" + digestByProgram(program, settings.file("joined")) + "\n";
  }
  [[nodiscard]] std::string md5Lines() const { return hashLines("MD5", "md5sum", contents.size()); }

  const ScratchDirectory settings;
  const ScratchDirectory scratch;
  const std::string identifier = scratch.file("card/plate.9-11.#.dpx");
  const std::string first = scratch.file("a/plate.dpx");
  const std::string second = scratch.file("b/plate.dpx");
  const Names contents = {mediaBytes(4097, 1), mediaBytes(70'001, 2), mediaBytes(MiB + 5, 3)};
  const std::string total = std::to_string(4097 + 70'001 + MiB + 5);
};

// Configuration.

class KDXSequenceCopyConfiguration : public SequenceCopyTest {};

TEST_F(KDXSequenceCopyConfiguration, ANewJobHasNoSingleSourceAndHasListedNothing) {
  const auto job = KDXSequenceCopy::initWithFileSequence(KDXFileSequence::initWithIdentifier(identifier));

  EXPECT_EQ(std::nullopt, job->sourceURL());
  EXPECT_THAT(job->sourcePaths(), IsEmpty());
  EXPECT_THAT(job->destinationURLs(), IsEmpty());
  EXPECT_THAT(job->destinationSequencePaths(), IsEmpty());
  EXPECT_THAT(job->sourceDigests(), IsEmpty());
  EXPECT_THAT(job->expectedFileSizes(), IsEmpty());
  EXPECT_EQ(0U, job->totalBytesExpectedToCopy());
}

TEST_F(KDXSequenceCopyConfiguration, EveryDestinationAddedHasATemporaryNameAndAnEmptyList) {
  const auto job = jobTo({second, first});

  EXPECT_THAT(job->destinationURLs(), ElementsAre(FileURL(second + ".kdxcopy"), FileURL(first + ".kdxcopy")));
  EXPECT_THAT(job->destinationSequencePaths(), ElementsAre(IsEmpty(), IsEmpty()));
}

TEST_F(KDXSequenceCopyConfiguration, TheStartLineNamesTheDirectoryOfTheIdentifier) {
  const auto job = jobOf("/Volumes/Card 1/A001/plate.1001-1100.####.dpx", {});

  EXPECT_EQ("INFO: copying /Volumes/Card 1/A001...\n", outputOf([&] { job->logCopyStart(); }));
}

TEST_F(KDXSequenceCopyConfiguration, TheStartLineIsQueuedBehindEarlierLines) {
  const auto job = jobOf("/card/plate.1-2.#.dpx", {});
  std::promise<void> gate;

  const std::string output = outputOf([&] {
    platform::logQueue().async([&] { gate.get_future().wait(); });
    platform::queueLine("earlier\n");
    job->logCopyStart();
    gate.set_value();
  });

  EXPECT_EQ("earlier\nINFO: copying /card...\n", output);
}

// The copy.

class KDXSequenceCopyPhase : public SequenceCopyTest {};

TEST_F(KDXSequenceCopyPhase, GivesEveryDestinationEveryFrameUnderItsTemporaryNameInFrameOrder) {
  writeFrames();
  const auto job = jobTo({first, second});

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(std::nullopt, phase.error);
  EXPECT_EQ(startLine() + md5Lines(), phase.output);
  EXPECT_THAT(job->sourcePaths().files(), ElementsAre(FileURL(frame(0)), FileURL(frame(1)), FileURL(frame(2))));
  ASSERT_EQ(2U, job->destinationSequencePaths().size());
  EXPECT_THAT(job->destinationSequencePaths()[0].files(),
              ElementsAre(FileURL(copyOf(0, "a")), FileURL(copyOf(1, "a")), FileURL(copyOf(2, "a"))));
  EXPECT_THAT(job->destinationSequencePaths()[1].files(),
              ElementsAre(FileURL(copyOf(0, "b")), FileURL(copyOf(1, "b")), FileURL(copyOf(2, "b"))));
  EXPECT_EQ((Names{"a/plate.10.dpx.kdxcopy", "a/plate.11.dpx.kdxcopy", "a/plate.9.dpx.kdxcopy",
                   "b/plate.10.dpx.kdxcopy", "b/plate.11.dpx.kdxcopy", "b/plate.9.dpx.kdxcopy", "card/plate.10.dpx",
                   "card/plate.11.dpx", "card/plate.9.dpx"}),
            namesBelow(scratch.path()));
  for (std::size_t index = 0; index < contents.size(); ++index) {
    EXPECT_TRUE(contents[index] == readFile(copyOf(index, "a"))) << index;
    EXPECT_TRUE(contents[index] == readFile(copyOf(index, "b"))) << index;
  }
}

TEST_F(KDXSequenceCopyPhase, KeepsOneDigestForEachFrameInFrameOrder) {
  writeFrames();
  const auto job = jobTo({first});

  std::ignore = outputOf([&] { job->performCopy(nullptr); });

  ASSERT_EQ(3U, job->sourceDigests().size());
  for (std::size_t index = 0; index < 3; ++index) {
    EXPECT_EQ("MD5:" + digestByProgram("md5sum", frame(index)), job->sourceDigests()[index]->digestString());
  }
}

TEST_F(KDXSequenceCopyPhase, IsRunByItsStepsAloneWithoutAStartLine) {
  writeFrames();
  const auto job = jobTo({first});

  const PhaseRun phase = runPhase([&](platform::ErrorPlace error) { return job->doTheCopyWork(error); });

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(md5Lines(), phase.output);
}

TEST_F(KDXSequenceCopyPhase, WithoutDestinationsStillReadsAndDigestsEveryFrame) {
  writeFrames();
  const auto job = jobTo({});

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine() + md5Lines(), phase.output);
  EXPECT_EQ((Names{"card/plate.10.dpx", "card/plate.11.dpx", "card/plate.9.dpx"}), namesBelow(scratch.path()));
}

TEST_F(KDXSequenceCopyPhase, OfOneFrameCopiesThatFrame) {
  writeFrames();
  const auto job = jobOf(scratch.file("card/plate.9-9.#.dpx"), {first});

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine() + hashLines("MD5", "md5sum", 1), phase.output);
  EXPECT_TRUE(contents[0] == readFile(copyOf(0, "a")));
}

TEST_F(KDXSequenceCopyPhase, OfAnEmptyFrameGivesAnEmptyFileAndTheDigestOfNoData) {
  writeFrames();
  writeFile(frame(1), "");
  const auto job = jobTo({first});

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine() + md5Lines(), phase.output);
  EXPECT_THAT(linesOf(phase.output), Contains("hash MD5:d41d8cd98f00b204e9800998ecf8427e"));
  EXPECT_EQ("", readFile(copyOf(1, "a")));
  EXPECT_TRUE(contents[2] == readFile(copyOf(2, "a")));
}

TEST_F(KDXSequenceCopyPhase, OfNoFramesPrintsTheDigestOfNoDataAndCreatesNothing) {
  const auto job = jobOf(scratch.file("card/plate.5-4_#.dpx"), {first});

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine() + "sequence-hash MD5:d41d8cd98f00b204e9800998ecf8427e\n", phase.output);
  EXPECT_THAT(namesBelow(scratch.path()), IsEmpty());
  EXPECT_THAT(job->destinationSequencePaths(), ElementsAre(IsEmpty()));
}

TEST_F(KDXSequenceCopyPhase, WithoutDigestsPrintsThatThereIsNoneForTheSequenceAndNoneForItsFrames) {
  writeFrames();
  const auto job = jobTo({first});
  job->setDigestAlgorithm(KDXDigestAlgorithmNone);
  job->setVerificationOptions(0);

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine() + "sequence-hash (null)\n", phase.output);
  EXPECT_THAT(job->sourceDigests(), IsEmpty());
  EXPECT_TRUE(contents[2] == readFile(copyOf(2, "a")));
}

TEST_F(KDXSequenceCopyPhase, OfAVerboseJobTellsItsSpeedBeforeTheDigestOfTheSequence) {
  writeFrames();
  const auto job = jobTo({first});
  job->setVerbose(true);

  Names lines = linesOf(outputOf([&] { job->performCopy(nullptr); }));
  // A machine that is busy for half a second adds a line of progress.
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("INFO: copied "); });

  const Names quiet = linesOf(md5Lines());
  EXPECT_THAT(lines, ElementsAre("INFO: copying " + folder("card") + "...", quiet[0], quiet[1], quiet[2],
                                 MatchesRegex("INFO: copy speed " + total +
                                              " bytes in [0-9]+\\.[0-9]{5} sec \\([0-9]+\\.[0-9] MB/sec\\)"),
                                 quiet[3]));
}

TEST_F(KDXSequenceCopyPhase, OfAVerboseJobReportsItsProgressWhenHalfASecondHasPassed) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  writeFrames();

  // The first read of the second frame takes more than half a second.
  const ToolRun run = runTool({.arguments = {"-s", "-v", "-k", identifier, first},
                               .wrapper = injectingAt(frame(1), {"read:delay_exit=600000:when=1"})});

  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(run.lines(), Contains("INFO: copied " + std::to_string(4097 + 70'001) + " of " + total + " bytes"));
}

TEST_F(KDXSequenceCopyPhase, ReadsEachFrameFromTheDeviceOnceAndLeavesNoneOfItsCopiesInTheCache) {
  std::string whyNot;
  const auto card = MountedFileSystem::mount("ext4", 16 * MiB, whyNot);
  if (!card) GTEST_SKIP() << whyNot;
  for (std::size_t index = 0; index < 3; ++index) {
    writeFile(card->file(frameName(index)), mediaBytes(MiB));
    MountedFileSystem::fillCache(card->file(frameName(index)));
  }
  const std::string backup = card->file("backup/plate.dpx");
  const auto job = jobOf(card->file("plate.9-11.#.dpx"), {first, backup, second});
  const uint64_t before = card->bytesReadFromDevice();

  std::ignore = outputOf([&] { job->performCopy(nullptr); });

  const uint64_t read = card->bytesReadFromDevice() - before;
  EXPECT_GE(read, 3 * MiB);
  EXPECT_LT(read, 4 * MiB);
  for (const FileURL& copy : job->destinationSequencePaths()[1].files()) {
    EXPECT_EQ(0U, MountedFileSystem::bytesInCache(copy.path()));
  }
}

// The digests.

struct DigestProgram : NamedRow {
  uint32_t algorithm;
  const char* program;
};

class KDXSequenceCopyDigest : public SequenceCopyTest, public testing::WithParamInterface<DigestProgram> {};

TEST_P(KDXSequenceCopyDigest, IsPrintedForEachFrameAndForTheJoinedTextsOfThose) {
  writeFrames();
  const auto job = jobTo({first});
  job->setDigestAlgorithm(GetParam().algorithm);

  const std::string output = outputOf([&] { job->performCopy(nullptr); });

  EXPECT_EQ(startLine() + hashLines(GetParam().name, GetParam().program, 3), output);
}

INSTANTIATE_TEST_SUITE_P(Algorithms, KDXSequenceCopyDigest,
                         testing::Values(DigestProgram{"MD5", 2, "md5sum"}, DigestProgram{"SHA1", 1, "sha1sum"},
                                         DigestProgram{"XXHash64BE", 16, "xxh64sum"},
                                         DigestProgram{"XXHash64", 8, "xxh64sum --little-endian"}),
                         testing::PrintToStringParamName());

// Where the files go.

struct DestinationName : NamedRow {
  const char* given;
  const char* folder;
};

class KDXSequenceCopyDestination : public SequenceCopyTest, public testing::WithParamInterface<DestinationName> {};

TEST_P(KDXSequenceCopyDestination, LosesItsLastComponentWhateverThatIs) {
  writeFrames();
  fs::create_directories(scratch.path() / "a/b");
  const auto job = jobOf(scratch.file("card/plate.9-9.#.dpx"), {(scratch.path() / GetParam().given).string()});

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_THAT(namesBelow(scratch.path()), Contains(std::string(GetParam().folder) + "plate.9.dpx.kdxcopy"));
}

INSTANTIATE_TEST_SUITE_P(Names, KDXSequenceCopyDestination,
                         testing::Values(DestinationName{"AFile", "a/b/plate.dpx", "a/b/"},
                                         DestinationName{"AFrame", "a/plate.9.dpx", "a/"},
                                         DestinationName{"AnIdentifier", "a/plate.9-9.#.dpx", "a/"},
                                         DestinationName{"ABareDirectory", "a/b/", "a/"},
                                         DestinationName{"ADirectory", "a/b", "a/"},
                                         DestinationName{"ADirectoryBelowTheRoot", "a", ""}),
                         testing::PrintToStringParamName());

// Expected sizes.

struct ExpectedSize : NamedRow {
  std::optional<int64_t> given;
  int32_t options;
  std::vector<uint64_t> sizes;
  uint64_t total;
};

class KDXSequenceCopyExpectedSizes : public SequenceCopyTest, public testing::WithParamInterface<ExpectedSize> {};

TEST_P(KDXSequenceCopyExpectedSizes, AreThoseMeasuredUnlessOneIsGivenOrSizesAreSkipped) {
  writeFrames();
  const auto job = jobTo({});
  job->setExpectedFilesize(GetParam().given);
  job->setVerificationOptions(hashOnly | GetParam().options);

  std::ignore = outputOf([&] { job->performCopy(nullptr); });

  EXPECT_EQ(GetParam().sizes, job->expectedFileSizes());
  EXPECT_EQ(GetParam().total, job->totalBytesExpectedToCopy());
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, KDXSequenceCopyExpectedSizes,
    testing::Values(ExpectedSize{"Measured", std::nullopt, 0, {4097, 70'001, MiB + 5}, 4097 + 70'001 + MiB + 5},
                    ExpectedSize{"MeasuredWhenGivenAsNothing", 0, 0, {4097, 70'001, MiB + 5}, 4097 + 70'001 + MiB + 5},
                    ExpectedSize{"GivenForOneFileAndNotMultiplied", 70'001, 0, {70'001, 70'001, 70'001}, 70'001},
                    ExpectedSize{"GivenAndSkipped", 70'001, skipSize, {70'001, 70'001, 70'001}, 70'001},
                    ExpectedSize{"Skipped", std::nullopt, skipSize, {0, 0, 0}, 0}),
    testing::PrintToStringParamName());

// A frame without a path.

struct FrameWithoutPath : NamedRow {
  const char* identifier;
  const char* earlierLine;
};

class KDXSequenceCopyFrameWithoutPath : public SequenceCopyTest,
                                        public testing::WithParamInterface<FrameWithoutPath> {};

TEST_P(KDXSequenceCopyFrameWithoutPath, FailsBeforeAnyFileIsReadWithALineThatIsNotEndedAndWithoutAnError) {
  const std::string text = scratch.file(std::string("card/") + GetParam().identifier);
  const auto job = jobOf(text, {first});
  const auto jobWithEarlierError = jobOf(text, {first});
  const auto jobWithoutPlace = jobOf(text, {first});
  ErrorSlot error;
  ErrorSlot earlier = copyError(42, "earlier");
  bool copied = true;
  bool copiedWithEarlierError = true;
  bool copiedWithoutPlace = true;

  const std::string output = outputOf([&] { copied = job->performCopy(&error); });
  std::ignore = outputOf([&] { copiedWithEarlierError = jobWithEarlierError->performCopy(&earlier); });
  std::ignore = outputOf([&] { copiedWithoutPlace = jobWithoutPlace->performCopy(nullptr); });

  EXPECT_FALSE(copied);
  EXPECT_FALSE(copiedWithEarlierError);
  EXPECT_FALSE(copiedWithoutPlace);
  EXPECT_EQ(startLine() + GetParam().earlierLine + "ERROR no path for index: 0", output);
  EXPECT_EQ(std::nullopt, error);
  ASSERT_TRUE(earlier);
  EXPECT_EQ("earlier", earlier->description);
  EXPECT_THAT(namesBelow(scratch.path()), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Identifiers, KDXSequenceCopyFrameWithoutPath,
                         testing::Values(FrameWithoutPath{"NoStartFrame", "plate-0100_####.dpx",
                                                          "ERROR: framenumber not in range of sequence.\n"},
                                         FrameWithoutPath{"EndBeforeStart", "plate.5-3_##.dpx",
                                                          "ERROR: framenumber not in range of sequence.\n"},
                                         FrameWithoutPath{"ADirectiveWithoutAnArgument", "plate%s.1-3.#.dpx", ""}),
                         testing::PrintToStringParamName());

// Failures from which the copy cannot go on.

class KDXSequenceCopyFailure : public SequenceCopyTest {
 protected:
  [[nodiscard]] ChildRun endingOfCopyTo(const Names& destinations) const {
    return endingOf([&] { jobTo(destinations)->performCopy(nullptr); });
  }
  [[nodiscard]] std::string hashLine(std::size_t index) const {
    return "hash MD5:" + digestByProgram("md5sum", frame(index)) + "\n";
  }
  [[nodiscard]] std::string failedWritingTo(const std::string& name) const {
    return "ERROR: failed writing to " + folder(name) + "\n";
  }
};

TEST_F(KDXSequenceCopyFailure, AMissingFrameInTheMiddleIsNamedAndNoLaterFrameIsCopied) {
  writeFrames();
  fs::remove(frame(1));

  const ChildRun ending = endingOfCopyTo({first});

  EXPECT_EQ(108, ending.exitStatus);
  // The reader is ahead of the digests: the line of the frame before may come first, last, or not any more.
  std::string output = ending.output;
  if (const std::size_t hash = output.find(hashLine(0)); hash != std::string::npos)
    output.erase(hash, hashLine(0).size());
  EXPECT_EQ(startLine() + "ERROR: could not open file at path: " + frame(1) + "\n", output);
  EXPECT_FALSE(fs::exists(copyOf(2, "a")));
  EXPECT_FALSE(fs::exists(scratch.path() / "a" / frameName(0)));
}

TEST_F(KDXSequenceCopyFailure, AFrameThatCanNotBeReadIsAFailedWriteToTheFirstDestination) {
  writeFrames();
  fs::remove(frame(1));
  fs::create_directory(frame(1));

  const ChildRun ending = endingOfCopyTo({second, first});

  EXPECT_EQ(110, ending.exitStatus);
  EXPECT_EQ(startLine() + hashLine(0) + failedWritingTo("b"), ending.output);
  EXPECT_EQ("", readFile(copyOf(1, "a")));
  EXPECT_EQ("", readFile(copyOf(1, "b")));
  EXPECT_FALSE(fs::exists(copyOf(2, "a")));
}

TEST_F(KDXSequenceCopyFailure, AFrameThatCanNotBeReadEndsARunWithoutDestinationsWithoutAMessage) {
  writeFrames();
  fs::remove(frame(1));
  fs::create_directory(frame(1));

  const ChildRun ending = endingOfCopyTo({});

  EXPECT_EQ(111, ending.exitStatus);
  EXPECT_EQ(startLine() + hashLine(0), ending.output);
}

TEST_F(KDXSequenceCopyFailure, ADestinationFolderThatIsMissingEndsTheProcessWithoutAMessage) {
  writeFrames();

  const ChildRun ending = endingOfCopyTo({first, folder("missing/plate.dpx")});

  EXPECT_EQ(107, ending.exitStatus);
  EXPECT_EQ(startLine(), ending.output);
  EXPECT_EQ("", readFile(copyOf(0, "a")));
}

TEST_F(KDXSequenceCopyFailure, ADirectoryAtTheTemporaryNameOfALaterFrameEndsTheProcessThere) {
  writeFrames();
  fs::create_directory(copyOf(1, "a"));

  const ChildRun ending = endingOfCopyTo({first});

  EXPECT_EQ(107, ending.exitStatus);
  EXPECT_EQ(startLine() + hashLine(0), ending.output);
  EXPECT_FALSE(fs::exists(copyOf(2, "a")));
}

TEST_F(KDXSequenceCopyFailure, ALinkPlantedAtATemporaryNameEndsTheProcessAndIsNotWrittenThrough) {
  writeFrames();
  const std::string elsewhere = scratch.file("elsewhere");
  writeFile(elsewhere, "kept");
  fs::create_symlink(elsewhere, copyOf(1, "a"));

  EXPECT_EQ(107, endingOfCopyTo({first}).exitStatus);
  EXPECT_EQ("kept", readFile(elsewhere));
}

TEST_F(KDXSequenceCopyFailure, ATemporaryNameThatIsTheFrameItselfEndsTheProcessAndTheFrameIsNotEmptied) {
  writeFrames();
  fs::create_hard_link(frame(1), copyOf(1, "a"));

  EXPECT_EQ(107, endingOfCopyTo({first}).exitStatus);
  EXPECT_TRUE(contents[1] == readFile(frame(1)));
}

TEST_F(KDXSequenceCopyFailure, ATemporaryNameThatIsALaterFrameEndsTheProcessAndThatFrameStays) {
  writeFrames();
  fs::create_hard_link(frame(2), copyOf(0, "a"));

  const ChildRun ending = endingOfCopyTo({first});

  EXPECT_EQ(107, ending.exitStatus);
  EXPECT_EQ(startLine(), ending.output);
  EXPECT_TRUE(contents[2] == readFile(frame(2)));
  EXPECT_TRUE(contents[2] == readFile(copyOf(0, "a")));
}

TEST_F(KDXSequenceCopyFailure, FramesOfOneNameInNumberedFoldersEndTheProcessBeforeOneIsWrittenOverAnother) {
  for (const char* name : {"card/take.1/plate.dpx", "card/take.2/plate.dpx"}) writeFile(scratch.file(name), name);

  const ChildRun ending =
      endingOf([&] { jobOf(scratch.file("card/take.1-2.#") + "/plate.dpx", {first})->performCopy(nullptr); });

  EXPECT_EQ(107, ending.exitStatus);
  EXPECT_EQ("card/take.1/plate.dpx", readFile(folder("a/plate.dpx.kdxcopy")));
}

TEST_F(KDXSequenceCopyPhase, FramesOfOneNameInNumberedFoldersCanBeDigested) {
  for (const char* name : {"card/take.1/plate.dpx", "card/take.2/plate.dpx"}) writeFile(scratch.file(name), name);
  const auto job = jobOf(scratch.file("card/take.1-2.#") + "/plate.dpx", {});

  const std::string output = outputOf([&] { EXPECT_TRUE(job->performCopy(nullptr)); });

  EXPECT_THAT(linesOf(output),
              Contains("hash MD5:" + digestByProgram("md5sum", scratch.file("card/take.2/plate.dpx"))));
}

TEST_F(KDXSequenceCopyFailure, TheIndexOfAFrameWithoutAPathIsTold) {
  // The "%" makes text of the directive for the digits. The next one gives a character for 127 and none for 128.
  const auto job = jobOf(scratch.file("card/p%127-128.###.%c.dpx"), {first});

  const PhaseRun phase = copied(*job);

  EXPECT_FALSE(phase.succeeded);
  EXPECT_EQ(startLine() + "ERROR no path for index: 1", phase.output);
}

TEST_F(KDXSequenceCopyFailure, AFailedWriteEndsTheProcessAndNamesTheFolderOfItsDestination) {
  writeFrames();

  const ChildRun ending = endingOf([&] {
    const FileSizeLimit limit(MiB);
    jobTo({first})->performCopy(nullptr);
  });

  EXPECT_EQ(110, ending.exitStatus);
  EXPECT_EQ(startLine() + hashLine(0) + hashLine(1) + failedWritingTo("a"), ending.output);
  EXPECT_EQ((Names{"a/plate.10.dpx.kdxcopy", "a/plate.11.dpx.kdxcopy", "a/plate.9.dpx.kdxcopy", "card/plate.10.dpx",
                   "card/plate.11.dpx", "card/plate.9.dpx"}),
            namesBelow(scratch.path()));
}

TEST_F(KDXSequenceCopyFailure, TheSameCopyWithRoomForEveryByteComesBack) {
  writeFrames();
  const std::string digests = md5Lines();

  const ChildRun ending = endingOf([&] {
    const FileSizeLimit limit(MiB + 5);
    jobTo({first})->performCopy(nullptr);
  });

  EXPECT_EQ(cameBack, ending.exitStatus);
  EXPECT_EQ(startLine() + digests, ending.output);
}

TEST_F(KDXSequenceCopyFailure, AWriteThatFailsForOneOfSeveralDestinationsNamesThatOne) {
  std::string whyNot;
  const auto full = MountedFileSystem::mount("tmpfs", 64 * KiB, whyNot);
  if (!full) GTEST_SKIP() << whyNot;
  writeFrames();
  writeFile(full->file("filler"), mediaBytes(64 * KiB));

  const ChildRun ending = endingOfCopyTo({first, full->file("plate.dpx"), second});

  EXPECT_EQ(110, ending.exitStatus);
  EXPECT_EQ(startLine() + "ERROR: failed writing to " + full->path().string() + "\n", ending.output);
}

// The size check.

class KDXSequenceCopySizeCheck : public SequenceCopyTest {
 protected:
  // A job that has made its copy, whose output is not looked at.
  [[nodiscard]] std::shared_ptr<KDXSequenceCopy> copied(const Names& destinations, int32_t options,
                                                        std::optional<int64_t> given = std::nullopt) const {
    writeFrames();
    auto job = jobTo(destinations);
    job->setVerificationOptions(options);
    job->setExpectedFilesize(given);
    bool isCopied = false;
    std::ignore = outputOf([&] { isCopied = job->performCopy(nullptr); });
    EXPECT_TRUE(isCopied);
    return job;
  }
  [[nodiscard]] std::string finalName(std::size_t index, const std::string& name) const {
    return folder(name + "/" + frameName(index));
  }
  [[nodiscard]] std::string checkedLine(std::size_t index, const std::string& name) const {
    return "Copy completed successfully for destination file with file size check (" + finalName(index, name) + ")\n";
  }
  [[nodiscard]] std::string checkedLines(const std::string& name) const {
    return checkedLine(0, name) + checkedLine(1, name) + checkedLine(2, name);
  }
  [[nodiscard]] std::string uncheckedLines(const std::string& name) const {
    std::string lines;
    for (std::size_t index = 0; index < 3; ++index) {
      lines += "Copy completed successfully for destination file (" + finalName(index, name) + ")\n";
    }
    return lines;
  }
};

// What the phase gave.
struct Check {
  bool passed = false;
  ErrorSlot error;
  std::string output;
};

Check startedVerification(KDXSequenceCopy& job) {
  Check check;
  check.output = outputOf([&] { check.passed = job.startVerification(&check.error); });
  return check;
}

TEST_F(KDXSequenceCopySizeCheck, ReportsEveryFileOfEveryDestinationInOrderUnderItsFinalName) {
  const Check check = startedVerification(*copied({second, first}, hashOnly));

  EXPECT_TRUE(check.passed);
  EXPECT_EQ(std::nullopt, check.error);
  EXPECT_EQ(checkedLines("b") + checkedLines("a"), check.output);
}

TEST_F(KDXSequenceCopySizeCheck, IsMadeWithoutDigestsToo) {
  const Check check = startedVerification(*copied({first}, 0));

  EXPECT_TRUE(check.passed);
  EXPECT_EQ(checkedLines("a"), check.output);
}

TEST_F(KDXSequenceCopySizeCheck, ReportsUncheckedFilesWhenSizesAreSkippedWhateverSizeIsGiven) {
  for (const std::optional<int64_t> given : {std::optional<int64_t>{}, std::optional<int64_t>{7}}) {
    const auto job = copied({first, second}, hashOnly | skipSize, given);
    fs::resize_file(copyOf(0, "a"), 3);

    const Check check = startedVerification(*job);

    EXPECT_TRUE(check.passed);
    EXPECT_EQ(uncheckedLines("a") + uncheckedLines("b"), check.output);
  }
}

TEST_F(KDXSequenceCopySizeCheck, OfMoreThanOneFrameFailsWithAGivenSizeBecauseThatIsOfOneFile) {
  const auto job = copied({first}, hashOnly, 70'001);
  const std::string description = "the expected filesize (70001) is not the number of bytes copied (" + total + ")";

  const Check check = startedVerification(*job);

  EXPECT_FALSE(check.passed);
  ASSERT_TRUE(check.error);
  EXPECT_EQ("KDXCopyErrorDomain", check.error->domain);
  EXPECT_EQ(104, check.error->code);
  EXPECT_EQ(description, check.error->description);
  EXPECT_EQ(description + "\n", check.output);
}

TEST_F(KDXSequenceCopySizeCheck, OfOneFramePassesWithItsSizeGiven) {
  writeFrames();
  const auto job = jobOf(scratch.file("card/plate.9-9.#.dpx"), {first});
  job->setExpectedFilesize(4097);
  std::ignore = outputOf([&] { job->performCopy(nullptr); });

  const Check check = startedVerification(*job);

  EXPECT_TRUE(check.passed);
  EXPECT_EQ(checkedLine(0, "a"), check.output);
}

class KDXSequenceCopyWrongSize : public KDXSequenceCopySizeCheck, public testing::WithParamInterface<uint64_t> {};

TEST_P(KDXSequenceCopyWrongSize, OfAFileFailsAfterItsLineAndLeavesLaterFilesUnchecked) {
  const auto job = copied({first, second}, hashOnly);
  fs::resize_file(copyOf(1, "a"), GetParam());
  // The last number is that of the bytes of all frames: what was copied, not what was found.
  const std::string description =
      "the expected filesize (70001) is not the number of bytes for file " + copyOf(1, "a") + " (" + total + ")";

  const Check check = startedVerification(*job);

  EXPECT_FALSE(check.passed);
  ASSERT_TRUE(check.error);
  EXPECT_EQ("KDXCopyErrorDomain", check.error->domain);
  EXPECT_EQ(104, check.error->code);
  EXPECT_EQ(description, check.error->description);
  EXPECT_EQ(copyOf(1, "a"), check.error->path);
  EXPECT_EQ(checkedLine(0, "a") + checkedLine(1, "a") + description + "\n", check.output);
}

INSTANTIATE_TEST_SUITE_P(Sizes, KDXSequenceCopyWrongSize, testing::Values(0, 70'000, 70'002),
                         testing::PrintToStringParamName());

TEST_F(KDXSequenceCopySizeCheck, FailsForAFileOfALaterDestinationThatIsGone) {
  const auto job = copied({first, second}, hashOnly);
  fs::remove(copyOf(2, "b"));

  const Check check = startedVerification(*job);

  EXPECT_FALSE(check.passed);
  ASSERT_TRUE(check.error);
  EXPECT_EQ(copyOf(2, "b"), check.error->path);
  EXPECT_EQ(checkedLines("a") + checkedLines("b") + check.error->description.value_or("") + "\n", check.output);
}

TEST_F(KDXSequenceCopySizeCheck, FindsAWriteThatWasShort) {
  writeFrames();
  fs::resize_file(frame(2), MiB - 1);
  const auto job = jobTo({first});
  bool copied = false;

  std::ignore = outputOf([&] {
    const FileSizeLimit limit(512 * KiB);
    copied = job->performCopy(nullptr);
  });
  const Check check = startedVerification(*job);

  EXPECT_TRUE(copied);
  EXPECT_EQ(512 * KiB, fs::file_size(copyOf(2, "a")));
  EXPECT_FALSE(check.passed);
  ASSERT_TRUE(check.error);
  EXPECT_EQ(104, check.error->code);
  EXPECT_EQ(copyOf(2, "a"), check.error->path);
}

TEST_F(KDXSequenceCopySizeCheck, FailsWithoutAPlaceForTheErrorTooAndPrintsNoDescriptionItself) {
  const auto wrongTotal = copied({}, hashOnly, 7);
  const auto wrongFile = copied({first}, hashOnly);
  fs::resize_file(copyOf(2, "a"), 1);
  bool passedTotal = true;
  bool passedFile = true;
  bool started = true;

  const std::string ofTotal = outputOf([&] { passedTotal = wrongTotal->performFileSizeCheck(nullptr); });
  const std::string ofFile = outputOf([&] { passedFile = wrongFile->performFileSizeCheck(nullptr); });
  std::ignore = outputOf([&] { started = wrongFile->startVerification(nullptr); });

  EXPECT_FALSE(passedTotal);
  EXPECT_EQ("", ofTotal);
  EXPECT_FALSE(passedFile);
  EXPECT_EQ(checkedLines("a"), ofFile);
  EXPECT_FALSE(started);
}

TEST_F(KDXSequenceCopySizeCheck, OfADestinationWithAnotherNumberOfFilesEndsTheProcess) {
  writeFrames();

  const ChildRun ending = endingOf([&] {
    const auto job = jobTo({});
    job->performCopy(nullptr);
    // Too late for the copy: it has none of the files.
    job->addDestinationURL(FileURL(first));
    job->performFileSizeCheck(nullptr);
  });

  EXPECT_EQ(1, ending.exitStatus);
  EXPECT_EQ(startLine() + md5Lines() + "unequal number of files 0 3 (null)\n", ending.output);
}

TEST_F(KDXSequenceCopySizeCheck, OfNoFramesPassesAndPrintsNothing) {
  const auto job = jobOf(scratch.file("card/plate.5-4_#.dpx"), {first});
  std::ignore = outputOf([&] { job->performCopy(nullptr); });

  const Check check = startedVerification(*job);

  EXPECT_TRUE(check.passed);
  EXPECT_EQ("", check.output);
}

class KDXSequenceCopyOptionsThatReadBack : public KDXSequenceCopySizeCheck,
                                           public testing::WithParamInterface<int32_t> {};

TEST_P(KDXSequenceCopyOptionsThatReadBack, MakeNoSizeCheck) {
  const auto job = copied({first}, GetParam(), 7);
  fs::resize_file(copyOf(0, "a"), 3);

  const PhaseRun phase = runPhase([&](platform::ErrorPlace error) { return job->performFileSizeCheck(error); });

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(std::nullopt, phase.error);
  EXPECT_EQ("", phase.output);
}

INSTANTIATE_TEST_SUITE_P(Options, KDXSequenceCopyOptionsThatReadBack, testing::Values(4, 6, 8, 10, 14),
                         testing::PrintToStringParamName());

}  // namespace
