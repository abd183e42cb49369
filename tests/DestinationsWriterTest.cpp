// Which thread gets the work of a buffer, and what becomes of a write that takes too little.

#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/DestinationsWriter.h"
#include "tests/support/FileSizeLimit.h"
#include "tests/support/ScratchDirectory.h"

namespace {

// Buffers on their way to two files of a scratch folder.
class Writer : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"a", "b"}) {
      std::optional<platform::OutputFile> file = platform::OutputFile::createEmpty(_scratch.file(name));
      ASSERT_TRUE(file.has_value());
      _destinations.push_back(std::move(*file));
    }
  }

  // Returns the thread that the digest ran on.
  std::thread::id write(const std::string& bytes, ShortWrite shortWrite = ShortWrite::isFailure) {
    std::thread::id digesting;
    DestinationsWriter(_queue, shortWrite, [this](std::size_t index, int64_t result) {
      const std::lock_guard lock(_mutex);  // on any thread
      failed.insert({index, result});
    }).writeToAll(_destinations, std::as_bytes(std::span(bytes)), [&] {
      digesting = std::this_thread::get_id();
      bytesWhileDigesting = std::filesystem::file_size(_scratch.file("a"));
    });
    return digesting;
  }

  [[nodiscard]] std::string written(const char* name) const { return readFile(_scratch.file(name)); }

  std::multiset<std::pair<std::size_t, int64_t>> failed{};
  std::uintmax_t bytesWhileDigesting = 0;

 private:
  ScratchDirectory _scratch;
  std::vector<platform::OutputFile> _destinations;
  std::mutex _mutex;
  platform::ConcurrentQueue _queue{"write"};
};

TEST_F(Writer, DigestsOnTheCallingThreadAndWritesToAll) {
  const std::string bytes = mediaBytes(MiB);
  EXPECT_EQ(std::this_thread::get_id(), write(bytes));
  EXPECT_EQ(bytes, written("a"));
  EXPECT_EQ(bytes, written("b"));
  EXPECT_TRUE(failed.empty());
}

TEST_F(Writer, DigestsBytesNotWorthAThreadBeforeItWritesThem) {
  const std::string bytes = mediaBytes(platform::notWorthAThread);
  EXPECT_EQ(std::this_thread::get_id(), write(bytes));
  EXPECT_EQ(0U, bytesWhileDigesting);
  EXPECT_EQ(bytes, written("a"));
  EXPECT_EQ(bytes, written("b"));
}

using Failed = std::multiset<std::pair<std::size_t, int64_t>>;

TEST_F(Writer, TakesAShortWriteForAFailureWhereNothingWouldFindIt) {
  const FileSizeLimit limit(4096);
  write(mediaBytes(8192), ShortWrite::isFailure);
  EXPECT_EQ((Failed{{0, 4096}, {1, 4096}}), failed);
}

TEST_F(Writer, PassesOverAShortWriteThatIsFoundLater) {
  const FileSizeLimit limit(4096);
  write(mediaBytes(8192), ShortWrite::isFoundLater);
  EXPECT_EQ(Failed{}, failed);
}

}  // namespace
