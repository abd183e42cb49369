#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <numeric>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/KDXReadFile.h"
#include "platform/FileURL.h"
#include "platform/Process.h"
#include "platform/SerialQueue.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ThreadWatch.h"
#include "tests/support/ToolRun.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using Lengths = std::vector<int64_t>;
using platform::FileURL;

// What one call of the data block was given.
struct Block {
  bool isLast;
  int64_t length;
  int32_t error;
  const std::byte* address;
  std::string bytes;
};

Block blockOf(bool isLast, const std::byte* bytes, int64_t length, int32_t error) {
  std::string copy(reinterpret_cast<const char*>(bytes), length < 0 ? 0 : static_cast<std::size_t>(length));
  return {isLast, length, error, bytes, std::move(copy)};
}

Lengths lengthsOf(const std::vector<Block>& blocks) {
  Lengths lengths;
  for (const Block& block : blocks) lengths.push_back(block.length);
  return lengths;
}

std::string joined(const std::vector<Block>& blocks) {
  std::string bytes;
  for (const Block& block : blocks) bytes += block.bytes;
  return bytes;
}

bool onlyTheLastIsLast(const std::vector<Block>& blocks) {
  return !blocks.empty() && blocks.back().isLast &&
         std::none_of(blocks.begin(), blocks.end() - 1, [](const Block& block) { return block.isLast; });
}

std::vector<Block> blocksOfFile(const std::string& path) {
  std::vector<Block> blocks;
  platform::SerialQueue queue("test");
  KDXReadFile(path, queue, [&](bool isLast, const std::byte* bytes, int64_t length, int32_t error) {
    blocks.push_back(blockOf(isLast, bytes, length, error));
  });
  queue.sync([] {});
  return blocks;
}

// A serial queue that calls `before` on the thread that queues, with the number of tasks queued before.
class ObservedQueue final : public platform::DispatchQueue {
 public:
  explicit ObservedQueue(std::function<void(int)> before) : _before(std::move(before)) {}
  void async(platform::Task task) override {
    _before(_queued++);
    _queue.async(std::move(task));
  }
  void barrierSync(const platform::Task& task) override { _queue.sync(task); }
  platform::SerialQueue& inner() { return _queue; }

 private:
  std::function<void(int)> _before;
  int _queued = 0;
  platform::SerialQueue _queue{"test"};
};

// Runs every task before async returns.
class ImmediateQueue final : public platform::DispatchQueue {
 public:
  void async(platform::Task task) override { task(); }
  void barrierSync(const platform::Task& task) override { task(); }
};

// A folder with the settings of the test; without a value there is no file.
class Reader : public testing::Test {
 protected:
  Reader() { ::setenv("XDG_CONFIG_HOME", scratch.path().c_str(), 1); }

  void setReadBufferSize(const std::string& value) const {
    writeFile(scratch.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = " + value + "\n");
  }

  [[nodiscard]] std::string fileOf(std::size_t size, const std::string& name = "clip.mov") const {
    writeFile(scratch.file(name), mediaBytes(size, static_cast<uint32_t>(size + 1)));
    return scratch.file(name);
  }

  const ScratchDirectory scratch;
};

using KDXReadFileTest = Reader;
using KDXReadFilesTest = Reader;

// Lengths

struct Size : NamedRow {
  std::size_t size;
  Lengths lengths;
};

class KDXReadFileSizes : public Reader, public testing::WithParamInterface<Size> {};

TEST_P(KDXReadFileSizes, AFileComesInWholeBuffersAndAShorterLastOne) {
  setReadBufferSize("1");
  const std::string path = fileOf(GetParam().size);
  const std::vector<Block> blocks = blocksOfFile(path);
  EXPECT_EQ(GetParam().lengths, lengthsOf(blocks));
  EXPECT_TRUE(onlyTheLastIsLast(blocks));
  EXPECT_TRUE(readFile(path) == joined(blocks));
  for (const Block& block : blocks) EXPECT_EQ(0, block.error);
}

constexpr int64_t oneMiB = 1'048'576;

INSTANTIATE_TEST_SUITE_P(KDXReadFile, KDXReadFileSizes,
                         testing::Values(Size{"NoByte", 0, {0}}, Size{"OneByte", 1, {1}},
                                         Size{"LessThanAPage", 4095, {4095}}, Size{"OnePage", 4096, {4096}},
                                         Size{"OneByteLessThanABuffer", MiB - 1, {oneMiB - 1}},
                                         Size{"OneBuffer", MiB, {oneMiB, 0}},
                                         Size{"OneByteMoreThanABuffer", MiB + 1, {oneMiB, 1}},
                                         Size{"TwoBuffers", 2 * MiB, {oneMiB, oneMiB, 0}},
                                         Size{"TwoBuffersAndABit", 2 * MiB + 17, {oneMiB, oneMiB, 17}},
                                         Size{"FiveBuffers", 5 * MiB, {oneMiB, oneMiB, oneMiB, oneMiB, oneMiB, 0}}),
                         rowName);

TEST_F(KDXReadFileTest, WithoutASettingABufferHasTenMiB) {
  EXPECT_EQ((Lengths{10'485'760, 5}), lengthsOf(blocksOfFile(fileOf(10 * MiB + 5))));
}

struct Setting : NamedRow {
  const char* value;
};

class UnusableSetting : public Reader, public testing::WithParamInterface<Setting> {};

TEST_P(UnusableSetting, LeavesTheBufferAtTenMiB) {
  setReadBufferSize(GetParam().value);
  EXPECT_EQ((Lengths{10'485'760, 5}), lengthsOf(blocksOfFile(fileOf(10 * MiB + 5))));
}

INSTANTIATE_TEST_SUITE_P(KDXReadFile, UnusableSetting,
                         testing::Values(Setting{"Zero", "0"}, Setting{"Negative", "-5"}, Setting{"Empty", ""},
                                         Setting{"AWord", "many"}),
                         rowName);

TEST_F(KDXReadFileTest, ASettingOfThreeGivesBuffersOfThreeMiB) {
  setReadBufferSize("3");
  EXPECT_EQ((Lengths{3 * oneMiB, oneMiB}), lengthsOf(blocksOfFile(fileOf(4 * MiB))));
}

TEST_F(KDXReadFileTest, TheSettingIsReadOnceInAProcess) {
  setReadBufferSize("1");
  const std::string path = fileOf(2 * MiB + 1);
  ASSERT_EQ((Lengths{oneMiB, oneMiB, 1}), lengthsOf(blocksOfFile(path)));
  setReadBufferSize("2");
  EXPECT_EQ((Lengths{oneMiB, oneMiB, 1}), lengthsOf(blocksOfFile(path)));
}

// Order, threads, buffers

TEST_F(KDXReadFileTest, EveryBufferStartsOnAPage) {
  setReadBufferSize("1");
  for (const Block& block : blocksOfFile(fileOf(4 * MiB + 3))) {
    EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(block.address) % 4096);
  }
}

TEST_F(KDXReadFileTest, AFileIsReadWithTwoBuffersHoweverLargeItIs) {
  setReadBufferSize("1");
  std::set<const std::byte*> addresses;
  for (const Block& block : blocksOfFile(fileOf(8 * MiB))) addresses.insert(block.address);
  EXPECT_LE(addresses.size(), 2u);
}

TEST_F(KDXReadFileTest, TheDataBlockRunsOnTheGivenQueueAndTheReadingOnTheCallingThread) {
  setReadBufferSize("1");
  const std::string path = fileOf(2 * MiB);
  const std::thread::id caller = std::this_thread::get_id();
  int queuedElsewhere = 0;
  ObservedQueue queue([&](int) { queuedElsewhere += std::this_thread::get_id() == caller ? 0 : 1; });
  std::vector<bool> onTheQueue;
  KDXReadFile(path, queue,
              [&](bool, const std::byte*, int64_t, int32_t) { onTheQueue.push_back(queue.inner().isCurrentQueue()); });
  queue.barrierSync([] {});
  EXPECT_THAT(onTheQueue, ElementsAre(true, true, true));
  EXPECT_EQ(0, queuedElsewhere);
}

TEST_F(KDXReadFileTest, ReturnsWhileTheCallbacksOfTheLastTwoReadsArePending) {
  setReadBufferSize("1");
  std::promise<void> returned;
  std::vector<Block> blocks;
  platform::SerialQueue queue("test");
  queue.async([&] { returned.get_future().wait(); });
  KDXReadFile(fileOf(MiB), queue, [&](bool isLast, const std::byte* bytes, int64_t length, int32_t error) {
    blocks.push_back(blockOf(isLast, bytes, length, error));
  });
  returned.set_value();
  queue.sync([] {});
  EXPECT_EQ((Lengths{oneMiB, 0}), lengthsOf(blocks));
  EXPECT_TRUE(readFile(scratch.file("clip.mov")) == joined(blocks));
}

TEST_F(KDXReadFileTest, TheReaderIsNeverMoreThanTwoBuffersAheadOfTheDataBlock) {
  setReadBufferSize("1");
  constexpr int64_t size = 5 * oneMiB;
  const std::string path = fileOf(static_cast<std::size_t>(size));
  const auto position = [&] { return positionOf(descriptorOf(path).value_or(-1)); };
  std::atomic<const WatchedThread*> reading = nullptr;
  std::vector<int64_t> reached;
  platform::SerialQueue queue("test");
  WatchedThread reader([&] {
    KDXReadFile(path, queue, [&](bool isLast, const std::byte*, int64_t, int32_t) {
      // In the last two callbacks the reader is done, or about to be.
      const auto read = static_cast<int64_t>(reached.size() + 2) * oneMiB;
      if (isLast || read > size) return;
      while (reading == nullptr) std::this_thread::yield();
      reading.load()->waitUntilBlocked([&] { return position() >= read; });
      reached.push_back(position());
    });
  });
  reading = &reader;
  reader.join();
  queue.sync([] {});
  EXPECT_THAT(reached, ElementsAre(2 * oneMiB, 3 * oneMiB, 4 * oneMiB, 5 * oneMiB));
}

TEST_F(KDXReadFileTest, TheBytesStayTheSameUntilTheDataBlockReturns) {
  setReadBufferSize("1");
  const std::string path = fileOf(4 * MiB);
  const std::string content = readFile(path);
  std::size_t offset = 0;
  int same = 0;
  platform::SerialQueue queue("test");
  KDXReadFile(path, queue, [&](bool, const std::byte* bytes, int64_t length, int32_t) {
    // Compared twice, while the reader fills the other buffer.
    for (int i = 0; i < 2; ++i) {
      const auto count = static_cast<std::size_t>(length);
      same += std::equal(bytes, bytes + count, reinterpret_cast<const std::byte*>(content.data()) + offset) ? 1 : 0;
    }
    offset += static_cast<std::size_t>(length);
  });
  queue.sync([] {});
  EXPECT_EQ(10, same);
}

TEST_F(KDXReadFileTest, TheFileIsClosedWhenTheReadingIsDone) {
  setReadBufferSize("1");
  const std::string path = fileOf(2 * MiB);
  const std::size_t before = openDescriptors();
  blocksOfFile(path);
  EXPECT_EQ(before, openDescriptors());
}

TEST_F(KDXReadFileTest, ThreadsReadDifferentFilesAtTheSameTime) {
  setReadBufferSize("1");
  constexpr std::size_t count = 6;
  std::vector<std::string> read(count);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string path = fileOf(2 * MiB + i, std::to_string(i) + ".mov");
    threads.emplace_back([&read, path, i] { read[i] = joined(blocksOfFile(path)); });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::size_t i = 0; i < count; ++i) {
    EXPECT_TRUE(readFile(scratch.file(std::to_string(i) + ".mov")) == read[i]) << i;
  }
}

TEST_F(KDXReadFileTest, AFileIsReadFromTheDeviceAndLeavesNothingInTheCache) {
  std::string whyNot;
  const auto device = MountedFileSystem::mount("ext4", 32 * MiB, whyNot);
  if (!device) GTEST_SKIP() << whyNot;
  setReadBufferSize("1");
  const std::string path = device->file("clip.mov");
  writeFile(path, mediaBytes(4 * MiB + 17));
  MountedFileSystem::fillCache(path);
  const uint64_t before = device->bytesReadFromDevice();
  EXPECT_TRUE(mediaBytes(4 * MiB + 17) == joined(blocksOfFile(path)));
  EXPECT_GE(device->bytesReadFromDevice() - before, 4 * MiB);
  EXPECT_EQ(0u, MountedFileSystem::bytesInCache(path));
}

// Failures

TEST_F(KDXReadFileTest, AFailedFirstReadIsTheOnlyAndLastCallbackAndTellsItsError) {
  const std::vector<Block> blocks = blocksOfFile(scratch.path().string());
  ASSERT_EQ((Lengths{-1}), lengthsOf(blocks));
  EXPECT_TRUE(blocks.front().isLast);
  EXPECT_EQ(EISDIR, blocks.front().error);
}

TEST_F(KDXReadFileTest, AReadThatFailsInTheMiddleEndsTheFileWithItsError) {
  setReadBufferSize("1");
  const std::string path = fileOf(4 * MiB);
  const std::string content = readFile(path);
  std::vector<Block> blocks;
  ObservedQueue queue([&](int queued) {
    if (queued == 1) makeReadsFail(path);
  });
  KDXReadFile(path, queue, [&](bool isLast, const std::byte* bytes, int64_t length, int32_t error) {
    blocks.push_back(blockOf(isLast, bytes, length, error));
  });
  queue.barrierSync([] {});
  ASSERT_EQ((Lengths{oneMiB, oneMiB, -1}), lengthsOf(blocks));
  EXPECT_TRUE(onlyTheLastIsLast(blocks));
  EXPECT_TRUE(content.substr(0, 2 * MiB) == joined(blocks));
  EXPECT_EQ(0, blocks[0].error);
  EXPECT_EQ(0, blocks[1].error);
  EXPECT_EQ(EISDIR, blocks[2].error);
}

// In the child of a death test: standard output is what the test compares, unbuffered as in the tool.
void compareStandardOutput() {
  platform::makeStandardOutputUnbuffered();
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

void ignoreData(bool, const std::byte*, int64_t, int32_t) {}

using KDXReadFileDeathTest = Reader;

TEST_F(KDXReadFileDeathTest, AFileThatCannotBeOpenedEndsTheProcessWithALineAndItsStatus) {
  const std::string path = scratch.file("missing.mov");
  EXPECT_EXIT(
      {
        compareStandardOutput();
        ImmediateQueue queue;
        KDXReadFile(path, queue, ignoreData);
      },
      testing::ExitedWithCode(108), testing::Eq("ERROR: could not open file at path: " + path + "\n"));
}

TEST_F(KDXReadFileDeathTest, TheLineForAnUnreadableFileComesAfterWhatWasQueuedBefore) {
  const std::string path = scratch.file("missing.mov");
  const ToolRun run = runTool({"-j", path});
  EXPECT_EQ(108, run.exitStatus);
  EXPECT_THAT(run.lines(), ElementsAre("INFO: copying " + scratch.path().string() + "...",
                                       "ERROR: could not open file at path: " + path));
}

TEST_F(KDXReadFileDeathTest, DescriptorZeroIsAFailedAssertion) {
  const std::string path = fileOf(10);
  EXPECT_EXIT(
      {
        ::close(STDIN_FILENO);
        ImmediateQueue queue;
        KDXReadFile(path, queue, ignoreData);
      },
      testing::KilledBySignal(SIGABRT),
      testing::AllOf(HasSubstr("fd > 0 && @\"invalid fd\""), HasSubstr("_openForRead")));
}

TEST_F(KDXReadFileDeathTest, AToolWithoutStandardInputAbortsBeforeItReadsTheSource) {
  const ToolRun run = runTool(ToolStart{.arguments = {"-j", fileOf(10)}, .closedDescriptors = {STDIN_FILENO}});
  EXPECT_EQ(128 + SIGABRT, run.exitStatus);
  EXPECT_THAT(run.errors, HasSubstr("fd > 0 && @\"invalid fd\""));
}

TEST_F(KDXReadFileDeathTest, AnUnreadableFileOfAListEndsTheProcessAfterTheFilesBeforeIt) {
  const std::string path = fileOf(10, "a.mov");
  const std::string missing = scratch.file("missing.mov");
  EXPECT_EXIT(
      {
        compareStandardOutput();
        ImmediateQueue queue;
        KDXReadFiles(
            {FileURL(path), FileURL(missing)}, queue, [](const FileURL&) { return true; },
            [](bool isLast, const std::byte*, int64_t length, int32_t) {
              std::printf("read %d %s\n", static_cast<int>(length), isLast ? "last" : "more");
            });
      },
      testing::ExitedWithCode(108), testing::Eq("read 10 last\nERROR: could not open file at path: " + missing + "\n"));
}

TEST_F(KDXReadFileDeathTest, DescriptorZeroIsAFailedAssertionForAListToo) {
  const std::string path = fileOf(10);
  EXPECT_EXIT(
      {
        ::close(STDIN_FILENO);
        ImmediateQueue queue;
        KDXReadFiles(
            {FileURL(path)}, queue, [](const FileURL&) { return true; }, ignoreData);
      },
      testing::KilledBySignal(SIGABRT), HasSubstr("fd > 0 && @\"invalid fd\""));
}

// The setting's line and its limits, seen from outside

// Also tells the sanitizers to answer a request for too much memory as the system's own allocator does.
ToolRun runWithReadBufferSize(const std::string& value, const std::vector<std::string>& arguments) {
  const ScratchDirectory settings;
  writeFile(settings.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = " + value + "\n");
  return runTool(ToolStart{.arguments = arguments,
                           .environment = {{"XDG_CONFIG_HOME", settings.path().string()},
                                           {"ASAN_OPTIONS", "allocator_may_return_null=1"},
                                           {"TSAN_OPTIONS", "allocator_may_return_null=1"}}});
}

TEST_F(KDXReadFileTest, ABufferSizeFromTheSettingsIsLoggedOnceHoweverManyFilesAreRead) {
  const ToolRun run =
      runWithReadBufferSize("1", {fileOf(2 * MiB), scratch.file("a/clip.mov"), scratch.file("b/clip.mov")});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("kdxdispatchcopy: KDXReadFile buffer size 1\n", run.errors);
}

class UnloggedSetting : public Reader, public testing::WithParamInterface<Setting> {};

TEST_P(UnloggedSetting, PrintsNothing) {
  const ToolRun run = runWithReadBufferSize(GetParam().value, {"-j", fileOf(10)});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("", run.errors);
}

INSTANTIATE_TEST_SUITE_P(KDXReadFile, UnloggedSetting,
                         testing::Values(Setting{"Zero", "0"}, Setting{"Negative", "-5"}, Setting{"AWord", "many"}),
                         rowName);

struct HugeSetting : NamedRow {
  const char* value;
  const char* missing;  // what the message says that could not be had
};

class BufferThatCannotBeHad : public Reader, public testing::WithParamInterface<HugeSetting> {};

TEST_P(BufferThatCannotBeHad, EndsTheProcessWithAMessageBeforeAnyFileIsTouched) {
  const ToolRun run = runWithReadBufferSize(GetParam().value, {"-j", "-k", fileOf(10)});
  EXPECT_EQ(1, run.exitStatus);
  EXPECT_THAT(run.errors, HasSubstr(std::string("kdxdispatchcopy: could not get ") + GetParam().missing + "\n"));
  EXPECT_THAT(run.output, testing::Not(HasSubstr("hash ")));
}

INSTANTIATE_TEST_SUITE_P(
    KDXReadFile, BufferThatCannotBeHad,
    testing::Values(HugeSetting{"MoreThanTheMemory", "1000000000000", "1048576000000000000 bytes of memory"},
                    HugeSetting{"MoreThanAnAddressCanTell", "8796093022208", "a read buffer of 8796093022208 MiB"},
                    HugeSetting{"TheLargestNumber", "9223372036854775807", "a read buffer of 9223372036854775807 MiB"},
                    HugeSetting{"MoreThanTheLargestNumber", "99999999999999999999999",
                                "a read buffer of 9223372036854775807 MiB"}),
    rowName);

// Lists of files

// What happened, in order: "start NAME" and "LENGTH", "LENGTH last" or "LENGTH last errno ERROR".
struct Events {
  std::vector<std::string> events;
  std::string bytes;

  KDXReadFilesStartBlock startBlock(const std::string& stopAt = "") {
    return [this, stopAt](const FileURL& file) {
      events.push_back("start " + file.lastPathComponent());
      return file.lastPathComponent() != stopAt;
    };
  }
  KDXReadFileDataBlock dataBlock() {
    return [this](bool isLast, const std::byte* data, int64_t length, int32_t error) {
      events.push_back(std::to_string(length) + (isLast ? " last" : "") +
                       (error == 0 ? "" : " errno " + std::to_string(error)));
      bytes += blockOf(isLast, data, length, error).bytes;
    };
  }
};

TEST_F(KDXReadFilesTest, FilesComeInOrderEachWithItsStartBeforeItsData) {
  const std::vector<FileURL> files{FileURL(fileOf(10, "a.mov")), FileURL(fileOf(2 * MiB + 3, "b.mov")),
                                   FileURL(fileOf(0, "c.mov")), FileURL(fileOf(MiB, "d.mov"))};
  Events seen;
  platform::SerialQueue queue("test");
  KDXReadFiles(files, queue, seen.startBlock(), seen.dataBlock());
  EXPECT_THAT(seen.events, ElementsAre("start a.mov", "10 last",                       //
                                       "start b.mov", "1048576", "1048576", "3 last",  //
                                       "start c.mov", "0 last",                        //
                                       "start d.mov", "1048576", "0 last"));
  EXPECT_TRUE(readFile(files[0].path()) + readFile(files[1].path()) + readFile(files[3].path()) == seen.bytes);
}

TEST_F(KDXReadFilesTest, TheBuffersHaveTheSizeThatTheFirstFileAsksFor) {
  const std::vector<FileURL> files{FileURL(fileOf(2 * MiB + 512 * KiB, "a.mov")), FileURL(fileOf(4 * MiB, "b.mov"))};
  Events seen;
  platform::SerialQueue queue("test");
  KDXReadFiles(files, queue, seen.startBlock(), seen.dataBlock());
  EXPECT_THAT(seen.events, ElementsAre("start a.mov", "2621440 last", "start b.mov", "3145728", "1048576 last"));
}

TEST_F(KDXReadFilesTest, TheSettingOfTheBufferSizeDoesNotApply) {
  setReadBufferSize("2");
  Events seen;
  platform::SerialQueue queue("test");
  KDXReadFiles({FileURL(fileOf(0, "a.mov")), FileURL(fileOf(2 * MiB, "b.mov"))}, queue, seen.startBlock(),
               seen.dataBlock());
  EXPECT_THAT(seen.events, ElementsAre("start a.mov", "0 last", "start b.mov", "1048576", "1048576", "0 last"));
}

TEST_F(KDXReadFilesTest, AllFilesAreReadThroughTheSameTwoPageAlignedBuffers) {
  std::vector<FileURL> files;
  for (int i = 0; i < 5; ++i) files.emplace_back(fileOf(MiB + 1, std::to_string(i) + ".mov"));
  std::set<const std::byte*> addresses;
  platform::SerialQueue queue("test");
  KDXReadFiles(
      files, queue, [](const FileURL&) { return true; },
      [&](bool, const std::byte* bytes, int64_t, int32_t) { addresses.insert(bytes); });
  EXPECT_LE(addresses.size(), 2u);
  for (const std::byte* address : addresses) EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(address) % 4096);
}

TEST_F(KDXReadFilesTest, BothBlocksRunOnTheGivenQueue) {
  std::vector<bool> onTheQueue;
  platform::SerialQueue queue("test");
  KDXReadFiles(
      {FileURL(fileOf(10))}, queue,
      [&](const FileURL&) {
        onTheQueue.push_back(queue.isCurrentQueue());
        return true;
      },
      [&](bool, const std::byte*, int64_t, int32_t) { onTheQueue.push_back(queue.isCurrentQueue()); });
  EXPECT_THAT(onTheQueue, ElementsAre(true, true));
}

TEST_F(KDXReadFilesTest, ReturnsOnlyWhenTheLastCallbackHasReturned) {
  const std::string path = fileOf(10);
  std::promise<void> inTheCallback;
  std::promise<void> mayEnd;
  std::atomic<bool> callbackEnded = false;
  bool returnedAfterTheCallback = false;
  platform::SerialQueue queue("test");
  WatchedThread reader([&] {
    KDXReadFiles(
        {FileURL(path)}, queue, [](const FileURL&) { return true; },
        [&](bool, const std::byte*, int64_t, int32_t) {
          inTheCallback.set_value();
          mayEnd.get_future().wait();
          callbackEnded = true;
        });
    returnedAfterTheCallback = callbackEnded;
  });
  inTheCallback.get_future().wait();
  reader.waitUntilBlocked();
  mayEnd.set_value();
  reader.join();
  EXPECT_TRUE(returnedAfterTheCallback);
}

TEST_F(KDXReadFilesTest, AListOfNoFilesCallsNothing) {
  Events seen;
  platform::SerialQueue queue("test");
  KDXReadFiles({}, queue, seen.startBlock(), seen.dataBlock());
  EXPECT_THAT(seen.events, testing::IsEmpty());
}

TEST_F(KDXReadFilesTest, ALargeFileIsReadWithoutTheSettingsLine) {
  Events seen;
  platform::SerialQueue queue("test");
  const std::string path = fileOf(3 * MiB + 1);
  KDXReadFiles({FileURL(path)}, queue, seen.startBlock(), seen.dataBlock());
  EXPECT_TRUE(readFile(path) == seen.bytes);
}

TEST_F(KDXReadFilesTest, AStopAtTheFirstFileReadsItToItsEndAndDoesNotOpenTheSecond) {
  // Opening the second would end the process.
  Events seen;
  ImmediateQueue queue;
  KDXReadFiles({FileURL(fileOf(2 * MiB, "a.mov")), FileURL(scratch.file("missing.mov"))}, queue,
               seen.startBlock("a.mov"), seen.dataBlock());
  EXPECT_THAT(seen.events, ElementsAre("start a.mov", "2097152 last"));
}

TEST_F(KDXReadFilesTest, AStopAtALaterFileReadsAllOfItsBuffers) {
  Events seen;
  platform::SerialQueue queue("test");
  // The third buffer of b.mov can be read only when its start has run.
  KDXReadFiles(
      {FileURL(fileOf(10, "a.mov")), FileURL(fileOf(3 * MiB + 5, "b.mov")), FileURL(scratch.file("missing.mov"))},
      queue, seen.startBlock("b.mov"), seen.dataBlock());
  EXPECT_THAT(seen.events,
              ElementsAre("start a.mov", "10 last", "start b.mov", "1048576", "1048576", "1048576", "5 last"));
}

TEST_F(KDXReadFilesTest, AStopThatComesWhenItsFileIsReadAlreadyStopsBehindALaterOne) {
  Events seen;
  std::promise<void> bothRead;
  // Start and data of two files.
  ObservedQueue queue([&](int queued) {
    if (queued == 4) bothRead.set_value();
  });
  queue.async([&] { bothRead.get_future().wait(); });
  KDXReadFiles({FileURL(fileOf(10, "a.mov")), FileURL(fileOf(20, "b.mov"))}, queue, seen.startBlock("a.mov"),
               seen.dataBlock());
  EXPECT_THAT(seen.events, ElementsAre("start a.mov", "10 last", "start b.mov", "20 last"));
}

TEST_F(KDXReadFilesTest, AFailedReadEndsItsFileAndTheNextOneStartsWithoutAnError) {
  std::filesystem::create_directory(scratch.path() / "folder.mov");
  Events seen;
  platform::SerialQueue queue("test");
  KDXReadFiles({FileURL((scratch.path() / "folder.mov").string()), FileURL(fileOf(10, "b.mov"))}, queue,
               seen.startBlock(), seen.dataBlock());
  EXPECT_THAT(seen.events,
              ElementsAre("start folder.mov", "-1 last errno " + std::to_string(EISDIR), "start b.mov", "10 last"));
}

TEST_F(KDXReadFilesTest, EveryFileIsClosed) {
  const std::vector<FileURL> files{FileURL(fileOf(10, "a.mov")), FileURL(fileOf(20, "b.mov"))};
  const std::size_t before = openDescriptors();
  Events seen;
  platform::SerialQueue queue("test");
  KDXReadFiles(files, queue, seen.startBlock(), seen.dataBlock());
  EXPECT_EQ(before, openDescriptors());
}

TEST_F(KDXReadFilesTest, AListIsReadFromTheDeviceAndLeavesNothingInTheCache) {
  std::string whyNot;
  const auto device = MountedFileSystem::mount("ext4", 32 * MiB, whyNot);
  if (!device) GTEST_SKIP() << whyNot;
  const std::string path = device->file("clip.mov");
  writeFile(path, mediaBytes(3 * MiB));
  MountedFileSystem::fillCache(path);
  const uint64_t before = device->bytesReadFromDevice();
  Events seen;
  platform::SerialQueue queue("test");
  KDXReadFiles({FileURL(path)}, queue, seen.startBlock(), seen.dataBlock());
  EXPECT_TRUE(mediaBytes(3 * MiB) == seen.bytes);
  EXPECT_GE(device->bytesReadFromDevice() - before, 3 * MiB);
  EXPECT_EQ(0u, MountedFileSystem::bytesInCache(path));
}

struct BufferSize : NamedRow {
  uint64_t firstFileSize;
  std::size_t bufferSize;
};

class KDXReadFilesBufferSizes : public testing::TestWithParam<BufferSize> {};

TEST_P(KDXReadFilesBufferSizes, IsAFifthMoreInWholeMiBHalvedToSixteenMiBAtMost) {
  EXPECT_EQ(GetParam().bufferSize, KDXReadFilesBufferSize(GetParam().firstFileSize));
}

INSTANTIATE_TEST_SUITE_P(KDXReadFiles, KDXReadFilesBufferSizes,
                         testing::Values(BufferSize{"OfAnEmptyFile", 0, MiB}, BufferSize{"OfTenBytes", 10, MiB},
                                         BufferSize{"OfTheMostThatFitsOneMiB", 873'813, MiB},
                                         BufferSize{"OfTheLeastThatNeedsTwoMiB", 873'814, 2 * MiB},
                                         BufferSize{"OfOneMiB", MiB, 2 * MiB},
                                         BufferSize{"OfTenMiB", 10 * MiB, 12 * MiB},
                                         BufferSize{"OfTheMostThatIsNotHalved", 13'981'013, 16 * MiB},
                                         BufferSize{"OfTheLeastThatIsHalved", 13'981'014, 8'912'896},
                                         BufferSize{"OfTwentyMiB", 20 * MiB, 12 * MiB},
                                         BufferSize{"OfAHundredMiB", 100 * MiB, 15 * MiB},
                                         // 1,258,292 MiB, halved 17 times
                                         BufferSize{"OfOneTiB", uint64_t{1} << 40, 10'066'336}),
                         rowName);

TEST(KDXReadFilesBufferSize, StaysWithinItsLimitsForSizesThatNoFileHas) {
  for (const uint64_t size : {uint64_t{1} << 62, uint64_t{1} << 63, ~uint64_t{0}}) {
    EXPECT_GE(KDXReadFilesBufferSize(size), MiB) << size;
    EXPECT_LE(KDXReadFilesBufferSize(size), 32 * MiB) << size;
  }
}

}  // namespace
