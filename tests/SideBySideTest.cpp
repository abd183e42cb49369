// What is done at the same time: a server holds the answers back until every request that should be under way is there.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <optional>
#include <span>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/CopyDigests.h"
#include "KDXFileTools/kdxdispatchcopy/DestinationsWriter.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "KDXFileTools/kdxdispatchcopy/KDXSequenceCopy.h"
#include "platform/OutputFile.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/PhaseRun.h"
#include "tests/support/ScratchDirectory.h"

namespace {

using platform::FileURL;

// Ends long before this, since the faults are removed; a minute is what a failing test waits at the most.
constexpr std::chrono::minutes held{1};

class SideBySide : public testing::Test {
 protected:
  void SetUp() override {
    if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
    server.emplace(scratch.path());
  }

  // Copies, then expects that the first reads of all files are asked for before one of them is answered.
  void expectReadBackTogether(KDXDispatchCopy& job, const std::vector<const char*>& files) {
    bool finished = false;
    std::ignore = outputOf([&] {
      ASSERT_TRUE(job.performCopy(nullptr));
      std::vector<faultyfs::FaultNumber> reads;
      for (const char* file : files) reads.push_back(server->whenReading(file).delayBy(held));
      ASSERT_TRUE(job.startVerification(nullptr));
      for (const faultyfs::FaultNumber read : reads) EXPECT_TRUE(server->waitUntilFired(read));
      server->clear();
      finished = job.finishVerification(nullptr);
    });
    EXPECT_TRUE(finished);
  }

  const ScratchDirectory scratch;
  std::optional<FaultyFileSystem> server;
};

TEST_F(SideBySide, TheWritesOfABufferToEveryDestinationAndItsDigestAreUnderWayTogether) {
  std::vector<platform::OutputFile> destinations;
  for (const char* name : {"a.mov", "b.mov"}) {
    std::optional<platform::OutputFile> file = platform::OutputFile::createEmpty(server->path(name).string());
    ASSERT_TRUE(file.has_value());
    destinations.push_back(std::move(*file));
  }
  const auto firstWrite = server->whenWriting("a.mov").delayBy(held);
  const auto secondWrite = server->whenWriting("b.mov").delayBy(held);
  const std::string bytes = mediaBytes(MiB);
  std::promise<void> digesting;
  std::future<void> digests = digesting.get_future();
  std::promise<void> goOn;
  platform::ConcurrentQueue writeQueue("write");

  std::thread writing([&] {
    DestinationsWriter(writeQueue, ShortWrite::isFailure, [](std::size_t, int64_t) {
      FAIL() << "a write failed";
    }).writeToAll(destinations, std::as_bytes(std::span(bytes)), [&] {
      digesting.set_value();
      goOn.get_future().wait();
    });
  });
  EXPECT_TRUE(server->waitUntilFired(firstWrite));
  EXPECT_TRUE(server->waitUntilFired(secondWrite));
  EXPECT_EQ(std::future_status::ready, digests.wait_for(held));
  server->clear();
  goOn.set_value();
  writing.join();

  EXPECT_EQ(bytes, readFile(server->stored("a.mov")));
  EXPECT_EQ(bytes, readFile(server->stored("b.mov")));
}

// Tells that it is being fed, and waits until the other one is.
class MeetingDigest : public KDXDigestContext {
 public:
  void meet(MeetingDigest& other) { _other = other._fed.get_future(); }
  void update(const void* /*bytes*/, uint64_t length) override {
    _fed.set_value();
    _metOther = _other.wait_for(held) == std::future_status::ready;
    _totalLength += length;
  }
  [[nodiscard]] bool metOther() const { return _metOther; }

 private:
  std::promise<void> _fed;
  std::future<void> _other;
  bool _metOther = false;
};

TEST(SideBySideDigests, OfABufferAreMadeTogether) {
  MeetingDigest digest;
  MeetingDigest externalDigest;
  digest.meet(externalDigest);
  externalDigest.meet(digest);
  const std::string bytes = mediaBytes(platform::notWorthAThread + 1);
  platform::ConcurrentQueue queue("write");

  updateBoth(queue, &digest, &externalDigest, std::as_bytes(std::span(bytes)));

  EXPECT_TRUE(digest.metOther());
  EXPECT_TRUE(externalDigest.metOther());
  EXPECT_EQ(bytes.size(), digest.totalLength());
  EXPECT_EQ(bytes.size(), externalDigest.totalLength());
}

TEST(SideBySideDigests, OfShortAndLongBuffersAreRightWithOneOfThemOrBoth) {
  const ScratchDirectory scratch;
  const std::string file = scratch.file("clip.mov");
  writeFile(file, "");
  const std::string md5OfNothing = digestByProgram("md5sum", file);
  const std::string sha1OfNothing = digestByProgram("sha1sum", file);
  platform::ConcurrentQueue queue("write");
  for (const std::size_t size :
       {std::size_t{0}, platform::notWorthAThread, platform::notWorthAThread + 1, 3 * MiB + 17}) {
    SCOPED_TRACE(size);
    const std::string bytes = mediaBytes(size);
    writeFile(file, bytes);
    for (const auto& [isDigested, isDigestedExternally] : {std::pair(true, true), {true, false}, {false, true}}) {
      const auto digest = KDXDigestContext::contextWithAlgorithm(KDXDigestAlgorithmMD5);
      const auto externalDigest = KDXDigestContext::contextWithAlgorithm(KDXDigestAlgorithmSHA1);
      updateBoth(queue, isDigested ? digest.get() : nullptr, isDigestedExternally ? externalDigest.get() : nullptr,
                 std::as_bytes(std::span(bytes)));
      digest->finalize();
      externalDigest->finalize();
      const std::string fed = digestByProgram("md5sum", file);
      const std::string fedExternally = digestByProgram("sha1sum", file);
      EXPECT_EQ("MD5:" + (isDigested ? fed : md5OfNothing), digest->digestString());
      EXPECT_EQ("SHA1:" + (isDigestedExternally ? fedExternally : sha1OfNothing), externalDigest->digestString());
      EXPECT_EQ(isDigested ? size : 0, digest->totalLength());
      EXPECT_EQ(isDigestedExternally ? size : 0, externalDigest->totalLength());
    }
  }
}

TEST_F(SideBySide, TheSourceAndEveryDestinationAreReadBackTogetherAndTheStartDoesNotWaitForThem) {
  writeFile(server->path("clip.mov"), mediaBytes(MiB + 17));
  const auto job = KDXDispatchCopy::initWithSourceURL(FileURL(server->path("clip.mov").string()));
  job->addDestinationURL(FileURL(server->path("a.mov").string()));
  job->addDestinationURL(FileURL(server->path("b.mov").string()));
  job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
  job->setVerificationOptions(KDXVerificationOptionHashDuringCopy | KDXVerificationOptionVerifySource |
                              KDXVerificationOptionVerifyDestinations);

  expectReadBackTogether(*job, {"clip.mov", "a.mov.kdxcopy", "b.mov.kdxcopy"});
}

TEST_F(SideBySide, TheListsOfASequenceAreReadBackTogetherAndTheStartDoesNotWaitForThem) {
  for (const char* folder : {"card", "a", "b"}) std::filesystem::create_directory(server->path(folder));
  for (const char* frame : {"card/p.1.dpx", "card/p.2.dpx"}) writeFile(server->path(frame), mediaBytes(10'000));
  const auto job = KDXSequenceCopy::initWithFileSequence(
      KDXFileSequence::initWithIdentifier(server->path("card/p.1-2.#.dpx").string()));
  job->addDestinationURL(FileURL(server->path("a/x").string()));
  job->addDestinationURL(FileURL(server->path("b/x").string()));
  job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
  job->setVerificationOptions(KDXVerificationOptionHashDuringCopy | KDXVerificationOptionVerifySource);

  expectReadBackTogether(*job, {"card/p.1.dpx", "a/p.1.dpx.kdxcopy", "b/p.1.dpx.kdxcopy"});
}

}  // namespace
