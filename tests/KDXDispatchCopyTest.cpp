// The copy job itself: how it is configured, and its first phase, the copy.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <limits>
#include <set>
#include <tuple>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
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
constexpr int32_t allReadBacks = 14;

// Opens what the phases share.
class ObservedJob : public KDXDispatchCopy {
 public:
  explicit ObservedJob(std::optional<FileURL> source) : KDXDispatchCopy(std::move(source)) {}
  using KDXDispatchCopy::_bytesHashed;
  using KDXDispatchCopy::_externalDigestAlgorithm;
  using KDXDispatchCopy::_externalDigestContext;
  using KDXDispatchCopy::_sourceDigestContext;
  using KDXDispatchCopy::_sourceFileSize;
};

// A source of the test's own, read in buffers of 1 MiB.
class CopyJobTest : public testing::Test {
 protected:
  CopyJobTest() {
    writeFile(settings.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
    ::setenv("XDG_CONFIG_HOME", settings.path().c_str(), 1);
  }

  // An MD5 job; the options are those of a run that reads nothing back.
  [[nodiscard]] std::shared_ptr<ObservedJob> jobTo(const Names& destinations) const {
    auto job = std::make_shared<ObservedJob>(FileURL(source));
    for (const std::string& destination : destinations) job->addDestinationURL(FileURL(destination));
    job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
    job->setVerificationOptions(hashOnly);
    return job;
  }

  [[nodiscard]] std::string startLine() const { return "INFO: copying " + scratch.file("card") + "...\n"; }
  [[nodiscard]] std::string md5Line() const { return "hash MD5:" + digestByProgram("md5sum", source) + "\n"; }

  const ScratchDirectory settings;
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  const std::string bytes = mediaBytes(100 * KiB + 17);
};

// Configuration.

class KDXDispatchCopyConfiguration : public CopyJobTest {};

TEST_F(KDXDispatchCopyConfiguration, ANewJobHasItsSourceAndNothingElse) {
  const auto job = KDXDispatchCopy::initWithSourceURL(FileURL(source));

  ASSERT_NE(nullptr, job);
  EXPECT_EQ(FileURL(source), job->sourceURL());
  EXPECT_THAT(job->destinationURLs(), IsEmpty());
  EXPECT_EQ(0U, job->digestAlgorithm());
  EXPECT_EQ(0, job->verificationOptions());
  EXPECT_TRUE(job->skipVerification());
  EXPECT_FALSE(job->verbose());
  EXPECT_FALSE(job->skipFlush());
  EXPECT_FALSE(job->forceOverwrite());
  EXPECT_FALSE(job->continueOnVerificationError());
  EXPECT_EQ(std::nullopt, job->expectedFilesize());
  EXPECT_EQ(std::nullopt, job->externalHash());
}

TEST_F(KDXDispatchCopyConfiguration, ANewJobHasCountedNothingAndHasNoDigestContexts) {
  const ObservedJob job{FileURL(source)};

  EXPECT_EQ(0U, job._bytesHashed);
  EXPECT_EQ(0U, job._sourceFileSize);
  EXPECT_EQ(nullptr, job._sourceDigestContext);
  EXPECT_EQ(nullptr, job._externalDigestContext);
  EXPECT_EQ(0, job._externalDigestAlgorithm);
}

TEST_F(KDXDispatchCopyConfiguration, AJobCanBeMadeWithoutASource) {
  EXPECT_EQ(std::nullopt, KDXDispatchCopy::initWithSourceURL(std::nullopt)->sourceURL());
}

TEST_F(KDXDispatchCopyConfiguration, EverySettingIsReadBackAsItWasSet) {
  const auto job = KDXDispatchCopy::initWithSourceURL(FileURL(source));

  job->setVerbose(true);
  job->setSkipFlush(true);
  job->setForceOverwrite(true);
  job->setContinueOnVerificationError(true);
  job->setExpectedFilesize(5'000'000'000);
  job->setExternalHash("MD5:abc");
  EXPECT_TRUE(job->verbose());
  EXPECT_TRUE(job->skipFlush());
  EXPECT_TRUE(job->forceOverwrite());
  EXPECT_TRUE(job->continueOnVerificationError());
  EXPECT_EQ(5'000'000'000, job->expectedFilesize());
  EXPECT_EQ("MD5:abc", job->externalHash());

  job->setVerbose(false);
  job->setSkipFlush(false);
  job->setForceOverwrite(false);
  job->setContinueOnVerificationError(false);
  job->setExpectedFilesize(std::nullopt);
  job->setExternalHash(std::nullopt);
  EXPECT_FALSE(job->verbose());
  EXPECT_FALSE(job->skipFlush());
  EXPECT_FALSE(job->forceOverwrite());
  EXPECT_FALSE(job->continueOnVerificationError());
  EXPECT_EQ(std::nullopt, job->expectedFilesize());
  EXPECT_EQ(std::nullopt, job->externalHash());
}

class KDXDispatchCopyOptions : public testing::TestWithParam<int32_t> {};

TEST_P(KDXDispatchCopyOptions, SkipVerificationExactlyWhenNoFileIsToBeReadBack) {
  const std::set<int32_t> nothingIsReadBack = {0, 1, 2, 3, 16, 17, 18, 19};
  const auto job = KDXDispatchCopy::initWithSourceURL(std::nullopt);

  job->setVerificationOptions(GetParam());

  EXPECT_EQ(GetParam(), job->verificationOptions());
  EXPECT_EQ(nothingIsReadBack.contains(GetParam()), job->skipVerification());
}

INSTANTIATE_TEST_SUITE_P(From0To30, KDXDispatchCopyOptions, testing::Range(0, 31));

struct AlgorithmCode : NamedRow {
  uint32_t code;
  uint32_t algorithmOfJob;
};

class KDXDispatchCopyAlgorithm : public testing::TestWithParam<AlgorithmCode> {};

TEST_P(KDXDispatchCopyAlgorithm, IsThatOfTheDigestContextWhichReplacesTheOneBefore) {
  ObservedJob job(std::nullopt);
  job.setDigestAlgorithm(KDXDigestAlgorithmSHA1);
  const std::shared_ptr<KDXDigestContext> before = job._sourceDigestContext;

  job.setDigestAlgorithm(GetParam().code);

  EXPECT_EQ(GetParam().algorithmOfJob, job.digestAlgorithm());
  EXPECT_NE(before, job._sourceDigestContext);
  EXPECT_EQ(GetParam().algorithmOfJob == 0, job._sourceDigestContext == nullptr);
}

INSTANTIATE_TEST_SUITE_P(Codes, KDXDispatchCopyAlgorithm,
                         testing::Values(AlgorithmCode{"SHA1", 1, 1}, AlgorithmCode{"MD5", 2, 2},
                                         AlgorithmCode{"XXHash64", 8, 8}, AlgorithmCode{"XXHash64BE", 16, 16},
                                         AlgorithmCode{"None", 0, 0}, AlgorithmCode{"TwoBits", 3, 0},
                                         AlgorithmCode{"UnknownBit", 4, 0}, AlgorithmCode{"BeyondTheLast", 32, 0},
                                         AlgorithmCode{"AllBits", 0xFFFFFFFFU, 0}),
                         testing::PrintToStringParamName());

struct TemporaryName : NamedRow {
  const char* given;
  const char* stored;
};

class KDXDispatchCopyTemporaryName : public testing::TestWithParam<TemporaryName> {};

TEST_P(KDXDispatchCopyTemporaryName, IsTheGivenNameWithAnExtensionAdded) {
  const auto job = KDXDispatchCopy::initWithSourceURL(std::nullopt);

  job->addDestinationURL(FileURL(GetParam().given));

  EXPECT_THAT(job->destinationURLs(), ElementsAre(FileURL(GetParam().stored)));
}

INSTANTIATE_TEST_SUITE_P(
    Names, KDXDispatchCopyTemporaryName,
    testing::Values(TemporaryName{"OneExtension", "/Volumes/B/clip.mov", "/Volumes/B/clip.mov.kdxcopy"},
                    TemporaryName{"NoExtension", "/Volumes/B/clip", "/Volumes/B/clip.kdxcopy"},
                    TemporaryName{"SeveralDots", "/Volumes/B/a.b.c.mov", "/Volumes/B/a.b.c.mov.kdxcopy"},
                    TemporaryName{"DotFile", "/Volumes/B/.clip", "/Volumes/B/.clip.kdxcopy"},
                    TemporaryName{"DotAtTheEnd", "/Volumes/B/clip.", "/Volumes/B/clip..kdxcopy"},
                    TemporaryName{"AlreadyATemporaryName", "/Volumes/B/clip.mov.kdxcopy",
                                  "/Volumes/B/clip.mov.kdxcopy.kdxcopy"},
                    TemporaryName{"DotInAFolder", "/Volumes/B.1/clip", "/Volumes/B.1/clip.kdxcopy"}),
    testing::PrintToStringParamName());

TEST_F(KDXDispatchCopyConfiguration, DestinationsAreKeptInTheOrderAddedTheSameOneTwiceIncluded) {
  const auto job = KDXDispatchCopy::initWithSourceURL(FileURL(source));

  for (const char* path : {"/b/clip.mov", "/a/clip.mov", "/b/clip.mov"}) job->addDestinationURL(FileURL(path));

  EXPECT_THAT(job->destinationURLs(), ElementsAre(FileURL("/b/clip.mov.kdxcopy"), FileURL("/a/clip.mov.kdxcopy"),
                                                  FileURL("/b/clip.mov.kdxcopy")));
}

// The start line.

TEST_F(KDXDispatchCopyConfiguration, TheStartLineNamesTheDirectoryOfTheSource) {
  const auto job = KDXDispatchCopy::initWithSourceURL(FileURL("/Volumes/Card 1/DCIM/clip.mov"));

  EXPECT_EQ("INFO: copying /Volumes/Card 1/DCIM...\n", outputOf([&] { job->logCopyStart(); }));
}

TEST_F(KDXDispatchCopyConfiguration, TheStartLineOfASourceInTheRootNamesTheRoot) {
  const auto job = KDXDispatchCopy::initWithSourceURL(FileURL("/clip.mov"));

  EXPECT_EQ("INFO: copying /...\n", outputOf([&] { job->logCopyStart(); }));
}

TEST_F(KDXDispatchCopyConfiguration, TheStartLineOfAJobWithoutASourceNamesNone) {
  const auto job = KDXDispatchCopy::initWithSourceURL(std::nullopt);

  EXPECT_EQ("INFO: copying (null)...\n", outputOf([&] { job->logCopyStart(); }));
}

TEST_F(KDXDispatchCopyConfiguration, TheStartLineIsQueuedBehindEarlierLinesAndKeepsTheJobUntilItIsOut) {
  std::promise<void> gate;
  std::weak_ptr<KDXDispatchCopy> job;
  bool keptMeanwhile = false;

  const std::string output = outputOf([&] {
    platform::logQueue().async([&] { gate.get_future().wait(); });
    platform::queueLine("earlier\n");
    {
      const auto mine = KDXDispatchCopy::initWithSourceURL(FileURL("/card/clip.mov"));
      mine->logCopyStart();
      job = mine;
    }
    keptMeanwhile = !job.expired();
    gate.set_value();
  });

  EXPECT_TRUE(keptMeanwhile);
  EXPECT_TRUE(job.expired());
  EXPECT_EQ("earlier\nINFO: copying /card...\n", output);
}

// The expected size.

class KDXDispatchCopyExpectedSize : public CopyJobTest {
 protected:
  [[nodiscard]] uint64_t sizeTakenFor(std::optional<int64_t> expected, int32_t options) const {
    writeFile(source, bytes);
    const auto job = jobTo({});
    job->setExpectedFilesize(expected);
    job->setVerificationOptions(options);
    bool copied = false;
    std::ignore = outputOf([&] { copied = job->performCopy(nullptr); });
    EXPECT_TRUE(copied);
    return job->_sourceFileSize;
  }
};

TEST_F(KDXDispatchCopyExpectedSize, IsTakenForTheSizeOfTheSource) {
  EXPECT_EQ(bytes.size(), sizeTakenFor(static_cast<int64_t>(bytes.size()), hashOnly));
}

TEST_F(KDXDispatchCopyExpectedSize, IsTakenEvenWhenItIsWrong) {
  EXPECT_EQ(42U, sizeTakenFor(42, hashOnly));
}

TEST_F(KDXDispatchCopyExpectedSize, IsTakenWhenSizesOnDiskAreNotToBeLookedAt) {
  EXPECT_EQ(42U, sizeTakenFor(42, hashOnly | KDXVerificationOptionSkipFileSizeCheck));
}

TEST_F(KDXDispatchCopyExpectedSize, IsTakenAsAnUnsignedNumber) {
  EXPECT_EQ(std::numeric_limits<uint64_t>::max(), sizeTakenFor(-1, hashOnly));
}

TEST_F(KDXDispatchCopyExpectedSize, OfZeroAsksTheFileSystem) {
  EXPECT_EQ(bytes.size(), sizeTakenFor(0, hashOnly));
}

TEST_F(KDXDispatchCopyExpectedSize, OfZeroStaysUnknownWhenSizesOnDiskAreNotToBeLookedAt) {
  EXPECT_EQ(0U, sizeTakenFor(0, hashOnly | KDXVerificationOptionSkipFileSizeCheck));
}

TEST_F(KDXDispatchCopyExpectedSize, NotGivenAsksTheFileSystem) {
  EXPECT_EQ(bytes.size(), sizeTakenFor(std::nullopt, hashOnly));
}

TEST_F(KDXDispatchCopyExpectedSize, NotGivenStaysUnknownWhenSizesOnDiskAreNotToBeLookedAt) {
  EXPECT_EQ(0U, sizeTakenFor(std::nullopt, hashOnly | KDXVerificationOptionSkipFileSizeCheck));
}

// The overwrite check.

class KDXDispatchCopyOverwriteCheck : public CopyJobTest {
 protected:
  KDXDispatchCopyOverwriteCheck() { writeFile(source, bytes); }

  // The copy is refused for the name that is taken, and nothing is created.
  void expectRefused(const Names& destinations, const std::string& taken) const {
    const Names before = namesBelow(scratch.path());
    const PhaseRun phase = copied(*jobTo(destinations));
    EXPECT_FALSE(phase.succeeded);
    ASSERT_TRUE(phase.error);
    EXPECT_EQ("KDXCopyErrorDomain", phase.error->domain);
    EXPECT_EQ(109, phase.error->code);
    EXPECT_EQ(taken + " already exists", phase.error->description);
    EXPECT_EQ(startLine(), phase.output);
    EXPECT_EQ(before, namesBelow(scratch.path()));
  }

  const std::string first = scratch.file("a/clip.mov");
  const std::string second = scratch.file("b/clip.mov");
};

TEST_F(KDXDispatchCopyOverwriteCheck, RefusesAFirstDestinationThatExistsAndCreatesNothing) {
  writeFile(first, "old");
  expectRefused({first, second}, first);
  EXPECT_EQ("old", readFile(first));
}

TEST_F(KDXDispatchCopyOverwriteCheck, RefusesASecondDestinationThatExistsAndCreatesNothing) {
  writeFile(second, "old");
  expectRefused({first, second}, second);
}

TEST_F(KDXDispatchCopyOverwriteCheck, ReportsTheFirstOfTwoThatExist) {
  writeFile(first, "old");
  writeFile(second, "old");
  expectRefused({second, first}, second);
}

TEST_F(KDXDispatchCopyOverwriteCheck, RefusesWithoutAPlaceForTheErrorToo) {
  writeFile(second, "old");
  const auto job = jobTo({first, second});
  bool copied = true;

  std::ignore = outputOf([&] { copied = job->performCopy(nullptr); });

  EXPECT_FALSE(copied);
  EXPECT_EQ((Names{"b/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyOverwriteCheck, RefusesADirectoryAtTheFinalName) {
  fs::create_directory(first);
  expectRefused({first}, first);
}

TEST_F(KDXDispatchCopyOverwriteCheck, RefusesALinkToNowhereAtTheFinalName) {
  fs::create_symlink("nowhere", first);
  expectRefused({first}, first);
}

TEST_F(KDXDispatchCopyOverwriteCheck, ComesBeforeTheExternalHashAndTheSourceAreLookedAt) {
  writeFile(first, "old");
  fs::remove(source);
  const ChildRun ending = endingOf([&] {
    const auto job = jobTo({first});
    job->setExternalHash("not understood");
    if (job->performCopy(nullptr)) ::_exit(1);
  });

  EXPECT_EQ(cameBack, ending.exitStatus);
  EXPECT_EQ(startLine(), ending.output);
}

TEST_F(KDXDispatchCopyOverwriteCheck, LetsAnOldTemporaryFilePassWhichIsReplacedWhole) {
  writeFile(first + ".kdxcopy", mediaBytes(2 * bytes.size(), 7));
  const auto job = jobTo({first});

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(bytes, readFile(first + ".kdxcopy"));
}

TEST_F(KDXDispatchCopyOverwriteCheck, IsLeftOutByForceOverwriteAndTheOldFileStaysDuringTheCopy) {
  writeFile(first, "old");
  const auto job = jobTo({first});
  job->setForceOverwrite(true);

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(std::nullopt, phase.error);
  EXPECT_EQ(startLine() + md5Line(), phase.output);
  EXPECT_EQ("old", readFile(first));
  EXPECT_EQ(bytes, readFile(first + ".kdxcopy"));
}

// The external hash.

struct MalformedHash : NamedRow {
  const char* text;
  const char* message;
};

class KDXDispatchCopyMalformedExternalHash : public CopyJobTest, public testing::WithParamInterface<MalformedHash> {};

TEST_P(KDXDispatchCopyMalformedExternalHash, EndsTheProcessBeforeAnythingIsCreated) {
  writeFile(source, bytes);
  const ChildRun ending = endingOf([&] {
    const auto job = jobTo({scratch.file("a/clip.mov")});
    job->setExternalHash(GetParam().text);
    job->performCopy(nullptr);
  });

  EXPECT_EQ(1, ending.exitStatus);
  EXPECT_EQ(startLine() + GetParam().message + GetParam().text + "\n", ending.output);
  EXPECT_EQ((Names{"card/clip.mov"}), namesBelow(scratch.path()));
}

constexpr const char* invalidString = "invalid external hash string: ";
constexpr const char* invalidFormat = "invalid external hash format: ";

INSTANTIATE_TEST_SUITE_P(Forms, KDXDispatchCopyMalformedExternalHash,
                         testing::Values(MalformedHash{"NoColon", "MD5", invalidString},
                                         MalformedHash{"EmptyDigest", "MD5:", invalidString},
                                         MalformedHash{"TwoColons", "a:b:c", invalidString},
                                         MalformedHash{"TwoColonsInARow", "MD5::abc", invalidString},
                                         MalformedHash{"ColonAtTheEnd", "MD5:abc:", invalidString},
                                         MalformedHash{"Nothing", "", invalidString},
                                         MalformedHash{"ColonAlone", ":", invalidString},
                                         MalformedHash{"TwoColonsAlone", "::", invalidString},
                                         MalformedHash{"LowerCaseName", "md5:abc", invalidFormat},
                                         MalformedHash{"EmptyName", ":abc", invalidFormat},
                                         MalformedHash{"UnknownName", "CRC32:abc", invalidFormat},
                                         MalformedHash{"BeginningOfAName", "XXHash:abc", invalidFormat},
                                         MalformedHash{"MoreThanAName", "SHA1x:abc", invalidFormat},
                                         MalformedHash{"SpaceInFrontOfTheName", " MD5:abc", invalidFormat},
                                         MalformedHash{"CharactersOfFormats", "%s{}:%n{0}", invalidFormat}),
                         testing::PrintToStringParamName());

struct ExternalHash : NamedRow {
  uint32_t copyAlgorithm;
  const char* text;
  uint32_t externalAlgorithm;  // 0: no context of its own
};

class KDXDispatchCopyExternalHash : public CopyJobTest, public testing::WithParamInterface<ExternalHash> {};

TEST_P(KDXDispatchCopyExternalHash, GetsADigestOfItsOwnExactlyWhenTheAlgorithmIsNotThatOfTheCopy) {
  const auto job = jobTo({});
  job->setDigestAlgorithm(GetParam().copyAlgorithm);
  job->setExternalHash(GetParam().text);

  job->setupHash();

  EXPECT_EQ(GetParam().externalAlgorithm, static_cast<uint32_t>(job->_externalDigestAlgorithm));
  EXPECT_EQ(GetParam().externalAlgorithm, job->_externalDigestContext ? job->_externalDigestContext->algorithm() : 0U);
  EXPECT_EQ(GetParam().copyAlgorithm, job->digestAlgorithm());
}

INSTANTIATE_TEST_SUITE_P(
    Algorithms, KDXDispatchCopyExternalHash,
    testing::Values(ExternalHash{"MD5OfMD5", 2, "MD5:abc", 0}, ExternalHash{"SHA1OfSHA1", 1, "SHA1:abc", 0},
                    ExternalHash{"BEOfBE", 16, "XXHash64BE:abc", 0}, ExternalHash{"LEOfLE", 8, "XXHash64:abc", 0},
                    ExternalHash{"MD5OfSHA1", 1, "MD5:abc", 2}, ExternalHash{"SHA1OfMD5", 2, "SHA1:abc", 1},
                    ExternalHash{"BEOfLE", 8, "XXHash64BE:abc", 16}, ExternalHash{"LEOfBE", 16, "XXHash64:abc", 8},
                    ExternalHash{"MD5WithoutACopyDigest", 0, "MD5:abc", 2},
                    ExternalHash{"LEWithoutACopyDigest", 0, "XXHash64:abc", 8}),
    testing::PrintToStringParamName());

TEST_F(KDXDispatchCopyConfiguration, WithoutAnExternalHashNothingIsPreparedForIt) {
  const auto job = jobTo({});

  job->setupHash();

  EXPECT_EQ(nullptr, job->_externalDigestContext);
  EXPECT_EQ(0, job->_externalDigestAlgorithm);
}

class KDXDispatchCopyPhase : public CopyJobTest {};

TEST_F(KDXDispatchCopyPhase, FeedsAnExternalDigestInAnotherAlgorithmBesideThatOfTheCopy) {
  writeFile(source, mediaBytes(MiB + 5));
  const auto job = jobTo({});
  job->setExternalHash("SHA1:abc");

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine() + md5Line(), phase.output);
  ASSERT_NE(nullptr, job->_externalDigestContext);
  EXPECT_EQ("SHA1:" + digestByProgram("sha1sum", source), job->_externalDigestContext->digestString());
}

TEST_F(KDXDispatchCopyPhase, FeedsAnExternalDigestWithoutACopyDigestAndPrintsNone) {
  writeFile(source, mediaBytes(MiB + 5));
  const auto job = jobTo({scratch.file("a/clip.mov")});
  job->setDigestAlgorithm(KDXDigestAlgorithmNone);
  job->setVerificationOptions(0);
  job->setExternalHash("SHA1:abc");

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine(), phase.output);
  ASSERT_NE(nullptr, job->_externalDigestContext);
  EXPECT_EQ("SHA1:" + digestByProgram("sha1sum", source), job->_externalDigestContext->digestString());
}

// The digests.

struct DigestProgram : NamedRow {
  uint32_t algorithm;
  const char* program;
};

class KDXDispatchCopyDigest : public CopyJobTest, public testing::WithParamInterface<DigestProgram> {};

TEST_P(KDXDispatchCopyDigest, OfTheBytesCopiedIsPrintedAndAgreesWithTheProgramForIt) {
  writeFile(source, mediaBytes(MiB + 4097));
  const auto job = jobTo({scratch.file("a/clip.mov")});
  job->setDigestAlgorithm(GetParam().algorithm);

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine() + "hash " + GetParam().name + ":" + digestByProgram(GetParam().program, source) + "\n",
            phase.output);
}

INSTANTIATE_TEST_SUITE_P(Algorithms, KDXDispatchCopyDigest,
                         testing::Values(DigestProgram{"MD5", 2, "md5sum"}, DigestProgram{"SHA1", 1, "sha1sum"},
                                         DigestProgram{"XXHash64BE", 16, "xxh64sum"},
                                         DigestProgram{"XXHash64", 8, "xxh64sum --little-endian"}),
                         testing::PrintToStringParamName());

TEST_F(KDXDispatchCopyConfiguration, UpdateHashCountsBytesWithoutADigest) {
  const auto job = jobTo({});
  job->setDigestAlgorithm(KDXDigestAlgorithmNone);

  job->updateHash(std::as_bytes(std::span("abc", 3)));
  job->updateHash(std::as_bytes(std::span("de", 2)));

  EXPECT_EQ(5U, job->_bytesHashed);
}

TEST_F(KDXDispatchCopyConfiguration, UpdateHashFeedsBothDigestsAndFinalizeHashEndsBothAndPrintsThatOfTheCopy) {
  const auto job = jobTo({});
  job->setExternalHash("SHA1:abc");
  job->setupHash();
  ASSERT_NE(nullptr, job->_externalDigestContext);

  job->updateHash(std::as_bytes(std::span("abc", 3)));
  const std::string output = outputOf([&] { job->finalizeHash(); });

  EXPECT_EQ(3U, job->_bytesHashed);
  EXPECT_EQ("hash MD5:900150983cd24fb0d6963f7d28e17f72\n", output);
  EXPECT_EQ("SHA1:a9993e364706816aba3e25717850c26c9cd0d89d", job->_externalDigestContext->digestString());
}

TEST_F(KDXDispatchCopyConfiguration, FinalizeHashWithoutDigestsPrintsNothing) {
  const auto job = jobTo({});
  job->setDigestAlgorithm(KDXDigestAlgorithmNone);

  EXPECT_EQ("", outputOf([&] { job->finalizeHash(); }));
}

// The copy.

class KDXDispatchCopySizes : public CopyJobTest, public testing::WithParamInterface<std::tuple<std::size_t, int>> {};

TEST_P(KDXDispatchCopySizes, EveryDestinationGetsEveryByteUnderItsTemporaryName) {
  const auto [size, count] = GetParam();
  const std::string content = mediaBytes(size);
  writeFile(source, content);
  Names destinations;
  Names names = {"card/clip.mov"};
  for (int index = 0; index < count; ++index) {
    const std::string name = std::to_string(index) + "/clip.mov";
    destinations.push_back(scratch.file(name));
    names.insert(names.end() - 1, name + ".kdxcopy");
  }
  const auto job = jobTo(destinations);

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(std::nullopt, phase.error);
  EXPECT_EQ(startLine() + md5Line(), phase.output);
  EXPECT_EQ(size, job->_bytesHashed);
  EXPECT_EQ(size, job->_sourceFileSize);
  EXPECT_EQ(names, namesBelow(scratch.path()));
  for (const FileURL& temporaryURL : job->destinationURLs()) EXPECT_TRUE(content == readFile(temporaryURL.path()));
}

INSTANTIATE_TEST_SUITE_P(AroundTheBuffer, KDXDispatchCopySizes,
                         testing::Combine(testing::Values(0, 1, MiB - 1, MiB, MiB + 1, 2 * MiB, 2 * MiB + 1),
                                          testing::Values(0, 1, 2, 5)),
                         [](const auto& row) {
                           return std::to_string(std::get<0>(row.param)) + "BytesTo" +
                                  std::to_string(std::get<1>(row.param));
                         });

TEST_F(KDXDispatchCopyPhase, OfNothingGivesEmptyDestinationsAndTheDigestOfNoData) {
  writeFile(source, "");
  const std::string destination = scratch.file("a/clip.mov");
  const auto job = jobTo({destination});

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine() + "hash MD5:d41d8cd98f00b204e9800998ecf8427e\n", phase.output);
  EXPECT_EQ("", readFile(destination + ".kdxcopy"));
}

TEST_F(KDXDispatchCopyPhase, WithoutDestinationsStillReadsAndDigestsTheSource) {
  writeFile(source, bytes);
  const auto job = jobTo({});

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine() + md5Line(), phase.output);
  EXPECT_EQ(bytes.size(), job->_bytesHashed);
  EXPECT_EQ((Names{"card/clip.mov"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyPhase, WithoutADigestPrintsNoDigestAndStillCountsTheBytes) {
  writeFile(source, bytes);
  const std::string destination = scratch.file("a/clip.mov");
  const auto job = jobTo({destination});
  job->setDigestAlgorithm(KDXDigestAlgorithmNone);
  job->setVerificationOptions(0);

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine(), phase.output);
  EXPECT_EQ(bytes.size(), job->_bytesHashed);
  EXPECT_TRUE(bytes == readFile(destination + ".kdxcopy"));
}

TEST_F(KDXDispatchCopyPhase, OfAVerboseJobEndsWithItsSpeed) {
  writeFile(source, bytes);
  const auto job = jobTo({scratch.file("a/clip.mov")});
  job->setVerbose(true);
  bool copied = false;

  std::vector<std::string> lines = linesOf(outputOf([&] { copied = job->performCopy(nullptr); }));
  // A machine that is busy for half a second adds a line of progress.
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("INFO: copied "); });

  EXPECT_TRUE(copied);
  EXPECT_THAT(lines, ElementsAre("INFO: copying " + scratch.file("card") + "...",
                                 "hash MD5:" + digestByProgram("md5sum", source),
                                 MatchesRegex("INFO: copy speed " + std::to_string(bytes.size()) +
                                              " bytes in [0-9]+\\.[0-9]{5} sec \\([0-9]+\\.[0-9] MB/sec\\)")));
}

TEST_F(KDXDispatchCopyPhase, OfAVerboseJobReportsItsProgressWhenHalfASecondHasPassed) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  writeFile(source, mediaBytes(MiB + 1));
  const std::string size = std::to_string(MiB + 1);

  // The second read of the source takes more than half a second.
  const ToolRun run = runTool({.arguments = {"-v", "-k", source, scratch.file("a/clip.mov")},
                               .wrapper = injectingAt(source, {"read:delay_exit=600000:when=2"}),
                               .environment = {{"XDG_CONFIG_HOME", settings.path().string()}}});

  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(run.lines(), Contains("INFO: copied " + size + " of " + size + " bytes"));
}

TEST_F(KDXDispatchCopyPhase, ReadsTheSourceFromTheDeviceOnceForAllDestinations) {
  std::string whyNot;
  const auto card = MountedFileSystem::mount("ext4", 16 * MiB, whyNot);
  if (!card) GTEST_SKIP() << whyNot;
  constexpr std::size_t size = 4 * MiB;
  const std::string onCard = card->file("clip.mov");
  writeFile(onCard, mediaBytes(size));
  const auto job = std::make_shared<ObservedJob>(FileURL(onCard));
  for (const char* name : {"a/clip.mov", "b/clip.mov", "c/clip.mov"}) {
    job->addDestinationURL(FileURL(scratch.file(name)));
  }
  job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
  job->setVerificationOptions(hashOnly);
  MountedFileSystem::fillCache(onCard);
  const uint64_t before = card->bytesReadFromDevice();

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  const uint64_t read = card->bytesReadFromDevice() - before;
  EXPECT_GE(read, size);
  EXPECT_LT(read, size + MiB);
}

TEST_F(KDXDispatchCopyPhase, LeavesNothingOfTheDestinationsInTheCache) {
  std::string whyNot;
  const auto backup = MountedFileSystem::mount("ext4", 16 * MiB, whyNot);
  if (!backup) GTEST_SKIP() << whyNot;
  writeFile(source, mediaBytes(2 * MiB + 17));
  const std::string destination = backup->file("clip.mov");
  const auto job = jobTo({destination});

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(0U, MountedFileSystem::bytesInCache(destination + ".kdxcopy"));
}

// Failures from which the copy cannot go on.

class KDXDispatchCopyFailure : public CopyJobTest {
 protected:
  [[nodiscard]] ChildRun endingOfCopyTo(const Names& destinations) const {
    return endingOf([&] { jobTo(destinations)->performCopy(nullptr); });
  }

  const std::string first = scratch.file("a/clip.mov");
  const std::string second = scratch.file("b/clip.mov");
};

TEST_F(KDXDispatchCopyFailure, ADestinationThatCanNotBeCreatedEndsTheProcessWithoutAMessage) {
  writeFile(source, bytes);

  const ChildRun ending = endingOfCopyTo({first, (scratch.path() / "missing/clip.mov").string()});

  EXPECT_EQ(107, ending.exitStatus);
  EXPECT_EQ(startLine(), ending.output);
  EXPECT_EQ((Names{"a/clip.mov.kdxcopy", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("", readFile(first + ".kdxcopy"));
}

TEST_F(KDXDispatchCopyFailure, ADirectoryAtTheTemporaryNameEndsTheProcess) {
  writeFile(source, bytes);
  fs::create_directory(first + ".kdxcopy");

  EXPECT_EQ(107, endingOfCopyTo({first}).exitStatus);
}

TEST_F(KDXDispatchCopyFailure, ALinkPlantedAtTheTemporaryNameEndsTheProcessAndIsNotWrittenThrough) {
  writeFile(source, bytes);
  const std::string elsewhere = scratch.file("elsewhere");
  writeFile(elsewhere, "kept");
  fs::create_symlink(elsewhere, first + ".kdxcopy");

  EXPECT_EQ(107, endingOfCopyTo({first}).exitStatus);
  EXPECT_EQ("kept", readFile(elsewhere));
}

TEST_F(KDXDispatchCopyFailure, ASourceThatIsItsOwnTemporaryNameEndsTheProcessAndIsNotEmptied) {
  const std::string temporary = scratch.file("card/take.mov.kdxcopy");
  writeFile(temporary, bytes);

  const ChildRun ending = endingOf([&] {
    const auto job = KDXDispatchCopy::initWithSourceURL(FileURL(temporary));
    job->addDestinationURL(FileURL(scratch.file("card/take.mov")));
    job->performCopy(nullptr);
  });

  EXPECT_EQ(107, ending.exitStatus);
  EXPECT_EQ(startLine(), ending.output);
  EXPECT_TRUE(bytes == readFile(temporary));
}

TEST_F(KDXDispatchCopyFailure, ASourceThatCanNotBeOpenedIsNamedAndTheTemporaryFilesStay) {
  const ChildRun ending = endingOfCopyTo({first, second});

  EXPECT_EQ(108, ending.exitStatus);
  EXPECT_EQ(startLine() + "ERROR: could not open file at path: " + source + "\n", ending.output);
  EXPECT_EQ((Names{"a/clip.mov.kdxcopy", "b/clip.mov.kdxcopy"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyFailure, ASourceThatCanNotBeReadEndsTheProcessWithoutAMessageAndTheTemporaryFilesStay) {
  fs::create_directory(source);

  const ChildRun ending = endingOfCopyTo({first});

  EXPECT_EQ(111, ending.exitStatus);
  EXPECT_EQ(startLine(), ending.output);
  EXPECT_EQ((Names{"a/clip.mov.kdxcopy"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyFailure, AFailedWriteEndsTheProcessWithALineThatIsNotEndedAndTheTemporaryFileStays) {
  writeFile(source, mediaBytes(MiB + 1));

  const ChildRun ending = endingOf([&] {
    const FileSizeLimit limit(MiB);
    jobTo({first})->performCopy(nullptr);
  });

  EXPECT_EQ(110, ending.exitStatus);
  EXPECT_EQ(startLine() + "write failed: -1", ending.output);
  EXPECT_EQ((Names{"a/clip.mov.kdxcopy", "card/clip.mov"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyFailure, TheSameCopyWithRoomForEveryByteComesBack) {
  writeFile(source, mediaBytes(MiB + 1));
  const std::string md5 = md5Line();

  const ChildRun ending = endingOf([&] {
    const FileSizeLimit limit(MiB + 1);
    jobTo({first})->performCopy(nullptr);
  });

  EXPECT_EQ(cameBack, ending.exitStatus);
  EXPECT_EQ(startLine() + md5, ending.output);
}

TEST_F(KDXDispatchCopyFailure, AShortWriteIsNeitherTriedAgainNorReportedByTheCopy) {
  writeFile(source, mediaBytes(MiB - 1));
  const auto job = jobTo({first});
  ErrorSlot error;
  bool copied = false;
  bool started = true;

  const std::string output = outputOf([&] {
    const FileSizeLimit limit(512 * KiB);
    copied = job->performCopy(&error);
  });
  const std::string check = outputOf([&] { started = job->startVerification(&error); });

  EXPECT_TRUE(copied);
  EXPECT_EQ(startLine() + md5Line(), output);
  EXPECT_EQ(512 * KiB, fs::file_size(first + ".kdxcopy"));
  EXPECT_EQ(MiB - 1, job->_bytesHashed);
  EXPECT_FALSE(started);
  EXPECT_EQ("the expected filesize (1048575) is not the number of bytes for file " + first + ".kdxcopy (1048575)\n",
            check);
  ASSERT_TRUE(error);
  EXPECT_EQ(104, error->code);
}

TEST_F(KDXDispatchCopyPhase, IsRunByItsStepsAloneWithoutAStartLine) {
  writeFile(source, bytes);
  const auto job = jobTo({scratch.file("a/clip.mov")});

  const PhaseRun phase = runPhase([&](platform::ErrorPlace error) { return job->doTheCopyWork(error); });

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(md5Line(), phase.output);
}

TEST_F(KDXDispatchCopyPhase, IsTheSameWhateverIsToBeReadBackLater) {
  writeFile(source, bytes);
  const auto job = jobTo({scratch.file("a/clip.mov")});
  job->setVerificationOptions(allReadBacks);

  const PhaseRun phase = copied(*job);

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(startLine() + md5Line(), phase.output);
}

}  // namespace
