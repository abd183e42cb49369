// How the copy job of a numbered sequence proves its copy: the external hash and reading back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <tuple>

#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/KDXSequenceCopy.h"
#include "tests/support/ExpectedText.h"
#include "tests/support/OutputLines.h"
#include "tests/support/PhaseRun.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using platform::FileURL;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::MatchesRegex;

namespace {

namespace fs = std::filesystem;
using ErrorSlot = std::optional<platform::Error>;
using Names = std::vector<std::string>;
using Lines = std::vector<std::string>;

constexpr int32_t hashOnly = KDXVerificationOptionHashDuringCopy;
constexpr int32_t sourceBit = hashOnly | KDXVerificationOptionVerifySource;
constexpr int32_t destinationsBit = hashOnly | KDXVerificationOptionVerifyDestinations;
constexpr int32_t allReadBacks = sourceBit | destinationsBit;

// A card with frames 9 to 11; frame 11 does not fit the reader's buffer.
class SequenceVerificationTest : public testing::Test {
 protected:
  SequenceVerificationTest() {
    ::setenv("XDG_CONFIG_HOME", settings.path().c_str(), 1);
    for (std::size_t index = 0; index < contents.size(); ++index) writeFile(frame(index), contents[index]);
  }

  [[nodiscard]] static std::string frameName(std::size_t index) {
    return "plate." + std::to_string(9 + index) + ".dpx";
  }
  [[nodiscard]] std::string frame(std::size_t index) const { return scratch.file("card/" + frameName(index)); }
  [[nodiscard]] std::string finalName(std::size_t index, const std::string& name) const {
    return folder(name + "/" + frameName(index));
  }
  [[nodiscard]] std::string copyOf(std::size_t index, const std::string& name) const {
    return finalName(index, name) + ".kdxcopy";
  }
  [[nodiscard]] std::string folder(const std::string& name) const { return (scratch.path() / name).string(); }

  [[nodiscard]] std::shared_ptr<KDXSequenceCopy> jobTo(const Names& destinations, int32_t options,
                                                       uint32_t algorithm = KDXDigestAlgorithmMD5) const {
    auto job = KDXSequenceCopy::initWithFileSequence(KDXFileSequence::initWithIdentifier(identifier));
    for (const std::string& destination : destinations) job->addDestinationURL(FileURL(destination));
    job->setDigestAlgorithm(algorithm);
    job->setVerificationOptions(options);
    return job;
  }
  // A job that has made its copy, whose output is not looked at.
  [[nodiscard]] std::shared_ptr<KDXSequenceCopy> copied(const Names& destinations, int32_t options,
                                                        bool verbose = false) const {
    auto job = jobTo(destinations, options);
    makeCopy(*job);
    job->setVerbose(verbose);
    return job;
  }
  static void makeCopy(KDXSequenceCopy& job) {
    bool isCopied = false;
    std::ignore = outputOf([&] { isCopied = job.performCopy(nullptr); });
    EXPECT_TRUE(isCopied);
  }

  // What a program of the system tells of a text.
  [[nodiscard]] std::string digestOf(const std::string& text, const std::string& program) const {
    writeFile(settings.file("text"), text);
    return digestByProgram(program, settings.file("text"));
  }
  // The texts that it tells of the frames, joined.
  [[nodiscard]] std::string joined(const std::string& program) const {
    std::string text;
    for (std::size_t index = 0; index < contents.size(); ++index) text += digestByProgram(program, frame(index));
    return text;
  }

  // The lines of a list that is read back.
  [[nodiscard]] std::string resultLine(const std::string& kind, std::size_t index, int number, const std::string& name,
                                       const std::string& result = "ok") const {
    return "verify of " + kind + " file " + std::to_string(index + 1) + " of 3 of sequence #" + std::to_string(number) +
           " (" + finalName(index, name) + ") " + result + ".";
  }
  [[nodiscard]] std::string listLine(const std::string& name) const { return "INFO: verifying " + folder(name); }
  [[nodiscard]] Lines goodList(const std::string& kind, int number, const std::string& name) const {
    return {listLine(name), resultLine(kind, 0, number, name), resultLine(kind, 1, number, name),
            resultLine(kind, 2, number, name)};
  }

  const ScratchDirectory settings;
  const ScratchDirectory scratch;
  const std::string identifier = scratch.file("card/plate.9-11.#.dpx");
  const std::string first = scratch.file("a/plate.dpx");
  const std::string second = scratch.file("b/plate.dpx");
  const Names contents = {mediaBytes(4097, 1), mediaBytes(70'001, 2), mediaBytes(MiB + 5, 3)};
  const std::string total = std::to_string(4097 + 70'001 + MiB + 5);
};

// What the two phases gave.
struct Verification {
  bool started = false;
  bool finished = false;
  ErrorSlot startError;
  ErrorSlot finishError;
  Lines lines;
};

// Finishes whatever the start returned: a list that has failed by then makes it false. A machine that is busy for half a
// second adds lines of progress, which are left out.
std::unique_ptr<Verification> verify(KDXSequenceCopy& job) {
  auto verification = std::make_unique<Verification>();
  verification->lines = linesOf(outputOf([&] {
    verification->started = job.startVerification(&verification->startError);
    verification->finished = job.finishVerification(&verification->finishError);
  }));
  std::erase_if(verification->lines, [](const std::string& line) { return line.starts_with("INFO: verified "); });
  return verification;
}

// The external hash.

// A hash of the sequence whose frames were digested by one program and the joined texts of those by another.
struct ExternalHash : NamedRow {
  uint32_t algorithmOfJob;
  const char* method;
  const char* ofFrames;
  const char* ofJoinedTexts;
  bool isAccepted;
};

class KDXSequenceCopyExternalHash : public SequenceVerificationTest, public testing::WithParamInterface<ExternalHash> {
 protected:
  void expectOutcome(const std::string& hash) const {
    const auto job = jobTo({first}, allReadBacks, GetParam().algorithmOfJob);
    job->setExternalHash(hash);
    makeCopy(*job);
    ErrorSlot error;
    bool accepted = false;
    bool acceptedWithoutPlace = false;

    const std::string output = outputOf([&] { accepted = job->performExternalHashVerification(&error); });
    std::ignore = outputOf([&] { acceptedWithoutPlace = job->performExternalHashVerification(nullptr); });

    EXPECT_EQ(GetParam().isAccepted, accepted) << hash;
    EXPECT_EQ(GetParam().isAccepted, acceptedWithoutPlace) << hash;
    if (GetParam().isAccepted) {
      EXPECT_EQ("", output);
      EXPECT_EQ(std::nullopt, error);
    } else {
      ASSERT_TRUE(error);
      EXPECT_EQ(103, error->code);
      EXPECT_EQ(error->description.value_or("") + "\n", output);
    }
  }
};

TEST_P(KDXSequenceCopyExternalHash, IsThatOfTheSequenceOrTheOneInTheOtherByteOrderInEitherLetterCase) {
  const ExternalHash& row = GetParam();
  const std::string digits = digestOf(joined(row.ofFrames), row.ofJoinedTexts);

  expectOutcome(row.method + (":" + digits));
  expectOutcome(row.method + (":" + inCapitals(digits)));
}

constexpr const char* md5 = "md5sum";
constexpr const char* sha1 = "sha1sum";
constexpr const char* bigEndian = "xxh64sum";
constexpr const char* littleEndian = "xxh64sum --little-endian";

INSTANTIATE_TEST_SUITE_P(
    Hashes, KDXSequenceCopyExternalHash,
    testing::Values(
        // In the algorithm of the job, and in others.
        ExternalHash{"MD5", 2, "MD5", md5, md5, true}, ExternalHash{"SHA1OfAnSHA1Job", 1, "SHA1", sha1, sha1, true},
        ExternalHash{"XXHash64BEOfAnXXHash64BEJob", 16, "XXHash64BE", bigEndian, bigEndian, true},
        ExternalHash{"SHA1", 2, "SHA1", sha1, sha1, true},
        ExternalHash{"XXHash64", 2, "XXHash64", littleEndian, littleEndian, true},
        ExternalHash{"XXHash64BE", 2, "XXHash64BE", bigEndian, bigEndian, true},
        ExternalHash{"XXHash64OfAnXXHash64BEJob", 16, "XXHash64", littleEndian, littleEndian, true},
        // The frames in the other byte order.
        ExternalHash{"XXHash64BEOverXXHash64", 2, "XXHash64BE", littleEndian, bigEndian, true},
        ExternalHash{"XXHash64BEOverXXHash64OfAnSHA1Job", 1, "XXHash64BE", littleEndian, bigEndian, true},
        ExternalHash{"XXHash64OverXXHash64BE", 2, "XXHash64", bigEndian, littleEndian, true},
        // The other form is made in the algorithm of the job where that has two byte orders.
        ExternalHash{"XXHash64OverXXHash64BEOfAnXXHash64BEJob", 16, "XXHash64", bigEndian, littleEndian, false},
        ExternalHash{"XXHash64BEOverXXHash64OfAnXXHash64Job", 8, "XXHash64BE", littleEndian, bigEndian, false},
        // No other form is made for a hash in the algorithm of the job, nor for algorithms with one byte order.
        ExternalHash{"XXHash64BEOverXXHash64OfAnXXHash64BEJob", 16, "XXHash64BE", littleEndian, bigEndian, false},
        ExternalHash{"MD5OverSHA1", 2, "MD5", sha1, md5, false},
        ExternalHash{"SHA1OverXXHash64", 2, "SHA1", littleEndian, sha1, false}),
    testing::PrintToStringParamName());

class KDXSequenceCopyExternalHashPhase : public SequenceVerificationTest {};

TEST_F(KDXSequenceCopyExternalHashPhase, FailsForAHashThatDiffersWithItsLineTwice) {
  const auto job = jobTo({first}, allReadBacks);
  job->setExternalHash("XXHash64BE:0123456789abcdef");
  makeCopy(*job);

  const PhaseRun phase = runPhase([&](platform::ErrorPlace error) { return job->startVerification(error); });

  EXPECT_FALSE(phase.succeeded);
  ASSERT_TRUE(phase.error);
  EXPECT_EQ("KDXCopyErrorDomain", phase.error->domain);
  EXPECT_EQ(103, phase.error->code);
  const std::string description = "INFO: external hash: XXHash64BE:0123456789abcdef but got hash: XXHash64BE:" +
                                  digestOf(joined(bigEndian), bigEndian) + ".";
  EXPECT_EQ(description, phase.error->description);
  EXPECT_EQ(description + "\n" + description + "\n", phase.output);
}

TEST_F(KDXSequenceCopyExternalHashPhase, GoesOnToReadBackWithTheOtherFormOfTheHash) {
  const auto job = jobTo({first}, allReadBacks);
  job->setExternalHash("XXHash64BE:" + digestOf(joined(littleEndian), bigEndian));
  makeCopy(*job);

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_TRUE(run->finished);
  expectSideBySide({{listLine("a")}, {listLine("card")}}, run->lines);
}

TEST_F(KDXSequenceCopyExternalHashPhase, ComesAfterTheSizeCheck) {
  const auto job = jobTo({first}, hashOnly);
  job->setExternalHash("MD5:wrong");
  makeCopy(*job);
  fs::resize_file(copyOf(0, "a"), 1);

  const auto run = verify(*job);

  EXPECT_FALSE(run->started);
  ASSERT_TRUE(run->startError);
  EXPECT_EQ(104, run->startError->code);
}

TEST_F(KDXSequenceCopyExternalHashPhase, WithoutDigestsDuringTheCopyComparesWithThatOfNoData) {
  const auto job = jobTo({first}, 0, KDXDigestAlgorithmNone);
  job->setExternalHash("SHA1:" + digestOf(joined(sha1), sha1));
  makeCopy(*job);

  const PhaseRun phase =
      runPhase([&](platform::ErrorPlace error) { return job->performExternalHashVerification(error); });

  EXPECT_FALSE(phase.succeeded);
  ASSERT_TRUE(phase.error);
  EXPECT_TRUE(phase.error->description.value_or("").ends_with("SHA1:da39a3ee5e6b4b0d3255bfef95601890afd80709."));
}

TEST_F(KDXSequenceCopyExternalHashPhase, OfATextThatIsNoHashEndsTheProcessBeforeAnyFileIsRead) {
  const ChildRun ending = endingOf([&] {
    const auto job = jobTo({first}, hashOnly);
    job->setExternalHash("0123456789abcdef");
    job->performCopy(nullptr);
  });

  EXPECT_EQ(1, ending.exitStatus);
  EXPECT_EQ("INFO: copying " + folder("card") + "...\ninvalid external hash string: 0123456789abcdef\n", ending.output);
  EXPECT_EQ((Names{"card/plate.10.dpx", "card/plate.11.dpx", "card/plate.9.dpx"}), namesBelow(scratch.path()));
}

// Reading back.

class KDXSequenceCopyReadBack : public SequenceVerificationTest {
 protected:
  [[nodiscard]] static auto speed() {
    // A sequence has no single source whose size could be told.
    return MatchesRegex("INFO: verification speed 0 bytes in [0-9]+\\.[0-9]{5} sec \\([0-9]+\\.[0-9] MB/sec\\)");
  }
};

class KDXSequenceCopyOptionsOfReadBack : public KDXSequenceCopyReadBack, public testing::WithParamInterface<int32_t> {};

TEST_P(KDXSequenceCopyOptionsOfReadBack, ReadTheSourceAndEveryDestinationBackWithTheBitOfTheSource) {
  const auto job = copied({first, second}, GetParam(), true);

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_TRUE(run->finished);
  EXPECT_EQ(std::nullopt, run->startError);
  EXPECT_EQ(std::nullopt, run->finishError);
  ASSERT_FALSE(run->lines.empty());
  EXPECT_THAT(run->lines.back(), speed());
  run->lines.pop_back();
  expectSideBySide({goodList("destination", 1, "a"), goodList("destination", 2, "b"), goodList("source", 3, "card")},
                   run->lines);
}

INSTANTIATE_TEST_SUITE_P(Options, KDXSequenceCopyOptionsOfReadBack, testing::Values(sourceBit, allReadBacks),
                         testing::PrintToStringParamName());

TEST_F(KDXSequenceCopyReadBack, WithTheBitOfTheDestinationsAloneReadsNothing) {
  const auto job = copied({first}, destinationsBit);
  damageFile(copyOf(1, "a"), 1);

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_TRUE(run->finished);
  EXPECT_THAT(run->lines, ElementsAre());
}

TEST_F(KDXSequenceCopyReadBack, OfAQuietJobPrintsOneLineForEachList) {
  const auto run = verify(*copied({first, second}, allReadBacks));

  EXPECT_TRUE(run->finished);
  expectSideBySide({{listLine("a")}, {listLine("b")}, {listLine("card")}}, run->lines);
}

TEST_F(KDXSequenceCopyReadBack, WithoutDestinationsReadsTheSourceAsTheFirstList) {
  const auto run = verify(*copied({}, allReadBacks, true));

  EXPECT_TRUE(run->finished);
  ASSERT_FALSE(run->lines.empty());
  run->lines.pop_back();
  expectSideBySide({goodList("source", 1, "card")}, run->lines);
}

TEST_F(KDXSequenceCopyReadBack, OfNoFramesPassesAndPrintsNothing) {
  const auto job =
      KDXSequenceCopy::initWithFileSequence(KDXFileSequence::initWithIdentifier(scratch.file("card/plate.5-4_#.dpx")));
  job->addDestinationURL(FileURL(first));
  job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
  job->setVerificationOptions(allReadBacks);
  makeCopy(*job);

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_TRUE(run->finished);
  EXPECT_THAT(run->lines, ElementsAre());
}

class KDXSequenceCopyDamage : public KDXSequenceCopyReadBack, public testing::WithParamInterface<bool> {};

TEST_P(KDXSequenceCopyDamage, OfTheSecondFileOfTheSecondDestinationIsReportedAndTheThirdIsStillRead) {
  const bool verbose = GetParam();
  const auto job = copied({first, second}, allReadBacks, verbose);
  damageFile(copyOf(1, "b"), 69'999);

  const auto run = verify(*job);

  EXPECT_FALSE(run->finished);
  // Nothing is ever put into the place of the start.
  EXPECT_EQ(std::nullopt, run->startError);
  ASSERT_TRUE(run->finishError);
  EXPECT_EQ("KDXCopyErrorDomain", run->finishError->domain);
  EXPECT_EQ(105, run->finishError->code);
  EXPECT_EQ("verification failed: " + copyOf(1, "b"), run->finishError->description);
  EXPECT_EQ(copyOf(1, "b"), run->finishError->path);
  const std::string failure = resultLine("destination", 1, 2, "b", "failed");
  if (verbose) {
    expectSideBySide(
        {goodList("destination", 1, "a"),
         {listLine("b"), resultLine("destination", 0, 2, "b"), failure, resultLine("destination", 2, 2, "b")},
         goodList("source", 3, "card")},
        run->lines);
  } else {
    expectSideBySide({{listLine("a")}, {listLine("b"), failure}, {listLine("card")}}, run->lines);
  }
}

INSTANTIATE_TEST_SUITE_P(Verbose, KDXSequenceCopyDamage, testing::Bool(), testing::PrintToStringParamName());

TEST_F(KDXSequenceCopyReadBack, OfADamagedSourceReportsIt) {
  const auto job = copied({first, second}, allReadBacks);
  damageFile(frame(2), MiB + 4);

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_FALSE(run->finished);
  EXPECT_EQ(std::nullopt, run->startError);
  ASSERT_TRUE(run->finishError);
  EXPECT_EQ(121, run->finishError->code);
  EXPECT_EQ("verification failed: " + frame(2), run->finishError->description);
  expectSideBySide({{listLine("a")}, {listLine("b")}, {listLine("card"), resultLine("source", 2, 3, "card", "failed")}},
                   run->lines);
}

TEST_F(KDXSequenceCopyReadBack, OfDamagedFilesFailsWithoutPlacesForErrorsToo) {
  const auto job = copied({first}, allReadBacks);
  damageFile(copyOf(0, "a"), 0);
  damageFile(frame(0), 1);
  bool finished = true;

  std::ignore = outputOf([&] {
    job->startVerification(nullptr);
    finished = job->finishVerification(nullptr);
  });

  EXPECT_FALSE(finished);
}

TEST_F(KDXSequenceCopyReadBack, FindsTwoFramesThatChangedPlaces) {
  const auto job = copied({first}, allReadBacks);
  fs::rename(copyOf(0, "a"), folder("kept"));
  fs::rename(copyOf(1, "a"), copyOf(0, "a"));
  fs::rename(folder("kept"), copyOf(1, "a"));

  const auto run = verify(*job);

  EXPECT_FALSE(run->finished);
  expectSideBySide(
      {{listLine("a"), resultLine("destination", 0, 1, "a", "failed"), resultLine("destination", 1, 1, "a", "failed")},
       {listLine("card")}},
      run->lines);
}

TEST_F(KDXSequenceCopyReadBack, TakesAFailedReadForADifference) {
  const auto job = copied({first}, allReadBacks);
  fs::remove(copyOf(1, "a"));
  fs::create_directory(copyOf(1, "a"));

  const auto run = verify(*job);

  EXPECT_FALSE(run->finished);
  ASSERT_TRUE(run->finishError);
  EXPECT_EQ(105, run->finishError->code);
  EXPECT_THAT(run->lines, Contains(resultLine("destination", 1, 1, "a", "failed")));
}

TEST_F(KDXSequenceCopyReadBack, OfAFileThatIsGoneEndsTheProcess) {
  const ChildRun ending = endingOf([&] {
    const auto job = jobTo({first}, allReadBacks);
    job->performCopy(nullptr);
    fs::remove(copyOf(2, "a"));
    job->startVerification(nullptr);
    job->finishVerification(nullptr);
  });

  EXPECT_EQ(108, ending.exitStatus);
  EXPECT_THAT(linesOf(ending.output), Contains("ERROR: could not open file at path: " + copyOf(2, "a")));
}

TEST_F(KDXSequenceCopyReadBack, WithoutDigestsReadsNoListAndSaysSoForEach) {
  const auto job = copied({first, second}, KDXVerificationOptionVerifySource);

  const auto run = verify(*job);

  EXPECT_TRUE(run->finished);
  const std::string line = "verifying 3 files have 0 source digests";
  EXPECT_THAT(run->lines, ElementsAre(line, line, line));
}

TEST_F(KDXSequenceCopyReadBack, TakesAReadThatFailsBehindTheLastByteForADifference) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  // One whole buffer: the second read is the one that would find the end.
  writeFile(frame(1), mediaBytes(MiB));

  const ToolRun run = runTool(
      {.arguments = {"-s", identifier, first}, .wrapper = injectingAt(copyOf(1, "a"), {"read:error=EIO:when=2"})});

  EXPECT_EQ(105, run.exitStatus) << run.output << run.errors;
  EXPECT_THAT(run.lines(), Contains(resultLine("destination", 1, 1, "a", "failed")));
  EXPECT_FALSE(fs::exists(finalName(1, "a")));
}

TEST_F(KDXSequenceCopyReadBack, OfAVerboseJobReportsItsProgressWhenHalfASecondHasPassed) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;

  // Only the read-back reads the destination.
  const ToolRun run = runTool({.arguments = {"-s", "-v", identifier, first},
                               .wrapper = injectingAt(copyOf(1, "a"), {"read:delay_exit=600000:when=1"})});

  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(run.lines(), Contains("INFO: verified " + std::to_string(4097 + 70'001) + " of " + total +
                                    " bytes of path " + folder("a")));
}

// One list.

struct LoggingIndex : NamedRow {
  int64_t index;
  const char* kind;
  int number;
  int64_t code;
};

class KDXSequenceCopyLoggingIndex : public SequenceVerificationTest,
                                    public testing::WithParamInterface<LoggingIndex> {};

TEST_P(KDXSequenceCopyLoggingIndex, TellsTheKindOfTheListItsNumberAndTheCodeOfItsFailure) {
  const auto& row = GetParam();
  const auto job = copied({first}, hashOnly, true);
  damageFile(copyOf(1, "a"), 1);
  ErrorSlot error = copyError(42, "earlier");
  ErrorSlot recorded;
  bool passed = true;

  Lines lines =
      linesOf(outputOf([&] { passed = job->verifyFiles(job->destinationSequencePaths().front(), row.index, &error); }));
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("INFO: verified "); });

  EXPECT_FALSE(passed);
  EXPECT_THAT(
      lines, ElementsAre(listLine("a"), resultLine(row.kind, 0, row.number, "a"),
                         resultLine(row.kind, 1, row.number, "a", "failed"), resultLine(row.kind, 2, row.number, "a")));
  ASSERT_TRUE(error);
  EXPECT_EQ(42, error->code);
  EXPECT_FALSE(job->finishVerification(&recorded));
  ASSERT_TRUE(recorded);
  EXPECT_EQ(row.code, recorded->code);
}

INSTANTIATE_TEST_SUITE_P(Numbers, KDXSequenceCopyLoggingIndex,
                         testing::Values(LoggingIndex{"TheFirstDestination", 1, "destination", 1, 105},
                                         LoggingIndex{"TheSixteenthDestination", 16, "destination", 16, 105},
                                         LoggingIndex{"TheSourceWithoutDestinations", ~0, "source", 1, 121},
                                         LoggingIndex{"TheSourceOfTwoDestinations", ~2, "source", 3, 121}),
                         testing::PrintToStringParamName());

class KDXSequenceCopyList : public SequenceVerificationTest {};

TEST_F(KDXSequenceCopyList, OfGoodFilesPassesWithAPlaceForTheErrorAndWithout) {
  const auto job = copied({first}, hashOnly);
  ErrorSlot error;
  bool passed = false;
  bool passedWithoutPlace = false;

  const std::string output = outputOf([&] { passed = job->verifyFiles(job->sourcePaths(), ~1, &error); });
  std::ignore = outputOf([&] { passedWithoutPlace = job->verifyFiles(job->sourcePaths(), ~1, nullptr); });

  EXPECT_TRUE(passed);
  EXPECT_TRUE(passedWithoutPlace);
  EXPECT_EQ(std::nullopt, error);
  EXPECT_EQ(listLine("card") + "\n", output);
}

class KDXSequenceCopyLengthOfList : public SequenceVerificationTest, public testing::WithParamInterface<std::size_t> {};

TEST_F(KDXSequenceCopyList, OfADestinationThatWasCopiedToTwiceEndsTheProcessAndNamesItsFirstFile) {
  // The second copy lists the source once more behind the first list, and reads both.
  const ChildRun ending = endingOf([&] {
    const auto job = jobTo({first}, hashOnly | KDXVerificationOptionSkipFileSizeCheck);
    makeCopy(*job);
    makeCopy(*job);
    job->performFileSizeCheck(nullptr);
  });

  EXPECT_EQ(1, ending.exitStatus);
  EXPECT_THAT(ending.output, EndsWith("unequal number of files 9 3 " + copyOf(0, "a") + "\n"));
}

TEST_P(KDXSequenceCopyLengthOfList, ThatIsNotThatOfTheDigestsIsReportedAndNothingIsReadOrRecorded) {
  const auto job = copied({first}, hashOnly);
  // Reading it would end the process.
  const std::vector<FileURL> files(GetParam(), FileURL(folder("missing.dpx")));
  ErrorSlot error;
  bool passed = true;
  bool finished = false;

  const std::string output = outputOf([&] { passed = job->verifyFiles(files, 1, &error); });
  std::ignore = outputOf([&] { finished = job->finishVerification(nullptr); });

  EXPECT_FALSE(passed);
  EXPECT_EQ("verifying " + std::to_string(GetParam()) + " files have 3 source digests\n", output);
  EXPECT_EQ(std::nullopt, error);
  EXPECT_TRUE(finished);
}

INSTANTIATE_TEST_SUITE_P(Files, KDXSequenceCopyLengthOfList, testing::Values(0, 2, 4),
                         testing::PrintToStringParamName());

TEST_F(KDXSequenceCopyList, NamesASourceThatEndsLikeATemporaryFileWithoutThatEnding) {
  writeFile(scratch.file("card/take.1_kdxcopy"), "take");
  const auto job = KDXSequenceCopy::initWithFileSequence(
      KDXFileSequence::initWithIdentifier(scratch.file("card/take.1-1.#_kdxcopy")));
  job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
  job->setVerificationOptions(hashOnly);
  makeCopy(*job);
  job->setVerbose(true);

  const std::string output = outputOf([&] { job->verifyFiles(job->sourcePaths(), ~0, nullptr); });

  EXPECT_EQ(listLine("card") + "\nverify of source file 1 of 1 of sequence #1 (" + folder("card/take") + ") ok.\n",
            output);
}

}  // namespace
