// How a copy job proves its copy: sizes, the external hash, reading back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <mutex>
#include <thread>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "KDXFileTools/kdxdispatchcopy/KDXFileSystemOperationQueueManager.h"
#include "tests/support/ExpectedText.h"
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
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

namespace {

namespace fs = std::filesystem;
using ErrorSlot = std::optional<platform::Error>;
using Names = std::vector<std::string>;
using Lines = std::vector<std::string>;

constexpr int32_t hashOnly = KDXVerificationOptionHashDuringCopy;
constexpr int32_t sourceOnly = hashOnly | KDXVerificationOptionVerifySource;
constexpr int32_t destinationsOnly = hashOnly | KDXVerificationOptionVerifyDestinations;
constexpr int32_t allReadBacks = sourceOnly | destinationsOnly;
constexpr int32_t skipSize = KDXVerificationOptionSkipFileSizeCheck;

// Notes the files that have passed.
class ObservedJob : public KDXDispatchCopy {
 public:
  explicit ObservedJob(std::optional<FileURL> source) : KDXDispatchCopy(std::move(source)) {}
  using KDXDispatchCopy::_bytesHashed;
  using KDXDispatchCopy::_sourceDigestContext;
  using KDXDispatchCopy::_sourceFileSize;

  void handlSuccessfullCopiedSource(const FileURL& source) override { note("source " + source.path()); }
  void handlSuccessfullCopiedDestination(const FileURL& temporaryURL) override {
    note("destination " + temporaryURL.path());
  }

  [[nodiscard]] Names passed() const {
    const std::lock_guard lock(_mutex);
    return _passed;
  }

 private:
  void note(std::string name) {
    const std::lock_guard lock(_mutex);
    _passed.push_back(std::move(name));
  }

  mutable std::mutex _mutex;
  Names _passed;  // guarded by _mutex
};

// A source and three destinations, each in a directory of its own, copied in buffers of 1 MiB and an incomplete one.
class VerificationTest : public testing::Test {
 protected:
  VerificationTest() {
    writeFile(settings.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
    ::setenv("XDG_CONFIG_HOME", settings.path().c_str(), 1);
    writeFile(source, bytes);
  }

  // A job that has made its copy, whose output is not looked at.
  [[nodiscard]] std::shared_ptr<ObservedJob> copied(const Names& destinations, int32_t options,
                                                    uint32_t algorithm = KDXDigestAlgorithmMD5,
                                                    std::optional<std::string> externalHash = std::nullopt,
                                                    std::optional<int64_t> expected = std::nullopt) const {
    auto job = std::make_shared<ObservedJob>(FileURL(source));
    for (const std::string& destination : destinations) job->addDestinationURL(FileURL(destination));
    job->setDigestAlgorithm(algorithm);
    job->setVerificationOptions(options);
    job->setExternalHash(std::move(externalHash));
    job->setExpectedFilesize(expected);
    bool isCopied = false;
    std::ignore = outputOf([&] { isCopied = job->performCopy(nullptr); });
    EXPECT_TRUE(isCopied);
    return job;
  }

  [[nodiscard]] std::string directory(const std::string& name) const { return (scratch.path() / name).string(); }
  [[nodiscard]] static std::string temporary(const std::string& destination) { return destination + ".kdxcopy"; }

  // The lines of one file that passes, in order.
  [[nodiscard]] Lines linesOfGoodDestination(int number, const std::string& path) const {
    return {"INFO: verifying " + fs::path(path).parent_path().string(),
            "verify of destination file #" + std::to_string(number) + " (" + path + ") ok."};
  }
  [[nodiscard]] Lines linesOfGoodSource(int number) const {
    return {"INFO: verifying " + directory("card"),
            "verify of source file #" + std::to_string(number) + " (" + source + ") ok."};
  }

  // The same of one whose digest differs. `goodMD5` is what was copied.
  [[nodiscard]] Lines linesOfBadFile(const std::string& kind, int number, const std::string& path,
                                     const std::string& goodMD5) const {
    return {"INFO: verifying " + fs::path(path).parent_path().string(),
            "INFO: expected hash: " + goodMD5 + " but got hash: " + digestByProgram("md5sum", path) + ".",
            "ERROR: verify of " + kind + " file #" + std::to_string(number) + " (" + path + ") failed, wrong hash."};
  }

  const ScratchDirectory settings;
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  const std::string first = scratch.file("a/clip.mov");
  const std::string second = scratch.file("b/clip.mov");
  const std::string third = scratch.file("c/clip.mov");
  const std::string bytes = mediaBytes(MiB + 1017);
  const std::string size = std::to_string(bytes.size());
};

// What the two phases gave.
struct Verification {
  bool started = false;
  bool finished = false;
  ErrorSlot startError;
  ErrorSlot finishError;
  std::string output;
};

// Drives the job as the front end does: the second phase is left out when the first fails.
std::unique_ptr<Verification> verify(KDXDispatchCopy& job) {
  auto verification = std::make_unique<Verification>();
  verification->output = outputOf([&] {
    verification->started = job.startVerification(&verification->startError);
    if (verification->started) verification->finished = job.finishVerification(&verification->finishError);
  });
  return verification;
}

// The size check.

class KDXDispatchCopySizeCheck : public VerificationTest {
 protected:
  [[nodiscard]] std::string checkedLine(const std::string& destination) const {
    return "Copy completed successfully for destination file with file size check (" + destination + ")\n";
  }
  [[nodiscard]] std::string uncheckedLine(const std::string& destination) const {
    return "Copy completed successfully for destination file (" + destination + ")\n";
  }
  [[nodiscard]] std::string wrongOnDisk(const std::string& destination) const {
    return "the expected filesize (" + size + ") is not the number of bytes for file " + temporary(destination) + " (" +
           size + ")";
  }
};

TEST_F(KDXDispatchCopySizeCheck, ReportsEveryDestinationUnderItsFinalNameInOrder) {
  const auto job = copied({second, first}, hashOnly);

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_TRUE(run->finished);
  EXPECT_EQ(std::nullopt, run->startError);
  EXPECT_EQ(std::nullopt, run->finishError);
  EXPECT_EQ(checkedLine(second) + checkedLine(first), run->output);
  EXPECT_THAT(job->passed(), IsEmpty());
}

TEST_F(KDXDispatchCopySizeCheck, WithoutDestinationsPrintsNothing) {
  const auto run = verify(*copied({}, hashOnly));

  EXPECT_TRUE(run->started);
  EXPECT_TRUE(run->finished);
  EXPECT_EQ("", run->output);
}

TEST_F(KDXDispatchCopySizeCheck, PassesWithTheRightExpectedSize) {
  const auto job = copied({first}, hashOnly);
  job->setExpectedFilesize(static_cast<int64_t>(bytes.size()));
  // Not what is compared when a size is expected.
  job->_sourceFileSize = 1;

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_EQ(checkedLine(first), run->output);
}

TEST_F(KDXDispatchCopySizeCheck, PassesForAnEmptyFileOfWhichNoBytesAreExpected) {
  writeFile(source, "");

  const auto run = verify(*copied({first}, hashOnly, KDXDigestAlgorithmMD5, std::nullopt, 0));

  EXPECT_TRUE(run->started);
  EXPECT_EQ(checkedLine(first), run->output);
}

struct WrongExpectedSize : NamedRow {
  int64_t expected;
  int32_t options;
  const char* printed;
};

class KDXDispatchCopyWrongExpectedSize : public VerificationTest,
                                         public testing::WithParamInterface<WrongExpectedSize> {};

TEST_P(KDXDispatchCopyWrongExpectedSize, FailsBeforeAnyDestinationIsLookedAt) {
  const auto job =
      copied({first}, hashOnly | GetParam().options, KDXDigestAlgorithmMD5, std::nullopt, GetParam().expected);
  const std::string description = std::string("the expected filesize (") + GetParam().printed +
                                  ") is not the number of bytes copied (" + size + ")";

  const auto run = verify(*job);

  EXPECT_FALSE(run->started);
  ASSERT_TRUE(run->startError);
  EXPECT_EQ("KDXCopyErrorDomain", run->startError->domain);
  EXPECT_EQ(104, run->startError->code);
  EXPECT_EQ(description, run->startError->description);
  EXPECT_EQ(description + "\n", run->output);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, KDXDispatchCopyWrongExpectedSize,
    testing::Values(WrongExpectedSize{"OneByteLess", MiB + 1016, 0, "1049592"},
                    WrongExpectedSize{"OneByteMore", MiB + 1018, 0, "1049594"}, WrongExpectedSize{"Nothing", 0, 0, "0"},
                    WrongExpectedSize{"Negative", -1, 0, "18446744073709551615"},
                    WrongExpectedSize{"OneByteLessThoughSizesOnDiskAreSkipped", MiB + 1016, 16, "1049592"},
                    WrongExpectedSize{"NothingThoughSizesOnDiskAreSkipped", 0, 16, "0"}),
    testing::PrintToStringParamName());

TEST_F(KDXDispatchCopySizeCheck, FailsWhenNoSizeIsExpectedAndThatOfTheSourceWasNotToBeLookedAt) {
  const auto run = verify(*copied({first}, hashOnly | skipSize));

  EXPECT_FALSE(run->started);
  EXPECT_EQ("the expected filesize (0) is not the number of bytes copied (" + size + ")\n", run->output);
}

TEST_F(KDXDispatchCopySizeCheck, FailsForADestinationOneByteShortAndLeavesLaterOnesUnreported) {
  const auto job = copied({first, second, third}, hashOnly);
  fs::resize_file(temporary(second), bytes.size() - 1);

  const auto run = verify(*job);

  EXPECT_FALSE(run->started);
  ASSERT_TRUE(run->startError);
  EXPECT_EQ("KDXCopyErrorDomain", run->startError->domain);
  EXPECT_EQ(104, run->startError->code);
  EXPECT_EQ(wrongOnDisk(second), run->startError->description);
  EXPECT_EQ(temporary(second), run->startError->path);
  EXPECT_EQ(checkedLine(first) + wrongOnDisk(second) + "\n", run->output);
  EXPECT_EQ((Names{"a/clip.mov.kdxcopy", "b/clip.mov.kdxcopy", "c/clip.mov.kdxcopy", "card/clip.mov"}),
            namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopySizeCheck, FailsForADestinationOneByteLong) {
  const auto job = copied({first}, hashOnly);
  fs::resize_file(temporary(first), bytes.size() + 1);

  const auto run = verify(*job);

  EXPECT_FALSE(run->started);
  EXPECT_EQ(wrongOnDisk(first) + "\n", run->output);
}

TEST_F(KDXDispatchCopySizeCheck, FailsForADestinationThatIsGone) {
  const auto job = copied({first}, hashOnly);
  fs::remove(temporary(first));

  const auto run = verify(*job);

  EXPECT_FALSE(run->started);
  EXPECT_EQ(wrongOnDisk(first) + "\n", run->output);
}

TEST_F(KDXDispatchCopySizeCheck, FailsWithoutAPlaceForTheErrorToo) {
  const auto job = copied({first}, hashOnly);
  fs::resize_file(temporary(first), bytes.size() - 1);
  bool started = true;
  bool checked = true;

  const std::string phase = outputOf([&] { started = job->startVerification(nullptr); });
  const std::string check = outputOf([&] { checked = job->performFileSizeCheck(nullptr); });

  EXPECT_FALSE(started);
  EXPECT_FALSE(checked);
  EXPECT_EQ(wrongOnDisk(first) + "\n", phase);
  EXPECT_EQ("", check);
}

TEST_F(KDXDispatchCopySizeCheck, OfTheBytesCopiedFailsWithoutAPlaceForTheErrorToo) {
  const auto job = copied({first}, hashOnly, KDXDigestAlgorithmMD5, std::nullopt, 7);
  bool checked = true;

  const std::string check = outputOf([&] { checked = job->performFileSizeCheck(nullptr); });

  EXPECT_FALSE(checked);
  EXPECT_EQ("", check);
}

TEST_F(KDXDispatchCopySizeCheck, DoesNotLookAtDestinationsWhenSizesOnDiskAreSkipped) {
  const auto job = copied({first, second}, hashOnly | skipSize, KDXDigestAlgorithmMD5, std::nullopt,
                          static_cast<int64_t>(bytes.size()));
  fs::resize_file(temporary(first), bytes.size() - 1);

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_TRUE(run->finished);
  EXPECT_EQ(uncheckedLine(first) + uncheckedLine(second), run->output);
}

class KDXDispatchCopyOptionsThatReadBack : public VerificationTest, public testing::WithParamInterface<int32_t> {};

TEST_P(KDXDispatchCopyOptionsThatReadBack, MakeNoSizeCheck) {
  const auto job = copied({first}, GetParam(), KDXDigestAlgorithmMD5, std::nullopt, 7);
  fs::resize_file(temporary(first), 3);

  const PhaseRun phase = runPhase([&](platform::ErrorPlace error) { return job->performFileSizeCheck(error); });

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(std::nullopt, phase.error);
  EXPECT_EQ("", phase.output);
}

INSTANTIATE_TEST_SUITE_P(Bits, KDXDispatchCopyOptionsThatReadBack, testing::Values(4, 6, 8, 10, 12, 14, 20, 24, 30),
                         testing::PrintToStringParamName());

// Every combination of options.

class KDXDispatchCopyVerificationOptions : public VerificationTest, public testing::WithParamInterface<int32_t> {};

TEST_P(KDXDispatchCopyVerificationOptions, ChooseTheChecks) {
  const int32_t options = GetParam();
  const auto job = copied({first}, options, KDXDigestAlgorithmMD5, std::nullopt, static_cast<int64_t>(bytes.size()));
  std::vector<Lines> expected;
  Names passed;
  if ((options & 4) != 0) {
    expected.push_back(linesOfGoodSource(2));
    passed.push_back("source " + source);
  }
  if ((options & 8) != 0) {
    expected.push_back(linesOfGoodDestination(1, first));
    passed.push_back("destination " + temporary(first));
  }
  if (expected.empty()) {
    const std::string how = (options & 16) == 0 ? " with file size check" : "";
    expected = {{"Copy completed successfully for destination file" + how + " (" + first + ")"}};
  }

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_TRUE(run->finished);
  EXPECT_EQ(std::nullopt, run->startError);
  EXPECT_EQ(std::nullopt, run->finishError);
  expectSideBySide(expected, linesOf(run->output));
  EXPECT_THAT(job->passed(), UnorderedElementsAreArray(passed));
}

INSTANTIATE_TEST_SUITE_P(From0To30, KDXDispatchCopyVerificationOptions, testing::Range(0, 31));

// The external hash.

class KDXDispatchCopyExternalHashCheck : public VerificationTest {
 protected:
  [[nodiscard]] std::string md5() const { return digestByProgram("md5sum", source); }
  [[nodiscard]] std::string sha1() const { return digestByProgram("sha1sum", source); }
  [[nodiscard]] static std::string mismatch(const std::string& external, const std::string& got) {
    return "INFO: external hash: " + external + " but got hash: " + got + ".";
  }
  static constexpr const char* otherMD5 = "MD5:00000000000000000000000000000000";
};

TEST_F(KDXDispatchCopyExternalHashCheck, WithoutAnExternalHashPassesAndPrintsNothing) {
  const auto job = copied({}, hashOnly);

  const PhaseRun phase =
      runPhase([&](platform::ErrorPlace error) { return job->performExternalHashVerification(error); });

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(std::nullopt, phase.error);
  EXPECT_EQ("", phase.output);
}

TEST_F(KDXDispatchCopyExternalHashCheck, PassesForTheDigestOfTheCopyAndPrintsNothing) {
  const auto run = verify(*copied({}, hashOnly, KDXDigestAlgorithmMD5, "MD5:" + md5()));

  EXPECT_TRUE(run->started);
  EXPECT_TRUE(run->finished);
  EXPECT_EQ("", run->output);
}

TEST_F(KDXDispatchCopyExternalHashCheck, PassesForDigitsInUpperCase) {
  const auto run = verify(*copied({}, hashOnly, KDXDigestAlgorithmMD5, "MD5:" + inCapitals(md5())));

  EXPECT_TRUE(run->started);
  EXPECT_EQ("", run->output);
}

TEST_F(KDXDispatchCopyExternalHashCheck, ItselfIgnoresTheCaseOfTheMethodNameToo) {
  const auto job = copied({}, hashOnly, KDXDigestAlgorithmXXHash64BE);
  job->setExternalHash("xxhASH64be:" + digestByProgram("xxh64sum", source));

  const PhaseRun phase =
      runPhase([&](platform::ErrorPlace error) { return job->performExternalHashVerification(error); });

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ("", phase.output);
}

TEST_F(KDXDispatchCopyExternalHashCheck, PassesInAnotherAlgorithmThanThatOfTheCopy) {
  const auto run = verify(*copied({}, hashOnly, KDXDigestAlgorithmMD5, "SHA1:" + inCapitals(sha1())));

  EXPECT_TRUE(run->started);
  EXPECT_EQ("", run->output);
}

TEST_F(KDXDispatchCopyExternalHashCheck, PassesWithoutADigestOfTheCopy) {
  const auto run = verify(*copied({}, 0, KDXDigestAlgorithmNone, "SHA1:" + sha1()));

  EXPECT_TRUE(run->started);
  EXPECT_EQ("", run->output);
}

TEST_F(KDXDispatchCopyExternalHashCheck, ThatDiffersIsPrintedTwiceAndStopsThePhaseBeforeAnythingIsReadBack) {
  const auto job = copied({first}, allReadBacks, KDXDigestAlgorithmMD5, otherMD5);
  const std::string description = mismatch(otherMD5, "MD5:" + md5());

  const auto run = verify(*job);
  ErrorSlot finishError;
  bool finished = false;
  const std::string later = outputOf([&] { finished = job->finishVerification(&finishError); });

  EXPECT_FALSE(run->started);
  ASSERT_TRUE(run->startError);
  EXPECT_EQ("KDXCopyErrorDomain", run->startError->domain);
  EXPECT_EQ(103, run->startError->code);
  EXPECT_EQ(description, run->startError->description);
  EXPECT_EQ(description + "\n" + description + "\n", run->output);
  EXPECT_TRUE(finished);
  EXPECT_EQ("", later);
  EXPECT_THAT(job->passed(), IsEmpty());
}

TEST_F(KDXDispatchCopyExternalHashCheck, ThatDiffersIsPrintedOnceByTheCheckItself) {
  const auto job = copied({}, hashOnly, KDXDigestAlgorithmMD5, otherMD5);
  const std::string description = mismatch(otherMD5, "MD5:" + md5());
  ErrorSlot error;
  bool passed = true;
  bool passedWithoutPlace = true;

  const std::string output = outputOf([&] { passed = job->performExternalHashVerification(&error); });
  const std::string again = outputOf([&] { passedWithoutPlace = job->performExternalHashVerification(nullptr); });

  EXPECT_FALSE(passed);
  ASSERT_TRUE(error);
  EXPECT_EQ(103, error->code);
  EXPECT_EQ(description + "\n", output);
  EXPECT_FALSE(passedWithoutPlace);
  EXPECT_EQ(description + "\n", again);
}

TEST_F(KDXDispatchCopyExternalHashCheck, ThatDiffersIsPrintedTwiceWithoutAPlaceForTheErrorToo) {
  const auto job = copied({}, hashOnly, KDXDigestAlgorithmMD5, otherMD5);
  const std::string line = mismatch(otherMD5, "MD5:" + md5()) + "\n";
  bool started = true;

  const std::string output = outputOf([&] { started = job->startVerification(nullptr); });

  EXPECT_FALSE(started);
  EXPECT_EQ(line + line, output);
}

TEST_F(KDXDispatchCopyExternalHashCheck, ThatDiffersIsToldAsItWasGivenAndWithTheDigestInItsOwnAlgorithm) {
  const std::string external = "SHA1:ABCdef";
  const std::string line = mismatch(external, "SHA1:" + sha1()) + "\n";

  const auto run = verify(*copied({}, hashOnly, KDXDigestAlgorithmMD5, external));

  EXPECT_FALSE(run->started);
  EXPECT_EQ(line + line, run->output);
}

TEST_F(KDXDispatchCopyExternalHashCheck, OfWhichOnlyTheBeginningAgreesFails) {
  const auto run = verify(*copied({}, hashOnly, KDXDigestAlgorithmMD5, "MD5:" + md5().substr(0, 31)));

  EXPECT_FALSE(run->started);
}

TEST_F(KDXDispatchCopyExternalHashCheck, OfTheSameDigitsInAnotherByteOrderFails) {
  const std::string external = "XXHash64:" + digestByProgram("xxh64sum", source);

  const auto run = verify(*copied({}, hashOnly, KDXDigestAlgorithmXXHash64BE, external));

  EXPECT_FALSE(run->started);
  ASSERT_TRUE(run->startError);
  EXPECT_EQ(mismatch(external, "XXHash64:" + digestByProgram("xxh64sum --little-endian", source)),
            run->startError->description);
}

TEST_F(KDXDispatchCopyExternalHashCheck, WithoutAnyDigestTellsThatThereIsNone) {
  const auto job = copied({}, 0, KDXDigestAlgorithmNone);
  job->setExternalHash(otherMD5);

  const PhaseRun phase =
      runPhase([&](platform::ErrorPlace error) { return job->performExternalHashVerification(error); });

  EXPECT_FALSE(phase.succeeded);
  EXPECT_EQ(mismatch(otherMD5, "(null)") + "\n", phase.output);
}

TEST_F(KDXDispatchCopyExternalHashCheck, ComesBehindTheSizeCheck) {
  const auto run = verify(*copied({first}, hashOnly, KDXDigestAlgorithmMD5, otherMD5, 7));

  EXPECT_FALSE(run->started);
  ASSERT_TRUE(run->startError);
  EXPECT_EQ(104, run->startError->code);
  EXPECT_EQ("the expected filesize (7) is not the number of bytes copied (" + size + ")\n", run->output);
}

// Reading back.

class KDXDispatchCopyReadBack : public VerificationTest {};

TEST_F(KDXDispatchCopyReadBack, OfGoodFilesNumbersTheSourceBehindThreeDestinations) {
  const auto job = copied({first, second, third}, allReadBacks);

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_TRUE(run->finished);
  expectSideBySide({linesOfGoodDestination(1, first), linesOfGoodDestination(2, second),
                    linesOfGoodDestination(3, third), linesOfGoodSource(4)},
                   linesOf(run->output));
  EXPECT_THAT(job->passed(),
              UnorderedElementsAre("source " + source, "destination " + temporary(first),
                                   "destination " + temporary(second), "destination " + temporary(third)));
}

TEST_F(KDXDispatchCopyReadBack, WithoutDestinationsNumbersTheSourceOne) {
  const auto run = verify(*copied({}, allReadBacks));

  EXPECT_TRUE(run->finished);
  expectSideBySide({linesOfGoodSource(1)}, linesOf(run->output));
}

TEST_F(KDXDispatchCopyReadBack, WorksWithoutPlacesForErrors) {
  const auto job = copied({first}, allReadBacks);
  bool started = false;
  bool finished = false;

  const std::string output = outputOf([&] {
    started = job->startVerification(nullptr);
    finished = job->finishVerification(nullptr);
  });

  EXPECT_TRUE(started);
  EXPECT_TRUE(finished);
  expectSideBySide({linesOfGoodDestination(1, first), linesOfGoodSource(2)}, linesOf(output));
}

TEST_F(KDXDispatchCopyReadBack, OfTheSameDestinationTwiceReadsItTwice) {
  const auto run = verify(*copied({first, first}, destinationsOnly));

  EXPECT_TRUE(run->finished);
  EXPECT_THAT(linesOf(run->output),
              ElementsAre("INFO: verifying " + directory("a"), "verify of destination file #1 (" + first + ") ok.",
                          "INFO: verifying " + directory("a"), "verify of destination file #2 (" + first + ") ok."));
}

class KDXDispatchCopyReadBackDigest : public VerificationTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(KDXDispatchCopyReadBackDigest, IsThatOfTheCopy) {
  const auto good = verify(*copied({first}, allReadBacks, GetParam()));
  EXPECT_TRUE(good->finished);

  const auto job = copied({second}, allReadBacks, GetParam());
  damageFile(temporary(second), 5);
  const auto bad = verify(*job);
  EXPECT_TRUE(bad->started);
  EXPECT_FALSE(bad->finished);
}

INSTANTIATE_TEST_SUITE_P(Algorithms, KDXDispatchCopyReadBackDigest, testing::Values(1U, 2U, 8U, 16U),
                         testing::PrintToStringParamName());

struct Damage : NamedRow {
  int64_t offset;
};

class KDXDispatchCopyDamage : public VerificationTest, public testing::WithParamInterface<Damage> {};

TEST_P(KDXDispatchCopyDamage, OfADestinationIsReportedAndTheOtherFilesAreStillVerified) {
  const auto job = copied({first, second, third}, allReadBacks);
  damageFile(temporary(second), GetParam().offset);

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_EQ(std::nullopt, run->startError);
  EXPECT_FALSE(run->finished);
  ASSERT_TRUE(run->finishError);
  EXPECT_EQ("KDXCopyErrorDomain", run->finishError->domain);
  EXPECT_EQ(105, run->finishError->code);
  EXPECT_EQ("verification failed: " + temporary(second), run->finishError->description);
  expectSideBySide({linesOfGoodDestination(1, first),
                    linesOfBadFile("destination", 2, temporary(second), digestByProgram("md5sum", source)),
                    linesOfGoodDestination(3, third), linesOfGoodSource(4)},
                   linesOf(run->output));
  EXPECT_THAT(job->passed(), UnorderedElementsAre("source " + source, "destination " + temporary(first),
                                                  "destination " + temporary(third)));
  EXPECT_EQ((Names{"a/clip.mov.kdxcopy", "b/clip.mov.kdxcopy", "c/clip.mov.kdxcopy", "card/clip.mov"}),
            namesBelow(scratch.path()));
}

TEST_P(KDXDispatchCopyDamage, OfTheSourceIsReportedInBothPhasesAndTheDestinationsAreStillVerified) {
  const auto job = copied({first, second}, allReadBacks);
  const std::string goodMD5 = digestByProgram("md5sum", source);
  damageFile(source, GetParam().offset);

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  ASSERT_TRUE(run->startError);
  EXPECT_EQ("KDXCopyErrorDomain", run->startError->domain);
  EXPECT_EQ(105, run->startError->code);
  EXPECT_EQ("INFO: expected hash: " + goodMD5 + " but got hash: " + digestByProgram("md5sum", source) + ".",
            run->startError->description);
  EXPECT_FALSE(run->finished);
  ASSERT_TRUE(run->finishError);
  EXPECT_EQ("KDXCopyErrorDomain", run->finishError->domain);
  EXPECT_EQ(121, run->finishError->code);
  EXPECT_EQ("verification failed: " + source, run->finishError->description);
  expectSideBySide({linesOfGoodDestination(1, first), linesOfGoodDestination(2, second),
                    linesOfBadFile("source", 3, source, goodMD5)},
                   linesOf(run->output));
  EXPECT_THAT(job->passed(),
              UnorderedElementsAre("destination " + temporary(first), "destination " + temporary(second)));
}

INSTANTIATE_TEST_SUITE_P(Places, KDXDispatchCopyDamage,
                         testing::Values(Damage{"FirstByte", 0}, Damage{"Middle", MiB / 2 + 11},
                                         Damage{"EndOfTheFirstBuffer", MiB - 1}, Damage{"StartOfTheLastBlock", MiB},
                                         Damage{"LastByte", MiB + 1016}),
                         testing::PrintToStringParamName());

TEST_F(KDXDispatchCopyReadBack, OfTwoDamagedDestinationsReportsOneAndPrintsBoth) {
  const auto job = copied({first, second, third}, allReadBacks);
  damageFile(temporary(first), 1);
  damageFile(temporary(third), 2);
  const std::string goodMD5 = digestByProgram("md5sum", source);

  const auto run = verify(*job);

  EXPECT_FALSE(run->finished);
  ASSERT_TRUE(run->finishError);
  EXPECT_EQ(105, run->finishError->code);
  EXPECT_THAT((Names{temporary(first), temporary(third)}), Contains(run->finishError->path.value_or("")));
  EXPECT_EQ("verification failed: " + run->finishError->path.value_or(""), run->finishError->description);
  expectSideBySide({linesOfBadFile("destination", 1, temporary(first), goodMD5), linesOfGoodDestination(2, second),
                    linesOfBadFile("destination", 3, temporary(third), goodMD5), linesOfGoodSource(4)},
                   linesOf(run->output));
  EXPECT_THAT(job->passed(), UnorderedElementsAre("source " + source, "destination " + temporary(second)));
}

TEST_F(KDXDispatchCopyReadBack, OfADamagedSourceAndADamagedDestinationReportsOneAndPrintsBoth) {
  const auto job = copied({first}, allReadBacks);
  const std::string goodMD5 = digestByProgram("md5sum", source);
  damageFile(temporary(first), 1);
  damageFile(source, 2);

  const auto run = verify(*job);

  EXPECT_FALSE(run->finished);
  ASSERT_TRUE(run->startError);
  EXPECT_EQ(source, run->startError->path);
  ASSERT_TRUE(run->finishError);
  EXPECT_EQ(run->finishError->path == source ? 121 : 105, run->finishError->code);
  expectSideBySide(
      {linesOfBadFile("destination", 1, temporary(first), goodMD5), linesOfBadFile("source", 2, source, goodMD5)},
      linesOf(run->output));
  EXPECT_THAT(job->passed(), IsEmpty());
}

TEST_F(KDXDispatchCopyReadBack, OfDamagedFilesFailsWithoutPlacesForErrorsToo) {
  const auto job = copied({first}, allReadBacks);
  damageFile(temporary(first), 1);
  damageFile(source, 2);
  bool started = false;
  bool finished = true;

  std::ignore = outputOf([&] {
    started = job->startVerification(nullptr);
    finished = job->finishVerification(nullptr);
  });

  EXPECT_TRUE(started);
  EXPECT_FALSE(finished);
}

TEST_F(KDXDispatchCopyReadBack, OfTheSourceAloneDoesNotSeeADamagedDestination) {
  const auto job = copied({first}, sourceOnly);
  damageFile(temporary(first), 1);

  const auto run = verify(*job);

  EXPECT_TRUE(run->finished);
  expectSideBySide({linesOfGoodSource(2)}, linesOf(run->output));
}

TEST_F(KDXDispatchCopyReadBack, OfTheDestinationsAloneDoesNotSeeADamagedSource) {
  const auto job = copied({first}, destinationsOnly);
  damageFile(source, 1);

  const auto run = verify(*job);

  EXPECT_TRUE(run->finished);
  expectSideBySide({linesOfGoodDestination(1, first)}, linesOf(run->output));
}

TEST_F(KDXDispatchCopyReadBack, FindsADestinationThatIsOneByteShort) {
  const auto job = copied({first}, destinationsOnly);
  fs::resize_file(temporary(first), bytes.size() - 1);

  const auto run = verify(*job);

  EXPECT_FALSE(run->finished);
  expectSideBySide({linesOfBadFile("destination", 1, temporary(first), digestByProgram("md5sum", source))},
                   linesOf(run->output));
}

TEST_F(KDXDispatchCopyReadBack, FindsADestinationThatIsOneByteLong) {
  const auto job = copied({first}, destinationsOnly);
  fs::resize_file(temporary(first), bytes.size() + 1);

  EXPECT_FALSE(verify(*job)->finished);
}

TEST_F(KDXDispatchCopyReadBack, TakesAFailedReadForADifference) {
  const auto job = copied({first}, destinationsOnly);
  fs::remove(temporary(first));
  fs::create_directory(temporary(first));

  const auto run = verify(*job);

  EXPECT_FALSE(run->finished);
  ASSERT_TRUE(run->finishError);
  EXPECT_EQ(105, run->finishError->code);
  EXPECT_THAT(linesOf(run->output),
              ElementsAre("INFO: verifying " + directory("a"),
                          "INFO: expected hash: " + digestByProgram("md5sum", source) +
                              " but got hash: d41d8cd98f00b204e9800998ecf8427e.",
                          "ERROR: verify of destination file #1 (" + temporary(first) + ") failed, wrong hash."));
}

TEST_F(KDXDispatchCopyReadBack, TakesAReadThatFailsBehindTheLastByteForADifference) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  // Two whole buffers: the third read is the first that would find the end.
  writeFile(source, mediaBytes(2 * MiB));
  const std::string digest = digestByProgram("md5sum", source);

  const ToolRun run = runTool({.arguments = {source, first},
                               .wrapper = injectingAt(temporary(first), {"read:error=EIO:when=3"}),
                               .environment = {{"XDG_CONFIG_HOME", settings.path().string()}}});

  EXPECT_EQ(105, run.exitStatus) << run.output << run.errors;
  EXPECT_THAT(run.lines(), Contains("INFO: expected hash: " + digest + " but got hash: " + digest + "."));
  EXPECT_FALSE(fs::exists(first));
}

TEST_F(KDXDispatchCopyReadBack, WithoutADigestOfTheCopyProvesNothingAndFails) {
  const auto run = verify(*copied({first}, KDXVerificationOptionVerifyDestinations, KDXDigestAlgorithmNone));

  EXPECT_TRUE(run->started);
  EXPECT_FALSE(run->finished);
  EXPECT_THAT(linesOf(run->output),
              ElementsAre("INFO: verifying " + directory("a"), "INFO: expected hash: (null) but got hash: (null).",
                          "ERROR: verify of destination file #1 (" + temporary(first) + ") failed, wrong hash."));
}

TEST_F(KDXDispatchCopyReadBack, OfAFileThatCanNotBeOpenedEndsTheProcess) {
  const ChildRun ending = endingOf([&] {
    const auto job = std::make_shared<ObservedJob>(FileURL(source));
    job->addDestinationURL(FileURL(first));
    job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
    job->setVerificationOptions(destinationsOnly);
    job->startVerification(nullptr);
    job->finishVerification(nullptr);
  });

  EXPECT_EQ(108, ending.exitStatus);
  EXPECT_EQ("INFO: verifying " + directory("a") + "\nERROR: could not open file at path: " + temporary(first) + "\n",
            ending.output);
}

class KDXDispatchCopyContinueOnVerificationError : public VerificationTest, public testing::WithParamInterface<bool> {};

TEST_P(KDXDispatchCopyContinueOnVerificationError, ChangesNothing) {
  const auto job = copied({first, second}, destinationsOnly);
  job->setContinueOnVerificationError(GetParam());
  damageFile(temporary(first), 1);

  const auto run = verify(*job);

  EXPECT_TRUE(run->started);
  EXPECT_FALSE(run->finished);
  ASSERT_TRUE(run->finishError);
  EXPECT_EQ(105, run->finishError->code);
  EXPECT_THAT(job->passed(), ElementsAre("destination " + temporary(second)));
}

INSTANTIATE_TEST_SUITE_P(Either, KDXDispatchCopyContinueOnVerificationError, testing::Bool());

// One file.

TEST_F(KDXDispatchCopyReadBack, OfOneGoodFilePrintsItsDirectoryAndPasses) {
  const auto job = copied({first}, hashOnly);

  const PhaseRun phase =
      runPhase([&](platform::ErrorPlace error) { return job->verifyURL(FileURL(temporary(first)), error); });

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(std::nullopt, phase.error);
  EXPECT_EQ("INFO: verifying " + directory("a") + "\n", phase.output);
}

TEST_F(KDXDispatchCopyReadBack, OfOneBadFileHandsTheDifferenceToTheCallerAndPrintsItNot) {
  const auto job = copied({first}, hashOnly);
  damageFile(temporary(first), 0);
  ErrorSlot error;
  bool passed = true;
  bool passedWithoutPlace = true;

  const std::string output = outputOf([&] { passed = job->verifyURL(FileURL(temporary(first)), &error); });
  std::ignore = outputOf([&] { passedWithoutPlace = job->verifyURL(FileURL(temporary(first)), nullptr); });

  EXPECT_FALSE(passed);
  ASSERT_TRUE(error);
  EXPECT_EQ("KDXCopyErrorDomain", error->domain);
  EXPECT_EQ(105, error->code);
  EXPECT_EQ("INFO: expected hash: " + digestByProgram("md5sum", source) +
                " but got hash: " + digestByProgram("md5sum", temporary(first)) + ".",
            error->description);
  EXPECT_EQ("INFO: verifying " + directory("a") + "\n", output);
  EXPECT_FALSE(passedWithoutPlace);
}

// The recorded failure.

class KDXDispatchCopyRecordedFailure : public VerificationTest {
 protected:
  const std::shared_ptr<ObservedJob> job = std::make_shared<ObservedJob>(FileURL(source));
};

TEST_F(KDXDispatchCopyRecordedFailure, KeepsItsCodeAndNamesItsFile) {
  job->markAsVerificationFailed(FileURL("/b/clip.mov.kdxcopy"), 105);
  const PhaseRun phase = runPhase([&](platform::ErrorPlace error) { return job->finishVerification(error); });

  EXPECT_FALSE(phase.succeeded);
  ASSERT_TRUE(phase.error);
  EXPECT_EQ("KDXCopyErrorDomain", phase.error->domain);
  EXPECT_EQ(105, phase.error->code);
  EXPECT_EQ("verification failed: /b/clip.mov.kdxcopy", phase.error->description);
  EXPECT_EQ("", phase.output);
}

TEST_F(KDXDispatchCopyRecordedFailure, WithoutACodeHasThatOfAFailedVerification) {
  ErrorSlot error;

  job->markAsVerificationFailed(FileURL("/card/clip.mov"), 0);

  EXPECT_FALSE(job->finishVerification(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(121, error->code);
}

TEST_F(KDXDispatchCopyRecordedFailure, IsNotReplacedByALaterOne) {
  ErrorSlot error;

  job->markAsVerificationFailed(FileURL("/b/clip.mov.kdxcopy"), 105);
  job->markAsVerificationFailed(FileURL("/card/clip.mov"), 121);

  EXPECT_FALSE(job->finishVerification(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(105, error->code);
  EXPECT_EQ("verification failed: /b/clip.mov.kdxcopy", error->description);
}

TEST_F(KDXDispatchCopyRecordedFailure, IsReportedWithoutAPlaceForTheErrorAndEveryTime) {
  job->markAsVerificationFailed(FileURL("/card/clip.mov"), 121);

  EXPECT_FALSE(job->finishVerification(nullptr));
  EXPECT_FALSE(job->finishVerification(nullptr));
}

TEST_F(KDXDispatchCopyRecordedFailure, OfManyThreadsIsOneOfTheirsWhole) {
  std::vector<std::thread> threads;
  for (int code = 1; code <= 8; ++code) {
    threads.emplace_back([this, code] { job->markAsVerificationFailed(FileURL("/" + std::to_string(code)), code); });
  }
  for (std::thread& thread : threads) thread.join();
  ErrorSlot error;

  EXPECT_FALSE(job->finishVerification(&error));
  ASSERT_TRUE(error);
  EXPECT_THAT((std::vector<int64_t>{1, 2, 3, 4, 5, 6, 7, 8}), Contains(error->code));
  EXPECT_EQ("verification failed: /" + std::to_string(error->code), error->description);
}

// The end of the phase.

class KDXDispatchCopyFinishVerification : public VerificationTest {};

TEST_F(KDXDispatchCopyFinishVerification, WithoutAStartPassesAndPrintsNothing) {
  const auto job = std::make_shared<ObservedJob>(FileURL(source));
  job->setVerificationOptions(allReadBacks);

  const PhaseRun run = runPhase([&](platform::ErrorPlace error) { return job->finishVerification(error); });

  EXPECT_TRUE(run.succeeded);
  EXPECT_EQ(std::nullopt, run.error);
  EXPECT_EQ("", run.output);
}

TEST_F(KDXDispatchCopyFinishVerification, WaitsForEverythingThatIsReadBackInThisProcess) {
  std::promise<void> gate;
  std::atomic<bool> ended = false;
  const auto queue = KDXFileSystemOperationQueueManager::sharedOperationQueueManager().operationQueueForURL(
      FileURL("/another/job's/file"));
  queue->addOperationWithBlock([&] {
    gate.get_future().wait();
    ended = true;
  });
  const auto job = std::make_shared<ObservedJob>(FileURL(source));

  std::thread opener([&] { gate.set_value(); });
  const bool finished = job->finishVerification(nullptr);
  const bool endedBefore = ended;
  opener.join();

  EXPECT_TRUE(finished);
  EXPECT_TRUE(endedBefore);
}

class KDXDispatchCopyVerificationSpeed : public VerificationTest {
 protected:
  // The lines of a verbose run. A machine that is busy for half a second adds lines of progress.
  [[nodiscard]] static Lines linesOfVerboseRun(const std::shared_ptr<ObservedJob>& job) {
    job->setVerbose(true);
    Lines lines = linesOf(verify(*job)->output);
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("INFO: verified "); });
    return lines;
  }
  [[nodiscard]] static std::string speedOf(const std::string& size) {
    return "INFO: verification speed " + size + " bytes in [0-9]+\\.[0-9]{5} sec \\([0-9]+\\.[0-9] MB/sec\\)";
  }
};

TEST_F(KDXDispatchCopyVerificationSpeed, CountsTheSourceOnceHoweverManyFilesWereReadBack) {
  Lines lines = linesOfVerboseRun(copied({first, second}, allReadBacks));

  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(lines.back(), MatchesRegex(speedOf(size)));
  lines.pop_back();
  expectSideBySide({linesOfGoodDestination(1, first), linesOfGoodDestination(2, second), linesOfGoodSource(3)}, lines);
}

TEST_F(KDXDispatchCopyVerificationSpeed, IsThatOfTheSizeExpected) {
  const Lines lines =
      linesOfVerboseRun(copied({first}, destinationsOnly, KDXDigestAlgorithmMD5, std::nullopt, 123456789));

  EXPECT_THAT(lines, Contains(MatchesRegex(speedOf("123456789"))));
}

TEST_F(KDXDispatchCopyVerificationSpeed, IsToldWhenTheSourceAloneWasReadBack) {
  EXPECT_THAT(linesOfVerboseRun(copied({first}, sourceOnly)), Contains(MatchesRegex(speedOf(size))));
}

TEST_F(KDXDispatchCopyVerificationSpeed, IsNotToldWhenNothingWasReadBack) {
  EXPECT_THAT(linesOfVerboseRun(copied({first}, hashOnly)),
              ElementsAre("Copy completed successfully for destination file with file size check (" + first + ")"));
}

TEST_F(KDXDispatchCopyVerificationSpeed, IsNotToldWhenAFileFailed) {
  const auto job = copied({first}, destinationsOnly);
  damageFile(temporary(first), 1);

  expectSideBySide({linesOfBadFile("destination", 1, temporary(first), digestByProgram("md5sum", source))},
                   linesOfVerboseRun(job));
}

TEST_F(KDXDispatchCopyReadBack, OfAVerboseJobReportsItsProgressWhenHalfASecondHasPassed) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;

  // Only the read-back reads the destination; its second read takes more than half a second.
  const ToolRun run = runTool({.arguments = {"-v", source, first},
                               .wrapper = injectingAt(temporary(first), {"read:delay_exit=600000:when=2"}),
                               .environment = {{"XDG_CONFIG_HOME", settings.path().string()}}});

  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(run.lines(), Contains("INFO: verified " + size + " of " + size + " bytes of path " + directory("a")));
}

}  // namespace
