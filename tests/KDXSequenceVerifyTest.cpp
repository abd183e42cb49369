#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/KDXSequenceVerify.h"
#include "platform/Process.h"
#include "platform/SerialQueue.h"
#include "tests/support/Algorithms.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"

namespace {

using platform::FileURL;

// A folder with a card's frames, and the sequence digest as the programs of the system tell it.
class Frames {
 protected:
  Frames() { ::setenv("XDG_CONFIG_HOME", scratch.file("settings").c_str(), 1); }

  [[nodiscard]] FileURL frameOf(std::size_t size, const std::string& name) const {
    writeFile(scratch.file(name), mediaBytes(size, static_cast<uint32_t>(size + 1)));
    return FileURL(scratch.file(name));
  }

  [[nodiscard]] std::string digestOfText(const Algorithm& algorithm, const std::string& text) const {
    writeFile(scratch.file("joined"), text);
    return algorithm.methodName + (":" + expectedHex(algorithm, scratch.file("joined")));
  }

  [[nodiscard]] std::string expectedText(const Algorithm& algorithm, const std::vector<FileURL>& files) const {
    std::string joined;
    for (const FileURL& file : files) joined += expectedHex(algorithm, file.path());
    return digestOfText(algorithm, joined);
  }

  const ScratchDirectory scratch;
};

constexpr Algorithm MD5 = algorithms[1];

std::string sequenceDigest(const std::vector<FileURL>& files, uint32_t algorithm = md5) {
  return KDXSequenceVerify::initWithFileURLs(files, algorithm)->calculateDigest(nullptr)->digestString();
}

class KDXSequenceVerifyTest : public testing::Test, protected Frames {};

class EveryAlgorithmOfSequences : public testing::TestWithParam<Algorithm>, protected Frames {};

INSTANTIATE_TEST_SUITE_P(KDXSequenceVerify, EveryAlgorithmOfSequences, testing::ValuesIn(algorithms), rowName);

TEST_P(EveryAlgorithmOfSequences, TheSequenceDigestIsThatOfTheJoinedTextsOfTheFiles) {
  // Empty, within a buffer, a whole buffer, more than one.
  const std::vector<FileURL> frames{frameOf(10, "1.dpx"), frameOf(0, "2.dpx"), frameOf(MiB, "3.dpx"),
                                    frameOf(2 * MiB + 17, "4.dpx")};
  EXPECT_EQ(expectedText(GetParam(), frames), sequenceDigest(frames, GetParam().code));
}

TEST_P(EveryAlgorithmOfSequences, OneFileGivesTheDigestOfItsTextAndNotItsOwn) {
  const FileURL frame = frameOf(1000, "1.dpx");
  const std::string text = expectedHex(GetParam(), frame.path());
  EXPECT_EQ(digestOfText(GetParam(), text), sequenceDigest({frame}, GetParam().code));
  EXPECT_NE(GetParam().methodName + (":" + text), sequenceDigest({frame}, GetParam().code));
}

TEST_P(EveryAlgorithmOfSequences, ASequenceOfNoFilesGivesTheDigestOfNoText) {
  EXPECT_EQ(digestOfText(GetParam(), ""), sequenceDigest({}, GetParam().code));
}

TEST_F(KDXSequenceVerifyTest, TwoFilesSwappedGiveAnotherDigest) {
  const FileURL a = frameOf(100, "a.dpx");
  const FileURL b = frameOf(200, "b.dpx");
  EXPECT_EQ(expectedText(MD5, {a, b}), sequenceDigest({a, b}));
  EXPECT_EQ(expectedText(MD5, {b, a}), sequenceDigest({b, a}));
  EXPECT_NE(sequenceDigest({a, b}), sequenceDigest({b, a}));
}

TEST_F(KDXSequenceVerifyTest, TheSameFileTwiceCountsTwice) {
  const FileURL frame = frameOf(100, "1.dpx");
  EXPECT_EQ(expectedText(MD5, {frame, frame}), sequenceDigest({frame, frame}));
}

TEST_F(KDXSequenceVerifyTest, ManySmallFilesKeepTheirOrder) {
  std::vector<FileURL> frames;
  for (std::size_t i = 0; i < 40; ++i) frames.push_back(frameOf(100 + i, std::to_string(i) + ".dpx"));
  EXPECT_EQ(expectedText(MD5, frames), sequenceDigest(frames));
}

TEST_F(KDXSequenceVerifyTest, TheDigestCountsTheBytesOfTheJoinedTexts) {
  const auto digest =
      KDXSequenceVerify::initWithFileURLs({frameOf(10, "a.dpx"), frameOf(20, "b.dpx")}, md5)->calculateDigest(nullptr);
  EXPECT_EQ(64u, digest->totalLength());
  EXPECT_EQ(md5, digest->algorithm());
}

TEST_F(KDXSequenceVerifyTest, AVerifierOfAListHasNoFileOfItsOwn) {
  const auto verifier = KDXSequenceVerify::initWithFileURLs({FileURL("/card/1.dpx")}, md5);
  EXPECT_FALSE(verifier->fileURL().has_value());
  EXPECT_EQ(md5, verifier->algorithm());
}

TEST_F(KDXSequenceVerifyTest, NoProgressIsReported) {
  int reports = 0;
  platform::SerialQueue queue("progress");
  const auto verifier = KDXSequenceVerify::initWithFileURLs({frameOf(100, "1.dpx")}, md5);
  verifier->setProgressInterval(-1, &queue, [&](uint64_t) { ++reports; });
  verifier->calculateDigest(nullptr);
  queue.sync([] {});
  EXPECT_EQ(0, reports);
}

TEST_F(KDXSequenceVerifyTest, AVerifierCanBeAskedAgain) {
  const std::vector<FileURL> frames{frameOf(100, "1.dpx"), frameOf(200, "2.dpx")};
  const auto verifier = KDXSequenceVerify::initWithFileURLs(frames, md5);
  const std::string expected = expectedText(MD5, frames);
  EXPECT_EQ(expected, verifier->calculateDigest(nullptr)->digestString());
  EXPECT_EQ(expected, verifier->calculateDigest(nullptr)->digestString());
}

TEST_F(KDXSequenceVerifyTest, AnUnknownAlgorithmGivesNoDigest) {
  const FileURL frame = frameOf(100, "1.dpx");
  for (const uint32_t code : {0u, 3u, 4u, 24u}) {
    EXPECT_EQ(nullptr, KDXSequenceVerify::initWithFileURLs({frame}, code)->calculateDigest(nullptr)) << code;
  }
}

TEST_F(KDXSequenceVerifyTest, AFileThatCannotBeReadCountsWithTheDigestOfNothingAndNoError) {
  std::filesystem::create_directory(scratch.path() / "folder.dpx");
  const FileURL first = frameOf(100, "1.dpx");
  const FileURL empty = frameOf(0, "empty.dpx");
  std::optional<platform::Error> error;
  const auto digest = KDXSequenceVerify::initWithFileURLs({first, FileURL(scratch.file("folder.dpx")), first}, md5)
                          ->calculateDigest(&error);
  EXPECT_EQ(expectedText(MD5, {first, empty, first}), digest->digestString());
  EXPECT_FALSE(error.has_value());
}

using KDXSequenceVerifyDeathTest = KDXSequenceVerifyTest;

TEST_F(KDXSequenceVerifyDeathTest, AFileThatCannotBeOpenedEndsTheProcessWithALineAndItsStatus) {
  const FileURL first = frameOf(100, "1.dpx");
  const std::string missing = scratch.file("missing.dpx");
  EXPECT_EXIT(
      {
        platform::makeStandardOutputUnbuffered();
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
        KDXSequenceVerify::initWithFileURLs({first, FileURL(missing)}, md5)->calculateDigest(nullptr);
      },
      testing::ExitedWithCode(108), testing::Eq("ERROR: could not open file at path: " + missing + "\n"));
}

TEST_F(KDXSequenceVerifyDeathTest, AFileThatCannotBeOpenedEndsTheProcessForAnUnknownAlgorithmToo) {
  const std::string missing = scratch.file("missing.dpx");
  EXPECT_EXIT(KDXSequenceVerify::initWithFileURLs({FileURL(missing)}, 3)->calculateDigest(nullptr),
              testing::ExitedWithCode(108), "");
}

}  // namespace
