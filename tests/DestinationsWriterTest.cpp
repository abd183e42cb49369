// Which thread and which processor the work of a copy gets.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <optional>
#include <ostream>
#include <set>
#include <span>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/CopySteps.h"
#include "KDXFileTools/kdxdispatchcopy/DestinationsWriter.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

namespace {

using namespace std::chrono_literals;

// Buffers after which a measured division has to show at the latest. A busy machine may need more than a few.
constexpr int manyBuffers = 200;

void spin(std::chrono::nanoseconds time) {
  const auto end = platform::processorTimeOfThisThread() + time;
  while (platform::processorTimeOfThisThread() < end) {
  }
}

// Lets the calling thread, and those it starts, use so many processors; false when there are not so many.
bool useProcessors(std::size_t count) {
  cpu_set_t all;
  if (::sched_getaffinity(0, sizeof all, &all) != 0) return false;
  cpu_set_t some;
  CPU_ZERO(&some);
  for (std::size_t processor = 0; processor < CPU_SETSIZE && CPU_COUNT(&some) < static_cast<int>(count); ++processor) {
    if (CPU_ISSET(processor, &all)) CPU_SET(processor, &some);
  }
  return CPU_COUNT(&some) == static_cast<int>(count) && ::sched_setaffinity(0, sizeof some, &some) == 0;
}

// The processors that threads of this name may use, as the system prints them ("0-1", "1"), one text for all that are equal.
std::set<std::string> processorsOfThreads(const std::string& name) {
  std::set<std::string> processors;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream status(task.path() / "status");
    bool isNamed = false;
    for (std::string line; std::getline(status, line);) {
      if (line == "Name:\t" + name) isNamed = true;
      const std::string key = "Cpus_allowed_list:\t";
      if (isNamed && line.starts_with(key)) processors.insert(line.substr(key.size()));
    }
  }
  return processors;
}

// A thread that does nothing.
class IdleThread {
 public:
  explicit IdleThread(const char* name) { EXPECT_EQ(0, ::pthread_setname_np(_thread.native_handle(), name)); }
  ~IdleThread() {
    _end.set_value();
    _thread.join();
  }
  IdleThread(const IdleThread&) = delete;
  IdleThread& operator=(const IdleThread&) = delete;

  platform::ThreadNumber number() { return _number.get_future().get(); }

 private:
  std::promise<platform::ThreadNumber> _number;
  std::promise<void> _end;
  std::thread _thread{[this] {
    _number.set_value(platform::numberOfThisThread());
    _end.get_future().wait();
  }};
};

// Buffers on their way to files of a scratch folder.
class Copy {
 public:
  explicit Copy(std::size_t destinations, bool hasTwoDigests = false, std::size_t bufferSize = MiB / 4)
      : _buffer(mediaBytes(bufferSize)) {
    for (std::size_t number = 0; number < destinations; ++number) {
      const std::string path = _scratch.file(std::to_string(number));
      std::optional<platform::OutputFile> file = platform::OutputFile::createEmpty(path, std::nullopt, {});
      EXPECT_TRUE(file.has_value());
      _destinations.push_back(std::move(*file));
    }
    _writer.emplace(_queue, hasTwoDigests, _readingThread.number());
  }

  void writeBuffer(const std::function<void()>& digest) {
    _writer->writeToAll(_destinations, std::as_bytes(std::span(_buffer)), digest,
                        [](std::size_t, int64_t) { FAIL() << "a write failed"; });
    ++_buffers;
  }

  // Writes buffers until the condition holds; false if it never does.
  bool writeUntil(const std::function<void()>& digest, const std::function<bool()>& condition) {
    for (int buffer = 0; buffer < manyBuffers; ++buffer) {
      writeBuffer(digest);
      if (condition()) return true;
    }
    return false;
  }

  // What a digest has to take so that it is the longest work and the writes together are about as long.
  std::chrono::nanoseconds timeOfWrites() {
    const std::string path = _scratch.file("measured");
    std::optional<platform::OutputFile> file = platform::OutputFile::createEmpty(path, std::nullopt, {});
    std::vector<std::chrono::nanoseconds> times;
    for (int write = 0; write < 9; ++write) {
      const auto before = platform::processorTimeOfThisThread();
      EXPECT_GT(file->write(std::as_bytes(std::span(_buffer)).data(), _buffer.size()), 0);
      times.push_back(platform::processorTimeOfThisThread() - before);
    }
    std::ranges::sort(times);
    return times[times.size() / 2] * _destinations.size();
  }

  // To the first destination.
  [[nodiscard]] std::uintmax_t bytesWritten() const { return std::filesystem::file_size(_scratch.file("0")); }

  void endWriting() { _writer.reset(); }

  void expectAllWritten() {
    const std::size_t count = _destinations.size();
    _destinations.clear();
    std::string expected;
    for (int buffer = 0; buffer < _buffers; ++buffer) expected += _buffer;
    for (std::size_t number = 0; number < count; ++number) {
      EXPECT_TRUE(expected == readFile(_scratch.file(std::to_string(number)))) << "destination " << number;
    }
  }

 private:
  // Where writes need a processor and no device.
  const ScratchDirectory _scratch{std::filesystem::path("/dev/shm")};
  const std::string _buffer;
  IdleThread _readingThread{"reading"};
  platform::ConcurrentQueue _queue{"write"};
  std::optional<DestinationsWriter> _writer;
  std::vector<platform::OutputFile> _destinations;
  int _buffers = 0;
};

bool hasRoomInMemory() {
  constexpr std::uintmax_t room = 128 * MiB;
  std::error_code error;
  const std::filesystem::space_info space = std::filesystem::space("/dev/shm", error);
  return !error && space.available >= room && ::access("/dev/shm", W_OK) == 0;
}

class DestinationsWriterWork : public testing::Test {
 protected:
  void SetUp() override {
    if (!hasRoomInMemory()) GTEST_SKIP() << "needs 128 MiB in /dev/shm";
  }
};

TEST_F(DestinationsWriterWork, OfADigestThatTakesLongestIsDoneOnTheCallingThread) {
  Copy copy(1);
  std::thread::id thread;
  for (int buffer = 0; buffer < 3; ++buffer) {
    copy.writeBuffer([&] {
      spin(50ms);
      thread = std::this_thread::get_id();
    });
    EXPECT_EQ(std::this_thread::get_id(), thread);
  }
  copy.expectAllWritten();
}

TEST_F(DestinationsWriterWork, OfADigestQuickerThanAWriteIsDoneOnAnotherThread) {
  Copy copy(2);
  std::thread::id thread;
  const auto digest = [&] { thread = std::this_thread::get_id(); };
  copy.writeBuffer(digest);
  EXPECT_EQ(std::this_thread::get_id(), thread) << "nothing is measured yet";
  for (int buffer = 0; buffer < 3; ++buffer) {
    copy.writeBuffer(digest);
    EXPECT_NE(std::this_thread::get_id(), thread);
  }
  copy.expectAllWritten();
}

TEST_F(DestinationsWriterWork, OfBytesNotWorthAThreadIsDigestedFirstOnTheCallingThread) {
  Copy copy(2, false, notWorthAThread);
  std::thread::id thread;
  for (std::size_t buffer = 0; buffer < 3; ++buffer) {
    copy.writeBuffer([&] {
      thread = std::this_thread::get_id();
      EXPECT_EQ(buffer * notWorthAThread, copy.bytesWritten());
    });
    EXPECT_EQ(std::this_thread::get_id(), thread);
  }
  copy.expectAllWritten();
}

constexpr const char* emulatorHasThreads = "an emulator has threads of its own, with the name of the program's first";

// Three writes and a digest on two processors.
class DestinationsWriterProcessors : public DestinationsWriterWork {
 protected:
  void SetUp() override {
    DestinationsWriterWork::SetUp();
    if (IsSkipped()) return;
    if (isEmulated()) GTEST_SKIP() << emulatorHasThreads;
    if (!useProcessors(2)) GTEST_SKIP() << "needs two processors, and to be let choose them";
    all = processorsOfThreads("kdxtests");
    ASSERT_EQ(1, all.size());
    copy.emplace(3);
    writes = copy->timeOfWrites();
  }

  [[nodiscard]] bool isKeptOffOne(const std::string& threads) const {
    return !processorsOfThreads(threads).contains(*all.begin());
  }
  [[nodiscard]] bool usesAll(const std::string& threads) const { return processorsOfThreads(threads) == all; }

  std::set<std::string> all;  // one text
  std::optional<Copy> copy;
  std::chrono::nanoseconds writes{};
  const std::function<void()> longDigest = [this] { spin(writes * 2); };
  const std::function<void()> noDigest = [] {};
};

TEST_F(DestinationsWriterProcessors, OfADigestAreLeftAloneByWritesThatWouldHoldItUpUntilTheyTakeLonger) {
  EXPECT_TRUE(copy->writeUntil([&] { spin(writes * 3 / 2); }, [&] { return isKeptOffOne("write"); }));
  EXPECT_TRUE(usesAll("kdxtests"));
  EXPECT_TRUE(copy->writeUntil(noDigest, [&] { return usesAll("write"); }));
  copy->expectAllWritten();
}

TEST_F(DestinationsWriterProcessors, OfWritesThatEndBeforeTheDigestAreSharedWithTheReadingUntilTheyEndBehindIt) {
  EXPECT_TRUE(copy->writeUntil(longDigest, [&] {
    return isKeptOffOne("reading") && processorsOfThreads("reading") == processorsOfThreads("write");
  }));
  // So much that the writes catch up with the digest in small steps.
  for (int buffer = 0; buffer < 10; ++buffer) copy->writeBuffer(longDigest);
  EXPECT_TRUE(copy->writeUntil(noDigest, [&] { return usesAll("reading") && isKeptOffOne("write"); }));
  copy->expectAllWritten();
}

TEST_F(DestinationsWriterProcessors, AreAllTheReadingsWhenTheCopyIsOver) {
  ASSERT_TRUE(copy->writeUntil(longDigest, [&] { return isKeptOffOne("reading"); }));
  copy->endWriting();
  EXPECT_TRUE(usesAll("reading"));
  copy->expectAllWritten();
}

struct Undivided {
  const char* name;
  std::size_t processors;
  std::size_t destinations;
  bool hasTwoDigests;
  int digestTime;  // in times of all writes
  friend void PrintTo(const Undivided& row, std::ostream* out) { *out << row.name; }
};

class DestinationsWriterLeavesWrites : public testing::TestWithParam<Undivided> {};

TEST_P(DestinationsWriterLeavesWrites, OnAllProcessors) {
  if (!hasRoomInMemory()) GTEST_SKIP() << "needs 128 MiB in /dev/shm";
  if (isEmulated()) GTEST_SKIP() << emulatorHasThreads;
  if (!useProcessors(GetParam().processors)) GTEST_SKIP() << "needs two processors, and to be let choose them";
  Copy copy(GetParam().destinations, GetParam().hasTwoDigests);
  const std::set<std::string> all = processorsOfThreads("kdxtests");
  const std::chrono::nanoseconds digest = copy.timeOfWrites() * GetParam().digestTime;
  for (int buffer = 0; buffer < 20; ++buffer) {
    copy.writeBuffer([&] { spin(digest); });
    ASSERT_EQ(all, processorsOfThreads("write"));
    ASSERT_EQ(all, processorsOfThreads("reading"));
  }
  copy.expectAllWritten();
}

INSTANTIATE_TEST_SUITE_P(DestinationsWriter, DestinationsWriterLeavesWrites,
                         testing::Values(Undivided{"WithAProcessorForEachWork", 2, 1, false, 1},
                                         Undivided{"WithOneProcessorAtAll", 1, 3, false, 1},
                                         Undivided{"WithTwoDigests", 2, 3, true, 1},
                                         Undivided{"ThatHardlyNeedAProcessor", 2, 3, false, 40}),
                         rowName);

}  // namespace
