#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/TemporaryFiles.h"
#include "platform/FileManager.h"
#include "platform/Memory.h"
#include "platform/OutputFile.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/OnFileSystem.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using platform::OutputFile;

namespace fs = std::filesystem;

namespace {

using Names = std::vector<std::string>;

constexpr std::size_t bufferSize = 64 * KiB;

// One write of the bytes, out of memory as the tool has it.
int64_t writeBytes(OutputFile& file, std::string_view bytes) {
  const platform::PageAlignedMemory buffer = platform::allocatePages(std::max<std::size_t>(bytes.size(), 1));
  std::ranges::copy(std::as_bytes(std::span(bytes)), buffer.get());
  return file.write(buffer.get(), bytes.size());
}

// Writes all in pieces of the size given, and closes.
void writeInPieces(const std::string& path, const std::string& bytes, std::size_t pieceSize) {
  platform::removeRegularFile(path);
  std::optional<OutputFile> file = OutputFile::createEmpty(path);
  ASSERT_TRUE(file) << path;
  for (std::size_t offset = 0; offset < bytes.size(); offset += pieceSize) {
    const std::string piece = bytes.substr(offset, pieceSize);
    ASSERT_EQ(static_cast<int64_t>(piece.size()), writeBytes(*file, piece));
  }
  EXPECT_TRUE(file->close());
}

// Creation

TEST(OutputFile, ANewFileIsThereAndEmpty) {
  const ScratchDirectory scratch;
  std::optional<OutputFile> file = OutputFile::createEmpty(scratch.file("clip.mov.kdxcopy"));
  ASSERT_TRUE(file);
  EXPECT_EQ(0U, fs::file_size(scratch.file("clip.mov.kdxcopy")));
  EXPECT_TRUE(file->close());
}

TEST(OutputFile, AnOldFileIsEmptiedAndWrittenAnew) {
  const ScratchDirectory scratch;
  const std::string path = scratch.file("clip.mov.kdxcopy");
  writeFile(path, mediaBytes(3 * bufferSize));
  writeInPieces(path, "short", bufferSize);
  EXPECT_EQ("short", readFile(path));
}

TEST(OutputFile, AnOldFileThatHasAnotherNameKeepsItsContentThere) {
  const ScratchDirectory scratch;
  const std::string path = scratch.file("clip.mov.kdxcopy");
  writeFile(path, "old");
  fs::create_hard_link(path, scratch.file("other.mov"));
  writeInPieces(path, "new", bufferSize);
  EXPECT_EQ("old", readFile(scratch.file("other.mov")));
  EXPECT_EQ("new", readFile(path));
}

TEST(OutputFile, ItsModeIsReadableAndWritableForAllLessTheUmask) {
  const ScratchDirectory scratch;
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{027}, mode_t{077}}) {
    const std::string path = scratch.file("clip" + std::to_string(mask));
    const mode_t before = ::umask(mask);
    const std::optional<OutputFile> file = OutputFile::createEmpty(path);
    ::umask(before);
    ASSERT_TRUE(file);
    struct stat facts = {};
    ASSERT_EQ(0, ::stat(path.c_str(), &facts));
    EXPECT_EQ(0666 & ~mask, facts.st_mode & 07777);
  }
}

TEST(OutputFile, IsNotCreatedWithoutItsFolder) {
  const ScratchDirectory scratch;
  EXPECT_FALSE(OutputFile::createEmpty((scratch.path() / "missing/clip.mov").string()));
  EXPECT_TRUE(fs::is_empty(scratch.path()));
}

TEST(OutputFile, IsNotWrittenThroughASymbolicLink) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("precious.mov"), "precious");
  fs::create_symlink("precious.mov", scratch.file("clip.mov.kdxcopy"));
  EXPECT_FALSE(OutputFile::createEmpty(scratch.file("clip.mov.kdxcopy")));
  EXPECT_EQ("precious", readFile(scratch.file("precious.mov")));
  EXPECT_TRUE(fs::is_symlink(scratch.file("clip.mov.kdxcopy")));
}

TEST(OutputFile, IsNotCreatedThroughASymbolicLinkThatLeadsNowhere) {
  const ScratchDirectory scratch;
  fs::create_symlink("nowhere.mov", scratch.file("clip.mov.kdxcopy"));
  EXPECT_FALSE(OutputFile::createEmpty(scratch.file("clip.mov.kdxcopy")));
  EXPECT_EQ((Names{"clip.mov.kdxcopy"}), namesBelow(scratch.path()));
}

TEST(OutputFile, AFolderIsRefusedAndKeepsWhatIsInIt) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov.kdxcopy/take.mov"), "content");
  EXPECT_FALSE(OutputFile::createEmpty((scratch.path() / "clip.mov.kdxcopy").string()));
  EXPECT_EQ("content", readFile(scratch.file("clip.mov.kdxcopy/take.mov")));
}

TEST(OutputFile, APipeThatNobodyReadsIsRefusedWithoutWaiting) {
  const ScratchDirectory scratch;
  ASSERT_EQ(0, ::mkfifo(scratch.file("clip.mov.kdxcopy").c_str(), 0600));
  EXPECT_FALSE(OutputFile::createEmpty(scratch.file("clip.mov.kdxcopy")));
  EXPECT_TRUE(fs::is_fifo(scratch.file("clip.mov.kdxcopy")));
}

TEST(OutputFile, APipeThatSomebodyReadsIsRefusedAndGetsNothing) {
  const ScratchDirectory scratch;
  const std::string path = scratch.file("clip.mov.kdxcopy");
  ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
  const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  EXPECT_FALSE(OutputFile::createEmpty(path));
  char byte = 0;
  EXPECT_EQ(0, ::read(reader, &byte, 1));
  ::close(reader);
  EXPECT_TRUE(fs::is_fifo(path));
}

TEST(OutputFile, ASocketIsRefused) {
  const ScratchDirectory scratch;
  const std::string path = scratch.file("clip.kdxcopy");
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::ranges::copy(path, address.sun_path);
  ASSERT_EQ(0, ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  EXPECT_FALSE(OutputFile::createEmpty(path));
  EXPECT_TRUE(fs::is_socket(path));
  ::close(socket);
}

TEST(OutputFile, ADeviceIsRefused) {
  EXPECT_FALSE(OutputFile::createEmpty("/dev/null"));
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

// The source, whatever the name under which it is given as a destination

class SourceAsDestination : public testing::Test {
 protected:
  void SetUp() override {
    writeFile(source(), "source");
    _identity = platform::identityOfFile(source());
    ASSERT_TRUE(_identity);
  }

  void expectRefused(const std::string& path) const {
    removeOld(path);
    EXPECT_FALSE(OutputFile::createEmpty(path)) << path;
    EXPECT_EQ("source", readFile(source()));
    EXPECT_EQ(_identity, platform::identityOfItem(path));
  }

  // As a copy of the source does before it creates its temporary files.
  void removeOld(const std::string& path) const {
    const platform::FileURL sourceURL(source());
    const platform::FileIdentities noOtherSources;
    TemporaryFileMaker(sourceURL, noOtherSources).removeOld(platform::FileURL(path));
  }

  std::string source() const { return _scratch.file("card/clip.mov.kdxcopy"); }
  const ScratchDirectory& scratch() const { return _scratch; }

 private:
  ScratchDirectory _scratch;
  std::optional<platform::FileIdentity> _identity;
};

TEST_F(SourceAsDestination, IsRefusedUnderItsOwnPath) {
  expectRefused(source());
}

TEST_F(SourceAsDestination, IsRefusedUnderAnotherSpellingOfItsPath) {
  expectRefused((scratch().path() / "card/../card/.//clip.mov.kdxcopy").string());
}

TEST_F(SourceAsDestination, IsRefusedUnderASecondNameAndKeepsIt) {
  fs::create_hard_link(source(), scratch().file("backup/clip.mov.kdxcopy"));
  expectRefused(scratch().file("backup/clip.mov.kdxcopy"));
}

TEST_F(SourceAsDestination, IsRefusedThroughALinkToItsFolder) {
  fs::create_directory_symlink("card", scratch().path() / "link");
  expectRefused((scratch().path() / "link/clip.mov.kdxcopy").string());
}

TEST_F(SourceAsDestination, AnotherFileIsTaken) {
  writeFile(scratch().file("backup/clip.mov.kdxcopy"), "old");
  removeOld(scratch().file("backup/clip.mov.kdxcopy"));
  EXPECT_TRUE(OutputFile::createEmpty(scratch().file("backup/clip.mov.kdxcopy")));
  EXPECT_EQ("", readFile(scratch().file("backup/clip.mov.kdxcopy")));
}

// Writing on every kind of file system

class WrittenOnFileSystem : public OnFileSystem {};

TEST_P(WrittenOnFileSystem, InOneWriteHasTheBytesAndNoMore) {
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{511}, std::size_t{512}, std::size_t{4095}, std::size_t{4096},
        std::size_t{4097}, bufferSize - 1, bufferSize, bufferSize + 1, 3 * bufferSize + 4097}) {
    SCOPED_TRACE(size);
    const std::string path = volume().file("clip.mov.kdxcopy");
    const std::string bytes = mediaBytes(size, static_cast<uint32_t>(size + 1));
    writeInPieces(path, bytes, std::max<std::size_t>(size, 1));
    EXPECT_EQ(size, fs::file_size(path));
    EXPECT_TRUE(bytes == readFile(path));
  }
}

TEST_P(WrittenOnFileSystem, InSeveralWritesWithATailHasTheBytesAndNoMore) {
  for (const std::size_t tail : {std::size_t{0}, std::size_t{1}, std::size_t{511}, std::size_t{512}, std::size_t{4095},
                                 std::size_t{4096}, std::size_t{4097}, bufferSize - 1}) {
    SCOPED_TRACE(tail);
    const std::string path = volume().file("clip.mov.kdxcopy");
    const std::string bytes = mediaBytes(3 * bufferSize + tail, static_cast<uint32_t>(tail + 1));
    writeInPieces(path, bytes, bufferSize);
    EXPECT_EQ(bytes.size(), fs::file_size(path));
    EXPECT_TRUE(bytes == readFile(path));
  }
}

TEST_P(WrittenOnFileSystem, GoesOnBehindAPieceThatIsNoWholeNumberOfBlocks) {
  for (const std::size_t piece : {std::size_t{100}, std::size_t{4097}, bufferSize - 1}) {
    SCOPED_TRACE(piece);
    const std::string path = volume().file("clip.mov.kdxcopy");
    const std::string bytes = mediaBytes(10 * piece + 5, static_cast<uint32_t>(piece));
    writeInPieces(path, bytes, piece);
    EXPECT_TRUE(bytes == readFile(path));
  }
}

TEST_P(WrittenOnFileSystem, OverALongerOldFileHasTheNewBytesAlone) {
  const std::string path = volume().file("clip.mov.kdxcopy");
  writeFile(path, mediaBytes(5 * bufferSize, 2));
  const std::string bytes = mediaBytes(2 * bufferSize + 100);
  writeInPieces(path, bytes, bufferSize);
  EXPECT_TRUE(bytes == readFile(path));
}

INSTANTIATE_TEST_SUITE_P(OutputFile, WrittenOnFileSystem,
                         testing::Values(FileSystemRow{"InMemory", "tmpfs", 16 * MiB},
                                         FileSystemRow{"RefusingTransfersPastTheCache", "ramfs", 16 * MiB},
                                         FileSystemRow{"Ext4", "ext4", 32 * MiB},
                                         FileSystemRow{"XFS", "xfs", 300 * MiB}),
                         rowName);

class WrittenOnDevice : public OnFileSystem {};

TEST_P(WrittenOnDevice, LeavesNothingInTheCache) {
  for (const std::size_t size : {2 * MiB, 2 * MiB + 17, std::size_t{17}}) {
    SCOPED_TRACE(size);
    const std::string path = volume().file("clip.mov.kdxcopy");
    writeInPieces(path, mediaBytes(size), MiB);
    EXPECT_EQ(0U, MountedFileSystem::bytesInCache(path));
  }
}

TEST_P(WrittenOnDevice, InUnevenPiecesLeavesNothingInTheCache) {
  const std::string path = volume().file("clip.mov.kdxcopy");
  writeInPieces(path, mediaBytes(9 * MiB), MiB - 3);  // more than is dropped at a time
  EXPECT_EQ(0U, MountedFileSystem::bytesInCache(path));
}

INSTANTIATE_TEST_SUITE_P(OutputFile, WrittenOnDevice,
                         testing::Values(FileSystemRow{"Ext4", "ext4", 32 * MiB},
                                         FileSystemRow{"XFS", "xfs", 300 * MiB}),
                         rowName);

// Full devices

class OnFullDevice : public OnFileSystem {};

TEST_P(OnFullDevice, WritesAreShortAndThenFailAndTheFileHoldsWhatWasTaken) {
  const std::string path = volume().file("clip.mov.kdxcopy");
  std::optional<OutputFile> file = OutputFile::createEmpty(path);
  ASSERT_TRUE(file);
  const std::string bytes = mediaBytes(MiB);
  int64_t taken = 0;
  int64_t result = 0;
  int reason = 0;
  for (int writes = 0; result >= 0 && writes < 64; ++writes) {
    result = writeBytes(*file, bytes);
    reason = errno;
    EXPECT_LE(result, static_cast<int64_t>(bytes.size()));
    if (result > 0) taken += result;
  }
  EXPECT_GT(0, result);
  EXPECT_EQ(ENOSPC, reason);
  EXPECT_EQ(static_cast<uintmax_t>(taken), fs::file_size(path));
}

INSTANTIATE_TEST_SUITE_P(OutputFile, OnFullDevice,
                         testing::Values(FileSystemRow{"InMemory", "tmpfs", 3 * MiB + 8192},
                                         FileSystemRow{"Ext4", "ext4", 16 * MiB}),
                         rowName);

TEST(OutputFile, OfAWriteThatDoesNotFitTheBytesThatWereTakenAreCounted) {
  std::string whyNot;
  const auto volume = MountedFileSystem::mount("tmpfs", MiB, whyNot);
  if (!volume) GTEST_SKIP() << whyNot;
  std::optional<OutputFile> file = OutputFile::createEmpty(volume->file("clip.mov.kdxcopy"));
  ASSERT_TRUE(file);
  EXPECT_EQ(static_cast<int64_t>(MiB), writeBytes(*file, mediaBytes(MiB + 512 * KiB)));
  EXPECT_GT(0, writeBytes(*file, mediaBytes(4096)));
  EXPECT_EQ(ENOSPC, errno);
}

TEST(OutputFile, AWriteWhoseTailAloneDoesNotFitIsAFailedWrite) {
  std::string whyNot;
  const auto volume = MountedFileSystem::mount("tmpfs", MiB, whyNot);
  if (!volume) GTEST_SKIP() << whyNot;
  std::optional<OutputFile> file = OutputFile::createEmpty(volume->file("clip.mov.kdxcopy"));
  ASSERT_TRUE(file);
  EXPECT_GT(0, writeBytes(*file, mediaBytes(MiB + 10)));
  EXPECT_EQ(ENOSPC, errno);
}

// The road through the cache, and failures of its calls

struct InjectionRow : NamedRow {
  std::vector<std::string> injects;
};

constexpr const char* refusedWhenSwitchedOn = "fcntl:error=EINVAL";
constexpr const char* refusedAtTheFirstWrite = "write:error=EINVAL:when=1";

// One destination, one buffer, and calls that fail for the temporary file.
class OffloadWithFaults : public testing::TestWithParam<InjectionRow> {
 protected:
  void SetUp() override {
    if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
    std::string whyNot;
    _volume = MountedFileSystem::mount("ext4", 32 * MiB, whyNot);
    if (!_volume) GTEST_SKIP() << whyNot;
  }

  ToolRun offload(const std::string& bytes) const {
    const std::string source = _scratch.file("clip.mov");
    writeFile(source, bytes);
    // Without the flush nothing but the writing itself takes care of the data.
    return runTool({.arguments = {"-k", "-nf", source, destination()},
                    .wrapper = injectingAt(destination() + ".kdxcopy", GetParam().injects)});
  }

  std::string destination() const { return _volume->file("clip.mov"); }
  const MountedFileSystem& volume() const { return *_volume; }

 private:
  ScratchDirectory _scratch;
  std::unique_ptr<MountedFileSystem> _volume;
};

using WriteThroughTheCache = OffloadWithFaults;

TEST_P(WriteThroughTheCache, GivesTheWholeFileAndLeavesNothingInTheCache) {
  for (const std::size_t size : {4096 + std::size_t{17}, 2 * MiB, 9 * MiB + 17}) {
    SCOPED_TRACE(size);
    fs::remove(destination());
    const ToolRun run = offload(mediaBytes(size));
    EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
    EXPECT_EQ(0U, MountedFileSystem::bytesInCache(destination()));
    EXPECT_TRUE(mediaBytes(size) == readFile(destination()));
  }
}

INSTANTIATE_TEST_SUITE_P(
    OutputFile, WriteThroughTheCache,
    testing::Values(InjectionRow{"NothingRefused", {}}, InjectionRow{"RefusedWhenSwitchedOn", {refusedWhenSwitchedOn}},
                    InjectionRow{"RefusedAtTheFirstWrite", {refusedAtTheFirstWrite}},
                    InjectionRow{"WithoutSyncOfARange", {refusedWhenSwitchedOn, "sync_file_range:error=ENOSYS"}},
                    InjectionRow{"InterruptedOnce", {"write:error=EINTR:when=1"}}),
    rowName);

using FailingWrite = OffloadWithFaults;

TEST_P(FailingWrite, EndsTheOffloadWithoutAFinalName) {
  const ToolRun run = offload(mediaBytes(2 * MiB + 17));
  EXPECT_EQ(110, run.exitStatus) << run.output << run.errors;
  EXPECT_TRUE(run.output.ends_with("write failed: -1")) << run.output;
  EXPECT_FALSE(fs::exists(destination()));
}

INSTANTIATE_TEST_SUITE_P(
    OutputFile, FailingWrite,
    testing::Values(InjectionRow{"OfEveryWrite", {"write:error=EIO"}},
                    InjectionRow{"OfTheTailAlone", {"write:error=EIO:when=2"}},
                    InjectionRow{"ThatIsRefusedOnBothRoads", {"write:error=EINVAL"}},
                    InjectionRow{"ThatDoesNotReachTheDevice", {refusedWhenSwitchedOn, "sync_file_range:error=EIO"}},
                    InjectionRow{"WhoseTailDoesNotReachTheDevice", {"sync_file_range:error=EIO"}},
                    InjectionRow{"WhoseTailDoesNotReachTheDeviceWhereNoRangeCanBeSynced",
                                 {"sync_file_range:error=ENOSYS", "fdatasync:error=EIO"}},
                    InjectionRow{"ThatFailsInTheLastSync", {refusedWhenSwitchedOn, "fdatasync:error=EIO"}},
                    InjectionRow{"ThatFailsInTheLastSyncBehindARefusedWrite",
                                 {refusedAtTheFirstWrite, "fdatasync:error=EIO"}},
                    InjectionRow{"ThatFailsInTheClose", {"close:error=EIO"}}),
    rowName);

}  // namespace
