#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/InputFile.h"
#include "platform/Memory.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/OnFileSystem.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using platform::InputFile;
using platform::ReadResult;

namespace fs = std::filesystem;

namespace {

constexpr std::size_t bufferSize = 64 * KiB;

// All that the file gives, read as the tool reads: buffer by buffer until one is not filled.
struct WholeFile {
  std::string bytes;
  std::vector<int64_t> lengths;
};

WholeFile readToEnd(InputFile& file, std::size_t size = bufferSize) {
  const platform::PageAlignedMemory buffer = platform::allocatePages(size);
  WholeFile whole;
  for (;;) {
    const ReadResult result = file.read(buffer.get(), size);
    EXPECT_EQ(0, result.error);
    whole.lengths.push_back(result.length);
    if (result.length > 0)
      whole.bytes.append(reinterpret_cast<const char*>(buffer.get()), static_cast<std::size_t>(result.length));
    if (result.length < static_cast<int64_t>(size)) return whole;
  }
}

// Whole buffers, and a last one that is not filled, be it empty.
std::vector<int64_t> lengthsOf(std::size_t fileSize, std::size_t size = bufferSize) {
  std::vector<int64_t> lengths(fileSize / size, static_cast<int64_t>(size));
  lengths.push_back(static_cast<int64_t>(fileSize % size));
  return lengths;
}

void syncFile(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(file, 0);
  EXPECT_EQ(0, ::fsync(file));
  ::close(file);
}

// Opening

TEST(InputFile, AMissingFileCannotBeOpened) {
  const ScratchDirectory scratch;
  EXPECT_FALSE(InputFile::open(scratch.file("missing.mov")));
}

TEST(InputFile, AFileCannotBeOpenedAsAFolder) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "content");
  EXPECT_FALSE(InputFile::open(scratch.file("clip.mov") + "/take.mov"));
}

TEST(InputFile, ASymbolicLinkReadsAsWhatItLeadsTo) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), mediaBytes(5000));
  fs::create_symlink("clip.mov", scratch.file("link.mov"));
  std::optional<InputFile> file = InputFile::open(scratch.file("link.mov"));
  ASSERT_TRUE(file);
  EXPECT_EQ(mediaBytes(5000), readToEnd(*file).bytes);
}

TEST(InputFile, ItsDescriptorIsThatOfTheFileAndClosesWithIt) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "content");
  int descriptor = -1;
  {
    const std::optional<InputFile> file = InputFile::open(scratch.file("clip.mov"));
    ASSERT_TRUE(file);
    descriptor = file->descriptor();
    struct stat opened = {};
    struct stat named = {};
    ASSERT_EQ(0, ::fstat(descriptor, &opened));
    ASSERT_EQ(0, ::stat(scratch.file("clip.mov").c_str(), &named));
    EXPECT_EQ(named.st_ino, opened.st_ino);
  }
  EXPECT_EQ(-1, ::fcntl(descriptor, F_GETFD));
}

TEST(InputFile, AMovedFileReadsOnWhereItWas) {
  const ScratchDirectory scratch;
  const std::string bytes = mediaBytes(2 * bufferSize + 100);
  writeFile(scratch.file("clip.mov"), bytes);
  std::optional<InputFile> file = InputFile::open(scratch.file("clip.mov"));
  ASSERT_TRUE(file);
  const platform::PageAlignedMemory buffer = platform::allocatePages(bufferSize);
  ASSERT_EQ(static_cast<int64_t>(bufferSize), file->read(buffer.get(), bufferSize).length);
  InputFile moved = std::move(*file);
  file.reset();
  EXPECT_TRUE(bytes.substr(bufferSize) == readToEnd(moved).bytes);
}

// Reading on every kind of file system

class ReadOnFileSystem : public OnFileSystem {};

TEST_P(ReadOnFileSystem, GivesFullBuffersAndALastOneThatIsNotFull) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{511}, std::size_t{512}, std::size_t{4095},
                                 std::size_t{4096}, std::size_t{4097}, bufferSize - 1, bufferSize, bufferSize + 1,
                                 3 * bufferSize - 4096, 3 * bufferSize, 3 * bufferSize + 4097}) {
    SCOPED_TRACE(size);
    const std::string path = volume().file("clip.mov");
    const std::string bytes = mediaBytes(size, static_cast<uint32_t>(size + 1));
    writeFile(path, bytes);
    syncFile(path);
    std::optional<InputFile> file = InputFile::open(path);
    ASSERT_TRUE(file);
    const WholeFile whole = readToEnd(*file);
    EXPECT_TRUE(bytes == whole.bytes);
    EXPECT_EQ(lengthsOf(size), whole.lengths);
  }
}

TEST_P(ReadOnFileSystem, GivesBytesThatWereWrittenAndNotSyncedYet) {
  for (const std::size_t size : {std::size_t{1}, bufferSize, 2 * bufferSize + 4097}) {
    SCOPED_TRACE(size);
    const std::string bytes = mediaBytes(size, static_cast<uint32_t>(size + 2));
    writeFile(volume().file("clip.mov"), bytes);
    std::optional<InputFile> file = InputFile::open(volume().file("clip.mov"));
    ASSERT_TRUE(file);
    EXPECT_TRUE(bytes == readToEnd(*file).bytes);
  }
}

TEST_P(ReadOnFileSystem, BehindTheEndGivesNothingAgainAndAgain) {
  for (const std::size_t size : {std::size_t{100}, bufferSize}) {
    SCOPED_TRACE(size);
    writeFile(volume().file("clip.mov"), mediaBytes(size));
    std::optional<InputFile> file = InputFile::open(volume().file("clip.mov"));
    ASSERT_TRUE(file);
    readToEnd(*file);
    const platform::PageAlignedMemory buffer = platform::allocatePages(bufferSize);
    for (int again = 0; again < 3; ++again) {
      const ReadResult result = file->read(buffer.get(), bufferSize);
      EXPECT_EQ(0, result.length);
      EXPECT_EQ(0, result.error);
    }
  }
}

TEST_P(ReadOnFileSystem, GivesAFileWithAHoleWithZeroesInIt) {
  const std::string path = volume().file("clip.mov");
  const std::string bytes = mediaBytes(bufferSize);
  writeFile(path, bytes);
  fs::resize_file(path, 3 * bufferSize + 10);
  std::optional<InputFile> file = InputFile::open(path);
  ASSERT_TRUE(file);
  EXPECT_TRUE(bytes + std::string(2 * bufferSize + 10, '\0') == readToEnd(*file).bytes);
}

TEST_P(ReadOnFileSystem, OfAFolderFailsWithItsReason) {
  std::optional<InputFile> folder = InputFile::open(volume().path().string());
  ASSERT_TRUE(folder);
  const platform::PageAlignedMemory buffer = platform::allocatePages(bufferSize);
  const ReadResult result = folder->read(buffer.get(), bufferSize);
  EXPECT_EQ(-1, result.length);
  EXPECT_EQ(EISDIR, result.error);
}

INSTANTIATE_TEST_SUITE_P(InputFile, ReadOnFileSystem,
                         testing::Values(FileSystemRow{"InMemory", "tmpfs", 16 * MiB},
                                         FileSystemRow{"RefusingTransfersPastTheCache", "ramfs", 16 * MiB},
                                         FileSystemRow{"Ext4", "ext4", 32 * MiB},
                                         FileSystemRow{"XFS", "xfs", 300 * MiB}),
                         rowName);

class ReadOnDevice : public OnFileSystem {
 protected:
  // A file that is on the device and, every page of it, in the cache.
  std::string cachedFile(const std::string& bytes) const {
    const std::string path = volume().file("clip.mov");
    writeFile(path, bytes);
    syncFile(path);
    MountedFileSystem::fillCache(path);
    return path;
  }
};

TEST_P(ReadOnDevice, ComesFromTheDeviceAlthoughTheWholeFileIsCached) {
  for (const std::size_t size : {2 * MiB, 2 * MiB + 17}) {
    SCOPED_TRACE(size);
    const std::string bytes = mediaBytes(size);
    const std::string path = cachedFile(bytes);
    const uint64_t before = volume().bytesReadFromDevice();
    std::optional<InputFile> file = InputFile::open(path);
    ASSERT_TRUE(file);
    EXPECT_TRUE(bytes == readToEnd(*file).bytes);
    EXPECT_GE(volume().bytesReadFromDevice() - before, size);
  }
}

TEST_P(ReadOnDevice, LeavesNothingInTheCache) {
  for (const std::size_t size : {2 * MiB, 2 * MiB + 17}) {
    SCOPED_TRACE(size);
    const std::string path = cachedFile(mediaBytes(size));
    {
      std::optional<InputFile> file = InputFile::open(path);
      ASSERT_TRUE(file);
      readToEnd(*file);
    }
    EXPECT_EQ(0U, MountedFileSystem::bytesInCache(path));
  }
}

TEST_P(ReadOnDevice, OfAFileThatWasNotSyncedComesFromTheDevice) {
  constexpr std::size_t size = 2 * MiB + 17;
  const std::string bytes = mediaBytes(size);
  writeFile(volume().file("clip.mov"), bytes);
  const uint64_t before = volume().bytesReadFromDevice();
  std::optional<InputFile> file = InputFile::open(volume().file("clip.mov"));
  ASSERT_TRUE(file);
  EXPECT_TRUE(bytes == readToEnd(*file).bytes);
  EXPECT_GE(volume().bytesReadFromDevice() - before, size);
}

INSTANTIATE_TEST_SUITE_P(InputFile, ReadOnDevice,
                         testing::Values(FileSystemRow{"Ext4", "ext4", 32 * MiB},
                                         FileSystemRow{"XFS", "xfs", 300 * MiB}),
                         rowName);

// Where transfers past the cache are refused, on file systems that have a device to read from

struct RefusalRow : NamedRow {
  const char* inject;
};

class ReadThroughTheCache : public testing::TestWithParam<RefusalRow> {
 protected:
  void SetUp() override {
    if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
    std::string whyNot;
    _volume = MountedFileSystem::mount("ext4", 32 * MiB, whyNot);
    if (!_volume) GTEST_SKIP() << whyNot;
  }

  // Reads the file once, in buffers of 1 MiB, with the refusal.
  ToolRun copyOf(const std::string& source) const {
    const ScratchDirectory settings;
    writeFile(settings.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
    return runTool({.arguments = {"-k", source, _scratch.file("clip.mov")},
                    .wrapper = injectingAt(source, {GetParam().inject}),
                    .environment = {{"XDG_CONFIG_HOME", settings.path().string()}}});
  }

  std::string copiedBytes() const { return readFile(_scratch.file("clip.mov")); }
  const MountedFileSystem& volume() const { return *_volume; }

 private:
  ScratchDirectory _scratch;
  std::unique_ptr<MountedFileSystem> _volume;
};

TEST_P(ReadThroughTheCache, ComesFromTheDeviceAlthoughTheWholeFileIsCachedAndLeavesNothingThere) {
  // More than is dropped at a time, and a tail.
  constexpr std::size_t size = 9 * MiB + 17;
  const std::string source = volume().file("clip.mov");
  writeFile(source, mediaBytes(size));
  syncFile(source);
  MountedFileSystem::fillCache(source);
  const uint64_t before = volume().bytesReadFromDevice();

  const ToolRun run = copyOf(source);

  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_GE(volume().bytesReadFromDevice() - before, size);
  EXPECT_EQ(0U, MountedFileSystem::bytesInCache(source));
  EXPECT_TRUE(mediaBytes(size) == copiedBytes());
}

TEST_P(ReadThroughTheCache, OfAFileThatWasNotSyncedComesFromTheDevice) {
  constexpr std::size_t size = 2 * MiB + 17;
  const std::string source = volume().file("clip.mov");
  writeFile(source, mediaBytes(size));
  const uint64_t before = volume().bytesReadFromDevice();

  const ToolRun run = copyOf(source);

  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_GE(volume().bytesReadFromDevice() - before, size);
  EXPECT_EQ(0U, MountedFileSystem::bytesInCache(source));
  EXPECT_TRUE(mediaBytes(size) == copiedBytes());
}

INSTANTIATE_TEST_SUITE_P(InputFile, ReadThroughTheCache,
                         testing::Values(RefusalRow{"RefusedWhenSwitchedOn", "fcntl:error=EINVAL"},
                                         RefusalRow{"RefusedAtTheFirstRead", "read:error=EINVAL:when=1"}),
                         rowName);

// Reads that give less than they were asked for, or fail

TEST(InputFile, ReadsOnWhenASystemCallGivesLessThanItWasAskedFor) {
  const ScratchDirectory scratch;
  const std::string pipe = scratch.file("pipe");
  ASSERT_EQ(0, ::mkfifo(pipe.c_str(), 0600));
  const std::string bytes = mediaBytes(2 * bufferSize + 1000);
  std::jthread writing([&] {
    const int end = ::open(pipe.c_str(), O_WRONLY | O_CLOEXEC);
    // One page at a time is all that fits, so no read can give a whole buffer.
    EXPECT_GE(::fcntl(end, F_SETPIPE_SZ, 4096), 0);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), ::write(end, bytes.data(), bytes.size()));
    ::close(end);
  });
  std::optional<InputFile> file = InputFile::open(pipe);
  ASSERT_TRUE(file);
  const WholeFile whole = readToEnd(*file);
  EXPECT_TRUE(bytes == whole.bytes);
  EXPECT_EQ(lengthsOf(bytes.size()), whole.lengths);
}

TEST(InputFile, AnErrorAfterSomeBytesIsAnError) {
  if (isEmulated()) GTEST_SKIP() << "an emulator puts memory behind the end of a mapped file when its pages are larger";
  const ScratchDirectory scratch;
  const std::size_t pageSize = platform::pageSize();
  writeFile(scratch.file("page"), mediaBytes(pageSize));
  const int page = ::open(scratch.file("page").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(page, 0);
  // The second page lies behind the end of the file: the process's memory can be read up to there and no further.
  void* const pages = ::mmap(nullptr, 2 * pageSize, PROT_READ, MAP_SHARED, page, 0);
  ::close(page);
  ASSERT_NE(MAP_FAILED, pages);
  std::optional<InputFile> memory = InputFile::open("/proc/self/mem");
  if (!memory) GTEST_SKIP() << "a process may not read its own memory as a file here";
  ASSERT_GE(::lseek(memory->descriptor(), static_cast<off_t>(reinterpret_cast<std::uintptr_t>(pages)), SEEK_SET), 0);
  const platform::PageAlignedMemory buffer = platform::allocatePages(2 * pageSize);

  const ReadResult result = memory->read(buffer.get(), 2 * pageSize);

  EXPECT_EQ(-1, result.length);
  EXPECT_EQ(EIO, result.error);
  // The first page was there to be read.
  EXPECT_TRUE(std::equal(buffer.get(), buffer.get() + pageSize, static_cast<const std::byte*>(pages)));
  ::munmap(pages, 2 * pageSize);
}

class InterruptedRead : public testing::TestWithParam<RefusalRow> {};

TEST_P(InterruptedRead, IsTakenUpAgain) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ScratchDirectory scratch;
  const std::string source = scratch.file("clip.mov");
  writeFile(source, mediaBytes(100'000));
  const ToolRun run = runTool(
      {.arguments = {"-k", source, scratch.file("a/clip.mov")}, .wrapper = injectingAt(source, {GetParam().inject})});
  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_TRUE(mediaBytes(100'000) == readFile(scratch.file("a/clip.mov")));
}

INSTANTIATE_TEST_SUITE_P(InputFile, InterruptedRead,
                         testing::Values(RefusalRow{"Once", "read:error=EINTR:when=1"},
                                         RefusalRow{"EverySecondTime", "read:error=EINTR:when=1+2"}),
                         rowName);

TEST(InputFile, AReadThatFailsOnTheCachedRoadTooEndsTheCopy) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ScratchDirectory scratch;
  const std::string source = scratch.file("clip.mov");
  writeFile(source, mediaBytes(100'000));
  const ToolRun run = runTool(
      {.arguments = {"-k", source, scratch.file("a/clip.mov")}, .wrapper = injectingAt(source, {"read:error=EINVAL"})});
  EXPECT_EQ(111, run.exitStatus);
}

TEST(InputFile, AReadErrorEndsTheCopy) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ScratchDirectory scratch;
  const std::string source = scratch.file("clip.mov");
  writeFile(source, mediaBytes(100'000));
  const ToolRun run = runTool({.arguments = {"-k", source, scratch.file("a/clip.mov")},
                               .wrapper = injectingAt(source, {"read:error=EIO:when=1"})});
  EXPECT_EQ(111, run.exitStatus);
  EXPECT_FALSE(fs::exists(scratch.file("a/clip.mov")));
}

}  // namespace
