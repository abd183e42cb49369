#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/FrontEnd.h"
#include "KDXFileTools/kdxdispatchcopy/KDXSequenceCopy.h"
#include "platform/Process.h"
#include "tests/support/Captured.h"
#include "tests/support/ClipOffload.h"
#include "tests/support/ParsedLine.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using platform::Error;
using platform::FileURL;
using Words = std::vector<std::string>;

// Exit statuses

struct Code : NamedRow {
  std::optional<int64_t> code;
  int status;
  int reported;  // by the system
};

class ExitStatusOf : public testing::TestWithParam<Code> {
 protected:
  static std::optional<Error> error() {
    if (!GetParam().code) return std::nullopt;
    return Error{
        .domain = "KDXCopyErrorDomain", .code = *GetParam().code, .description = std::nullopt, .path = std::nullopt};
  }
};

using ExitStatusDeathTest = ExitStatusOf;

TEST_P(ExitStatusOf, IsTheRemainderOfTheCodeWithItsSignAndOneForZero) {
  EXPECT_EQ(GetParam().status, exitStatusOf(error()));
}

TEST_P(ExitStatusDeathTest, IsWhatTheSystemReports) {
  EXPECT_EXIT(platform::endProcess(exitStatusOf(error())), testing::ExitedWithCode(GetParam().reported), "");
}

const auto codes = testing::Values(
    Code{"NoError", std::nullopt, 1, 1}, Code{"Zero", 0, 1, 1}, Code{"Three", 3, 3, 3},
    Code{"ExternalHashDiffers", 103, 103, 103}, Code{"VerificationFailed", 121, 121, 121},
    Code{"TheLargestStatus", 255, 255, 255}, Code{"ARoundCode", 256, 1, 1}, Code{"OneMoreThanARoundCode", 257, 1, 1},
    Code{"TwoMoreThanARoundCode", 258, 2, 2}, Code{"AMultiple", 51'200, 1, 1}, Code{"Large", 51'203, 3, 3},
    Code{"MinusOne", -1, -1, 255}, Code{"MinusThree", -3, -3, 253}, Code{"ANegativeRoundCode", -256, 1, 1},
    Code{"ANegativeMultiple", -51'200, 1, 1}, Code{"BelowANegativeRoundCode", -257, -1, 255},
    Code{"TheLargestOf32Bits", 2'147'483'647, 255, 255}, Code{"TheSmallestOf32Bits", -2'147'483'648LL, 1, 1},
    // Beyond 32 bits: the lower ones count, the highest of them as the sign.
    Code{"TheSignBitOf32", 2'147'483'648LL, 1, 1}, Code{"ALittleBeyondTheSignBit", 2'147'483'651LL, -253, 3},
    Code{"AllBitsOf32", 4'294'967'295LL, -1, 255}, Code{"JustBeyond32Bits", 4'294'967'296LL, 1, 1},
    Code{"FiveBeyond32Bits", 4'294'967'301LL, 5, 5}, Code{"Largest", std::numeric_limits<int64_t>::max(), -1, 255},
    Code{"Smallest", std::numeric_limits<int64_t>::min(), 1, 1});

INSTANTIATE_TEST_SUITE_P(FrontEnd, ExitStatusOf, codes, rowName);
INSTANTIATE_TEST_SUITE_P(FrontEnd, ExitStatusDeathTest, codes, rowName);

// From the command line to the job

struct Refused : NamedRow {
  Words words;
  std::string line;
};

const std::string usageLine = "kdxdispatchcopy: " + std::string(usage) + "\n";

class RefusedCommandLine : public testing::TestWithParam<Refused> {};

TEST_P(RefusedCommandLine, GivesNoJobAndALineThatSaysWhy) {
  const Captured output(STDOUT_FILENO);
  EXPECT_EQ(nullptr, makeJob(parsedLine(GetParam().words)));
  EXPECT_EQ(GetParam().line + "\n", output.text());
}

TEST_P(RefusedCommandLine, EndsAProcessWithStatusOneAfterBothLines) {
  const ToolRun run = runTool(GetParam().words);
  EXPECT_EQ(1, run.exitStatus);
  EXPECT_EQ(GetParam().line + "\ninvalid arguments\n", run.output);
  EXPECT_EQ(usageLine, run.errors);
}

INSTANTIATE_TEST_SUITE_P(
    FrontEnd, RefusedCommandLine,
    testing::Values(
        Refused{"NeitherSourceNorDestination", {}, "no destination specified"},
        Refused{"OnlyOptions", {"-v", "-k"}, "no destination specified"},
        Refused{"NoDestination", {"/card/clip.mov"}, "no destination specified"},
        Refused{"TheOnlyDestinationIsNoText", {"/card/clip.mov", "/\xff"}, "no destination specified"},
        Refused{"PathsBehindTwoDashesOnly", {"--", "/card/clip.mov", "/a/clip.mov"}, "no destination specified"},
        Refused{"NoDestinationForASequence", {"-s"}, "no destination specified"},
        Refused{"NoSource", {"-j"}, "no source specified"},
        Refused{"TheSourceIsNoText", {"/\xff", "/a/clip.mov"}, "no source specified"},
        Refused{"ASequenceBehindItsSource",
                {"/card/clip.dpx", "-s", "/a/frames"},
                "is sequence but could not get input sequence"},
        Refused{"ASequenceOptionAtTheEnd",
                {"/card/clip.dpx", "/a/frames", "-s"},
                "is sequence but could not get input sequence"},
        Refused{"ASequenceWithoutPaths", {"-s", "-j"}, "is sequence but could not get input sequence"},
        Refused{"ASequenceThatIsNoText", {"-s", "/\xff", "/a/frames"}, "is sequence but could not get input sequence"},
        Refused{"ASequenceThatIsNoTextButHasHashes",
                {"-s", "/\xff.1-2_##", "/a/frames"},
                "is sequence but could not get input sequence"},
        // The line of the identifier comes while the command line is parsed, so before all others.
        Refused{"ASequenceWithoutHashes",
                {"-s", "/card/clip.dpx", "/a/frames"},
                "ERROR: Wrong arguments - missing hashes in identifier.\nis sequence but could not get input sequence"},
        Refused{"ASequenceWithoutHashesAndWithoutDestination",
                {"-s", "/card/clip.dpx"},
                "ERROR: Wrong arguments - missing hashes in identifier.\nno destination specified"},
        Refused{"ASequenceWithoutHashesThatNeedsNoDestination",
                {"-j", "-s", "/card/clip.dpx"},
                "ERROR: Wrong arguments - missing hashes in identifier.\nis sequence but could not get input sequence"},
        Refused{"ASequenceWithoutHashesAndAnUnknownAlgorithm",
                {"-t", "bogus", "-s", "/card/clip.dpx", "/a/frames"},
                "ERROR: Wrong arguments - missing hashes in identifier.\nis sequence but could not get input sequence"},
        Refused{"ASequenceWithHashesButNoDestination", {"-s", "/card/clip.1-2_##.dpx"}, "no destination specified"},
        Refused{"ASequenceWithAnUnknownAlgorithm",
                {"-t", "bogus", "-s", "/card/clip.1-2_##.dpx", "/a/frames"},
                "invalid digest algorithm bogus"},
        Refused{"AnUnknownAlgorithm", {"-t", "bogus", "/s", "/d"}, "invalid digest algorithm bogus"},
        Refused{
            "AnUnknownAlgorithmWithoutReadBack", {"-k", "-t", "bogus", "/s", "/d"}, "invalid digest algorithm bogus"},
        Refused{"AMethodNameForAnAlgorithm", {"-t", "MD5", "/s", "/d"}, "invalid digest algorithm MD5"},
        Refused{"AnAlgorithmInUpperCase", {"-t", "SHA1", "/s", "/d"}, "invalid digest algorithm SHA1"},
        Refused{"TheLittleEndianHash", {"-t", "xxhash64", "/s", "/d"}, "invalid digest algorithm xxhash64"},
        Refused{"AnAlgorithmAndMore", {"-t", "md5 ", "/s", "/d"}, "invalid digest algorithm md5 "},
        Refused{"AnEmptyAlgorithm", {"-t", "", "/s", "/d"}, "invalid digest algorithm "}),
    rowName);

TEST(FrontEndDeathTest, ARefusedCommandLineEndsTheProcessWithStatusOneAfterBothLines) {
  std::string name = "kdxdispatchcopy";
  char* argv[] = {name.data(), nullptr};
  EXPECT_EXIT(
      {
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
        runFrontEnd(1, argv);
      },
      testing::ExitedWithCode(1), testing::Eq("no destination specified\ninvalid arguments\n" + usageLine));
}

struct Word : NamedRow {
  Words options;
  uint32_t algorithm;
};

class AlgorithmWord : public testing::TestWithParam<Word> {};

TEST_P(AlgorithmWord, GivesTheJobItsAlgorithm) {
  Words words = GetParam().options;
  words.insert(words.end(), {"/s", "/d"});
  const Captured output(STDOUT_FILENO);
  const auto job = makeJob(parsedLine(words));
  ASSERT_NE(nullptr, job);
  EXPECT_EQ(GetParam().algorithm, job->digestAlgorithm());
  EXPECT_EQ("", output.text());
}

INSTANTIATE_TEST_SUITE_P(FrontEnd, AlgorithmWord,
                         testing::Values(Word{"None", {}, 2}, Word{"MD5", {"-t", "md5"}, 2},
                                         Word{"SHA1", {"-t", "sha1"}, 1}, Word{"XXHash64BE", {"-t", "xxhash64be"}, 16},
                                         Word{"SHA1WithoutReadBack", {"-k", "-t", "sha1"}, 1},
                                         Word{"NoDigest", {"-n"}, 0},
                                         Word{"NoDigestWithAWord", {"-n", "-t", "sha1"}, 0},
                                         Word{"NoDigestWithAWordThatIsNone", {"-n", "-t", "bogus"}, 0}),
                         rowName);

TEST(FrontEnd, AJobWithoutOptionsHasTheDefaults) {
  const auto job = makeJob(parsedLine({"/card/clip.mov", "/a/clip.mov"}));
  ASSERT_NE(nullptr, job);
  EXPECT_EQ(FileURL("/card/clip.mov"), job->sourceURL());
  EXPECT_THAT(job->destinationURLs(), ElementsAre(FileURL("/a/clip.mov.kdxcopy")));
  EXPECT_EQ(14, job->verificationOptions());
  EXPECT_FALSE(job->skipVerification());
  EXPECT_FALSE(job->verbose());
  EXPECT_FALSE(job->forceOverwrite());
  EXPECT_FALSE(job->skipFlush());
  EXPECT_FALSE(job->expectedFilesize().has_value());
  EXPECT_FALSE(job->externalHash().has_value());
}

TEST(FrontEnd, AJobHasWhatTheCommandLineAsksFor) {
  const auto job = makeJob(
      parsedLine({"-v", "-f", "-nf", "-k", "-nfs", "-a", "-5", "-e", "SHA1:ff", "/card/clip.mov", "/a/clip.mov"}));
  ASSERT_NE(nullptr, job);
  EXPECT_EQ(18, job->verificationOptions());
  EXPECT_TRUE(job->skipVerification());
  EXPECT_TRUE(job->verbose());
  EXPECT_TRUE(job->forceOverwrite());
  EXPECT_TRUE(job->skipFlush());
  EXPECT_EQ(-5, job->expectedFilesize());
  EXPECT_EQ("SHA1:ff", job->externalHash());
}

TEST(FrontEnd, AJobHasItsDestinationsInTheOrderGivenDuplicatesToo) {
  const auto job = makeJob(parsedLine({"/s", "/z.mov", "/a.mov", "/z.mov"}));
  ASSERT_NE(nullptr, job);
  EXPECT_THAT(job->destinationURLs(),
              ElementsAre(FileURL("/z.mov.kdxcopy"), FileURL("/a.mov.kdxcopy"), FileURL("/z.mov.kdxcopy")));
}

TEST(FrontEnd, AJobNeedsNoDestinationWhenThatIsAskedFor) {
  const auto job = makeJob(parsedLine({"-j", "/card/clip.mov"}));
  ASSERT_NE(nullptr, job);
  EXPECT_THAT(job->destinationURLs(), testing::IsEmpty());
}

TEST(FrontEnd, WhereNoDestinationIsNeededTheOnesGivenAreKept) {
  const auto job = makeJob(parsedLine({"-j", "/card/clip.mov", "/a/clip.mov"}));
  ASSERT_NE(nullptr, job);
  EXPECT_THAT(job->destinationURLs(), ElementsAre(FileURL("/a/clip.mov.kdxcopy")));
}

TEST(FrontEnd, ASequenceGivesASequenceJobWithWhatTheCommandLineAsksFor) {
  const Captured output(STDOUT_FILENO);
  const auto job = std::dynamic_pointer_cast<KDXSequenceCopy>(
      makeJob(parsedLine({"-v", "-f", "-nf", "-k", "-nfs", "-a", "5", "-e", "SHA1:ff", "-t", "xxhash64be", "-s",
                          "/card/clip.1-2_##.dpx", "/b/frames", "/a/frames", "/b/frames"})));
  ASSERT_NE(nullptr, job);
  EXPECT_EQ(std::nullopt, job->sourceURL());
  EXPECT_THAT(job->destinationURLs(),
              ElementsAre(FileURL("/b/frames.kdxcopy"), FileURL("/a/frames.kdxcopy"), FileURL("/b/frames.kdxcopy")));
  EXPECT_EQ(3U, job->destinationSequencePaths().size());
  EXPECT_EQ(18, job->verificationOptions());
  EXPECT_TRUE(job->verbose());
  EXPECT_TRUE(job->forceOverwrite());
  EXPECT_TRUE(job->skipFlush());
  EXPECT_EQ(5, job->expectedFilesize());
  EXPECT_EQ("SHA1:ff", job->externalHash());
  EXPECT_EQ(16U, job->digestAlgorithm());
  EXPECT_EQ("", output.text());
}

TEST(FrontEnd, ASequenceJobNeedsNoDestinationWhenThatIsAskedFor) {
  const auto job =
      std::dynamic_pointer_cast<KDXSequenceCopy>(makeJob(parsedLine({"-j", "-s", "/card/clip.1-2_##.dpx"})));
  ASSERT_NE(nullptr, job);
  EXPECT_THAT(job->destinationURLs(), testing::IsEmpty());
  EXPECT_THAT(job->destinationSequencePaths(), testing::IsEmpty());
}

TEST(FrontEnd, WithoutTheSequenceOptionHashesGiveASingleFileJob) {
  const auto job = makeJob(parsedLine({"/card/clip.1-2_##.dpx", "/a/clip.dpx"}));
  ASSERT_NE(nullptr, job);
  EXPECT_EQ(nullptr, std::dynamic_pointer_cast<KDXSequenceCopy>(job));
  EXPECT_EQ(FileURL("/card/clip.1-2_##.dpx"), job->sourceURL());
}

TEST(FrontEndDeathTest, RunningNoJobIsAFailedAssertion) {
  std::optional<Error> error;
  EXPECT_EXIT(runJob(nullptr, &error), testing::KilledBySignal(SIGABRT),
              HasSubstr("theCopier != nil && @\"copier is nil\""));
}

// The phases

enum class Phase { none, copy, startOfVerification, endOfVerification, move, flush };

// A job that fails in one phase with a given error, or with none, and tells which phases it was driven through.
class FailingJob final : public KDXDispatchCopy {
 public:
  FailingJob(Phase failing, std::optional<Error> error)
      : KDXDispatchCopy(FileURL("/card/clip.mov")), _failing(failing), _failure(std::move(error)) {}

  void logCopyStart() override {}
  bool doTheCopyWork(ErrorPlace error) override { return run("copy", Phase::copy, error); }
  bool startVerification(ErrorPlace error) override {
    if (_failing == Phase::endOfVerification && _failure)
      markAsVerificationFailed(FileURL("/a/clip.mov"), _failure->code);
    return run("verification", Phase::startOfVerification, error);
  }
  bool moveFilesInPlace(ErrorPlace error) override { return run("move", Phase::move, error); }
  bool flushFilesystem(ErrorPlace error) override { return run("flush", Phase::flush, error); }

  std::vector<std::string> phases;

 private:
  bool run(const char* name, Phase phase, ErrorPlace error) {
    phases.emplace_back(name);
    if (phase != _failing) return true;
    return _failure ? platform::fail(error, *_failure) : false;
  }

  Phase _failing;
  std::optional<Error> _failure;
};

Error errorWithCode(int64_t code) {
  return Error{.domain = "KDXCopyErrorDomain", .code = code, .description = "the card is gone", .path = std::nullopt};
}

struct Failure : NamedRow {
  Phase phase;
  int64_t code;
  int status;
  std::vector<std::string> phases;
  std::string output;
  std::string errors;
};

class FailingPhase : public testing::TestWithParam<Failure> {};

TEST_P(FailingPhase, EndsTheRunWithItsLineItsErrorAndItsStatus) {
  const auto job = std::make_shared<FailingJob>(GetParam().phase, errorWithCode(GetParam().code));
  const Captured output(STDOUT_FILENO);
  const Captured errors(STDERR_FILENO);
  std::optional<Error> error;
  EXPECT_EQ(GetParam().status, runJob(job, &error));
  EXPECT_EQ(GetParam().phases, job->phases);
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(GetParam().code, error->code);
  EXPECT_EQ(GetParam().output, output.text());
  EXPECT_EQ(GetParam().errors, errors.text());
}

INSTANTIATE_TEST_SUITE_P(
    FrontEnd, FailingPhase,
    testing::Values(Failure{"TheCopy",
                            Phase::copy,
                            109,
                            109,
                            {"copy"},
                            "failed to perform copy\n",
                            "kdxdispatchcopy: KDXCopyErrorDomain 109: the card is gone\n"},
                    Failure{"TheStartOfTheVerification",
                            Phase::startOfVerification,
                            104,
                            104,
                            {"copy", "verification"},
                            "",
                            "kdxdispatchcopy: KDXCopyErrorDomain 104: the card is gone\n"},
                    Failure{"TheEndOfTheVerification",
                            Phase::endOfVerification,
                            105,
                            105,
                            {"copy", "verification"},
                            "",
                            "kdxdispatchcopy: KDXCopyErrorDomain 105: verification failed: /a/clip.mov\n"},
                    Failure{"TheMove",
                            Phase::move,
                            21,
                            21,
                            {"copy", "verification", "move"},
                            "failed to move files in place\n",
                            "kdxdispatchcopy: KDXCopyErrorDomain 21: the card is gone\n"},
                    Failure{"TheFlush",
                            Phase::flush,
                            5,
                            5,
                            {"copy", "verification", "move", "flush"},
                            "failed to flush filesystem\n",
                            "kdxdispatchcopy: KDXCopyErrorDomain 5: the card is gone\n"},
                    Failure{"ARoundCode",
                            Phase::copy,
                            256,
                            1,
                            {"copy"},
                            "failed to perform copy\n",
                            "kdxdispatchcopy: KDXCopyErrorDomain 256: the card is gone\n"},
                    Failure{"ANegativeCode",
                            Phase::move,
                            -1,
                            -1,
                            {"copy", "verification", "move"},
                            "failed to move files in place\n",
                            "kdxdispatchcopy: KDXCopyErrorDomain -1: the card is gone\n"}),
    rowName);

TEST(FrontEnd, APhaseThatFailsWithoutAnErrorGivesStatusOneAndLogsNothing) {
  const auto job = std::make_shared<FailingJob>(Phase::move, std::nullopt);
  const Captured output(STDOUT_FILENO);
  const Captured errors(STDERR_FILENO);
  std::optional<Error> error;
  EXPECT_EQ(1, runJob(job, &error));
  EXPECT_EQ("failed to move files in place\n", output.text());
  EXPECT_EQ("", errors.text());
}

TEST(FrontEnd, ARunThroughAllPhasesInOrderGivesStatusZeroAndPrintsNothingOfItsOwn) {
  const auto job = std::make_shared<FailingJob>(Phase::none, std::nullopt);
  const Captured output(STDOUT_FILENO);
  const Captured errors(STDERR_FILENO);
  std::optional<Error> error;
  EXPECT_EQ(0, runJob(job, &error));
  EXPECT_THAT(job->phases, ElementsAre("copy", "verification", "move", "flush"));
  EXPECT_EQ("", output.text());
  EXPECT_EQ("", errors.text());
}

// Whole runs

TEST(FrontEndRun, WithoutDestinationsTheSourceIsReadAndDigestedOnly) {
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  writeFile(source, mediaBytes(100'000));
  const ToolRun run = runTool({"-j", "-t", "sha1", source});
  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(run.lines(), testing::Contains("hash SHA1:" + digestByProgram("sha1sum", source)));
  EXPECT_THAT(namesBelow(scratch.path()), ElementsAre("card/clip.mov"));
}

TEST(FrontEndRun, WithoutDestinationsTheFilesOfASequenceAreReadAndDigestedOnly) {
  const ScratchDirectory scratch;
  std::string digests;
  for (const char* name : {"card/clip.09.dpx", "card/clip.10.dpx"}) {
    writeFile(scratch.file(name), mediaBytes(100'000));
    digests += digestByProgram("sha1sum", scratch.file(name));
  }
  writeFile(scratch.file("digests"), digests);
  const ToolRun run = runTool({"-t", "sha1", "-s", scratch.file("card/clip.9-10.##.dpx"), "-j"});
  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(run.lines(), testing::Contains("INFO: copying " + scratch.file("card") + "..."));
  EXPECT_THAT(run.lines(),
              testing::Contains("sequence-hash SHA1:" + digestByProgram("sha1sum", scratch.file("digests"))));
  EXPECT_THAT(namesBelow(scratch.path()), ElementsAre("card/clip.09.dpx", "card/clip.10.dpx", "digests"));
}

TEST(FrontEndRun, ASequenceWithoutPathsForItsFramesFailsAndLeavesNothing) {
  const ScratchDirectory scratch;
  const ToolRun run = runTool({"-s", scratch.file("card/%n.9-10.##.dpx"), scratch.file("a/frames")});
  EXPECT_EQ(1, run.exitStatus);
  EXPECT_THAT(run.lines(), ElementsAre("INFO: copying " + scratch.file("card") + "...",
                                       "ERROR no path for index: 0failed to perform copy"));
  EXPECT_EQ("", run.errors);
  EXPECT_THAT(namesBelow(scratch.path()), testing::IsEmpty());
}

TEST(FrontEndRun, WithoutADigestAnUnknownAlgorithmIsNoError) {
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  writeFile(source, mediaBytes(100'000));
  const ToolRun run = runTool({"-n", "-t", "bogus", source, scratch.file("a/clip.mov")});
  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(run.output, testing::Not(testing::AnyOf(HasSubstr("bogus"), HasSubstr("hash"))));
  EXPECT_EQ(readFile(source), readFile(scratch.file("a/clip.mov")));
}

TEST(FrontEndRun, ATakenFinalNameIsReportedAndGivesItsStatus) {
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  const std::string destination = scratch.file("a/clip.mov");
  writeFile(source, "new");
  writeFile(destination, "old");
  const ToolRun run = runTool({source, destination});
  EXPECT_EQ(109, run.exitStatus);
  EXPECT_THAT(run.lines(), ElementsAre("INFO: copying " + scratch.file("card") + "...", "failed to perform copy"));
  EXPECT_EQ("kdxdispatchcopy: KDXCopyErrorDomain 109: " + destination + " already exists\n", run.errors);
  EXPECT_EQ("old", readFile(destination));
}

TEST(FrontEndRun, AnExternalHashThatIsNoTextIsRefused) {
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  writeFile(source, "media");
  EXPECT_EQ(1, runTool({"-e", "MD5\xff", source, scratch.file("a/clip.mov")}).exitStatus);
  EXPECT_THAT(namesBelow(scratch.path()), ElementsAre("card/clip.mov"));
}

TEST(FrontEndRun, ATruncatedHashOnTheCommandLineDiffersAndGivesItsStatus) {
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  writeFile(source, "media");
  const std::string digest = digestByProgram("md5sum", source);
  EXPECT_EQ(0, runTool({"-k", "-e", "MD5:" + digest, source, scratch.file("a/clip.mov")}).exitStatus);
  EXPECT_EQ(103, runTool({"-k", "-e", "MD5:" + digest.substr(1), source, scratch.file("b/clip.mov")}).exitStatus);
}

TEST(FrontEndRun, TheDiskPriorityIsRaisedForTheWholeProcessBeforeTheSourceIsOpened) {
  if (!canInjectFaults()) GTEST_SKIP() << "needs strace and a build without sanitizers";
  const ScratchDirectory scratch;
  const std::string source = scratch.file("clip.mov");
  writeFile(source, "media");
  const ToolRun run = runTool(
      ToolStart{.arguments = {"-j", source},
                .wrapper = {"strace", "-f", "-qq", "-e", "trace=ioprio_set,openat", "-o", scratch.file("calls")}});
  ASSERT_EQ(0, run.exitStatus) << run.errors;
  const std::string calls = readFile(scratch.file("calls"));
  const std::size_t priority = calls.find("ioprio_set(IOPRIO_WHO_PROCESS, 0, ");
  const std::size_t opened = calls.find(source);
  ASSERT_NE(std::string::npos, priority) << calls;
  ASSERT_NE(std::string::npos, opened) << calls;
  EXPECT_LT(priority, opened);
}

TEST(FrontEndRun, ARefusedDiskPriorityChangesNothing) {
  if (!canInjectFaults()) GTEST_SKIP() << "needs strace and a build without sanitizers";
  const ScratchDirectory scratch;
  const std::string source = scratch.file("clip.mov");
  writeFile(source, "media");
  const ToolRun run = runTool(ToolStart{.arguments = {"-j", source}, .wrapper = injecting("ioprio_set:error=EPERM")});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("", run.errors);
}

// The calls that bind the process to one processor while it offloads the source.
std::string bindingsWhile(const ToolStart& start, const ScratchDirectory& scratch) {
  ToolStart traced = start;
  traced.wrapper = {
      "strace", "-f", "-qq", "-e", "trace=sched_setaffinity", "-e", "signal=none", "-o", scratch.file("calls")};
  const ToolRun run = runTool(traced);
  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  return readFile(scratch.file("calls"));
}

TEST(FrontEndRun, AFileNotWorthAThreadIsOffloadedOnOneProcessorAndALargerOneIsNot) {
  if (!canInjectFaults()) GTEST_SKIP() << "needs strace and a build without sanitizers";
  const ScratchDirectory scratch;
  const std::string source = scratch.file("clip.mov");
  writeFile(source, mediaBytes(platform::notWorthAThread));
  EXPECT_THAT(bindingsWhile({.arguments = {source, scratch.file("a/clip.mov")}}, scratch),
              HasSubstr("sched_setaffinity(0, "));
  writeFile(source, mediaBytes(platform::notWorthAThread + 1));
  EXPECT_EQ("", bindingsWhile({.arguments = {source, scratch.file("b/clip.mov")}}, scratch));
}

TEST(FrontEndRun, ADeviceAndASequenceAreNotBoundToOneProcessor) {
  if (!canInjectFaults()) GTEST_SKIP() << "needs strace and a build without sanitizers";
  const ScratchDirectory scratch;
  EXPECT_EQ("", bindingsWhile({.arguments = {"-j", "/dev/null"}}, scratch));
  writeFile(scratch.file("card/p.1.dpx"), "frame");
  EXPECT_EQ("", bindingsWhile({.arguments = {"-j", "-s", scratch.file("card/p.1-1.#.dpx")}}, scratch));
}

TEST(FrontEndRun, ASmallFileIsOffloadedAlthoughItMayChooseNeitherProcessorNorPolicy) {
  if (!canInjectFaults()) GTEST_SKIP() << "needs strace and a build without sanitizers";
  for (const char* refusal : {"sched_setaffinity:error=EPERM", "sched_setscheduler:error=EPERM"}) {
    const ScratchDirectory scratch;
    writeFile(scratch.file("clip.mov"), "media");
    const ToolRun run =
        runTool({.arguments = {scratch.file("clip.mov"), scratch.file("a/clip.mov")}, .wrapper = injecting(refusal)});
    EXPECT_EQ(0, run.exitStatus) << refusal << "\n" << run.output;
    EXPECT_EQ("", run.errors);
    EXPECT_EQ("media", readFile(scratch.file("a/clip.mov")));
  }
}

TEST(FrontEndRun, EveryLineOfStandardOutputIsWrittenAtOnce) {
  if (!canInjectFaults()) GTEST_SKIP() << "needs strace and a build without sanitizers";
  const ScratchDirectory scratch;
  const std::string source = scratch.file("clip.mov");
  writeFile(source, "media");
  const ToolRun run = runTool(ToolStart{
      .arguments = {"-j", source},
      .wrapper = {"strace", "-f", "-qq", "-e", "trace=write", "-e", "signal=none", "-o", scratch.file("calls")}});
  ASSERT_EQ(0, run.exitStatus) << run.errors;
  const std::string calls = readFile(scratch.file("calls"));
  EXPECT_THAT(calls, HasSubstr("write(1, \"INFO: copying "));
  EXPECT_THAT(calls, HasSubstr("write(1, \"hash MD5:"));
}

}  // namespace
