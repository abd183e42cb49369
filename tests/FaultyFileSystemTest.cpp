#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/FaultyFileSystem.h"
#include "tests/support/ScratchDirectory.h"

namespace {

namespace filesystem = std::filesystem;
using namespace std::chrono_literals;
using faultyfs::FileDescriptor;
using testing::UnorderedElementsAre;

constexpr std::size_t directAlignment = 4096;

// Memory as O_DIRECT needs it.
class AlignedBuffer {
 public:
  explicit AlignedBuffer(std::size_t size)
      : _size(size), _bytes(static_cast<char*>(::operator new(size, std::align_val_t(directAlignment)))) {
    std::memset(_bytes.get(), 0x5A, size);
  }
  char* data() { return _bytes.get(); }
  std::size_t size() const { return _size; }

 private:
  struct Free {
    void operator()(char* bytes) const { ::operator delete(bytes, std::align_val_t(directAlignment)); }
  };
  std::size_t _size;
  std::unique_ptr<char, Free> _bytes;
};

// Bytes without any regularity, always the same for the same size and others for another.
std::string noise(std::size_t size) {
  return mediaBytes(size, static_cast<uint32_t>(size));
}

FileDescriptor openFile(const filesystem::path& path, int flags, mode_t mode = 0644) {
  return FileDescriptor(::open(path.c_str(), flags | O_CLOEXEC, mode));
}

// The errno of a system call that returned `result`, 0 if it succeeded.
int errorOf(long result) {
  return result < 0 ? errno : 0;
}

int errorOfOpening(const filesystem::path& path, int flags) {
  const FileDescriptor file = openFile(path, flags);
  return file.valid() ? 0 : errno;
}

// The bytes of the opened file up to its end, or nothing if reading fails; errno says why.
std::optional<std::string> readAll(int file) {
  std::string bytes;
  std::vector<char> buffer(256 * KiB);
  for (;;) {
    const ssize_t got = ::pread(file, buffer.data(), buffer.size(), static_cast<off_t>(bytes.size()));
    if (got < 0) {
      return std::nullopt;
    }
    if (got == 0) {
      return bytes;
    }
    bytes.append(buffer.data(), static_cast<std::size_t>(got));
  }
}

void dropCachedPages(int file) {
  ASSERT_EQ(::posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED), 0);
}

bool setDirect(int file) {
  return ::fcntl(file, F_SETFL, ::fcntl(file, F_GETFL) | O_DIRECT) == 0;
}

// The offsets at which two byte strings of the same size differ.
std::vector<std::size_t> differences(const std::string& one, const std::string& other) {
  std::vector<std::size_t> offsets;
  for (std::size_t i = 0; i < std::min(one.size(), other.size()); ++i) {
    if (one[i] != other[i]) {
      offsets.push_back(i);
    }
  }
  return offsets;
}

class FaultyFileSystemTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto& availability = FaultyFileSystem::availability(); !availability.usable) {
      GTEST_SKIP() << availability.reason;
    }
    _fs.emplace(_scratch.path());
  }

  void TearDown() override {
    _fs.reset();
    EXPECT_TRUE(filesystem::is_empty(_scratch.path())) << "the file system left something behind";
  }

  FaultyFileSystem& fs() { return *_fs; }

  // Puts a file straight into the storage, so that no page of it is cached by the mount.
  std::string storeNoise(const std::string& name, std::size_t size) {
    const std::string bytes = noise(size);
    writeFile(fs().stored(name), bytes);
    return bytes;
  }

  FileDescriptor openOnMount(const std::string& name, int flags = O_RDONLY) { return openFile(fs().path(name), flags); }

  ScratchDirectory _scratch;
  std::optional<FaultyFileSystem> _fs;
};

// ---- Passing through ----

TEST_F(FaultyFileSystemTest, WrittenBytesArriveInTheBackingFolderAndReadBackTheSame) {
  const std::string bytes = noise(3 * MiB + 123);
  writeFile(fs().path("clip.mov"), bytes);
  EXPECT_EQ(readFile(fs().stored("clip.mov")), bytes);
  EXPECT_EQ(readFile(fs().path("clip.mov")), bytes);
  EXPECT_EQ(filesystem::file_size(fs().path("clip.mov")), bytes.size());
}

TEST_F(FaultyFileSystemTest, AStoredFileReadsTheSameThroughTheMount) {
  const std::string bytes = storeNoise("clip.mov", 2 * MiB + 5);
  const FileDescriptor file = openOnMount("clip.mov");
  EXPECT_EQ(readAll(file.get()), bytes);
}

TEST_F(FaultyFileSystemTest, AppendingAndOverwritingPassThrough) {
  writeFile(fs().path("log"), "0123456789");
  const FileDescriptor appending = openOnMount("log", O_WRONLY | O_APPEND);
  ASSERT_EQ(::write(appending.get(), "abc", 3), 3);
  const FileDescriptor file = openOnMount("log", O_RDWR);
  ASSERT_EQ(::pwrite(file.get(), "XY", 2, 4), 2);
  EXPECT_EQ(readFile(fs().stored("log")), "0123XY6789abc");
  EXPECT_EQ(readFile(fs().path("log")), "0123XY6789abc");
}

TEST_F(FaultyFileSystemTest, TruncationsPassThrough) {
  writeFile(fs().path("clip.mov"), "0123456789");
  ASSERT_EQ(::truncate(fs().path("clip.mov").c_str(), 4), 0);
  EXPECT_EQ(readFile(fs().stored("clip.mov")), "0123");
  const FileDescriptor file = openOnMount("clip.mov", O_RDWR);
  ASSERT_EQ(::ftruncate(file.get(), 6), 0);
  EXPECT_EQ(readFile(fs().stored("clip.mov")), std::string("0123\0\0", 6));
  const FileDescriptor emptied = openOnMount("clip.mov", O_WRONLY | O_TRUNC);
  EXPECT_EQ(filesystem::file_size(fs().stored("clip.mov")), 0U);
  EXPECT_EQ(filesystem::file_size(fs().path("clip.mov")), 0U);
}

TEST_F(FaultyFileSystemTest, CreationObeysModeMaskAndExclusiveness) {
  const auto modeWithMask = [&](const char* name, mode_t mask) {
    const mode_t previous = ::umask(mask);
    EXPECT_TRUE(openFile(fs().path(name), O_CREAT | O_EXCL | O_WRONLY, 0666).valid());
    ::umask(previous);
    struct stat attributes {};
    EXPECT_EQ(::stat(fs().stored(name).c_str(), &attributes), 0);
    return attributes.st_mode & 07777U;
  };
  EXPECT_EQ(modeWithMask("clip.mov", 027), 0640U);
  EXPECT_EQ(modeWithMask("open.mov", 0), 0666U);
  EXPECT_EQ(errorOfOpening(fs().path("clip.mov"), O_CREAT | O_EXCL | O_WRONLY), EEXIST);
}

TEST_F(FaultyFileSystemTest, ModesAndTimesPassThrough) {
  storeNoise("clip.mov", 10);
  ASSERT_EQ(::chmod(fs().path("clip.mov").c_str(), 0604), 0);
  const std::array<timespec, 2> times = {timespec{1000000000, 123456789}, timespec{1100000000, 987654321}};
  ASSERT_EQ(::utimensat(AT_FDCWD, fs().path("clip.mov").c_str(), times.data(), 0), 0);
  for (const filesystem::path& path : {fs().path("clip.mov"), fs().stored("clip.mov")}) {
    struct stat attributes {};
    ASSERT_EQ(::stat(path.c_str(), &attributes), 0);
    EXPECT_EQ(attributes.st_mode & 07777U, 0604U);
    EXPECT_EQ(attributes.st_mtim.tv_sec, 1100000000);
    EXPECT_EQ(attributes.st_mtim.tv_nsec, 987654321);
  }
}

TEST_F(FaultyFileSystemTest, ExtendedAttributesPassThrough) {
  storeNoise("clip.mov", 10);
  if (::setxattr(fs().stored("clip.mov").c_str(), "user.reel", "A001", 4, 0) != 0) {
    GTEST_SKIP() << "the temporary folder stores no extended attributes";
  }
  std::array<char, 16> value{};
  const std::string path = fs().path("clip.mov");
  ASSERT_EQ(::getxattr(path.c_str(), "user.reel", value.data(), value.size()), 4);
  EXPECT_EQ(std::string(value.data(), 4), "A001");
  ASSERT_EQ(::setxattr(path.c_str(), "user.camera", "B", 1, 0), 0);
  EXPECT_EQ(::getxattr(fs().stored("clip.mov").c_str(), "user.camera", nullptr, 0), 1);
  ASSERT_EQ(::removexattr(path.c_str(), "user.reel"), 0);
  EXPECT_EQ(errorOf(::getxattr(path.c_str(), "user.reel", nullptr, 0)), ENODATA);
}

TEST_F(FaultyFileSystemTest, FoldersPassThrough) {
  ASSERT_EQ(::mkdir(fs().path("a").c_str(), 0755), 0);
  std::set<std::string> expected;
  for (int i = 0; i < 300; ++i) {
    const std::string name = "a clip with quite a long name " + std::to_string(i);
    writeFile(fs().stored("a/" + name), "x");
    expected.insert(name);
  }
  std::set<std::string> found;
  for (const auto& entry : filesystem::directory_iterator(fs().path("a"))) {
    EXPECT_TRUE(entry.is_regular_file());
    found.insert(entry.path().filename());
  }
  EXPECT_EQ(found, expected);
  EXPECT_EQ(errorOf(::rmdir(fs().path("a").c_str())), ENOTEMPTY);
  EXPECT_EQ(filesystem::remove_all(fs().path("a")), 301U);
  EXPECT_FALSE(filesystem::exists(fs().stored("a")));
}

TEST_F(FaultyFileSystemTest, AFolderReadAgainShowsNewEntries) {
  writeFile(fs().stored("one"), "1");
  const std::unique_ptr<DIR, decltype([](DIR* stream) { ::closedir(stream); })> stream(::opendir(fs().root().c_str()));
  ASSERT_TRUE(stream);
  const auto names = [&] {
    std::set<std::string> found;
    ::rewinddir(stream.get());
    while (const dirent* entry = ::readdir(stream.get())) {
      found.insert(entry->d_name);
    }
    return found;
  };
  EXPECT_THAT(names(), UnorderedElementsAre(".", "..", "one"));
  writeFile(fs().stored("two"), "2");
  EXPECT_THAT(names(), UnorderedElementsAre(".", "..", "one", "two"));
}

TEST_F(FaultyFileSystemTest, RenamingPassesThroughAndReplaces) {
  const std::string bytes = storeNoise("new", 1000);
  storeNoise("old", 10);
  ASSERT_EQ(::rename(fs().path("new").c_str(), fs().path("old").c_str()), 0);
  EXPECT_EQ(readFile(fs().stored("old")), bytes);
  EXPECT_EQ(readFile(fs().path("old")), bytes);
  EXPECT_FALSE(filesystem::exists(fs().path("new")));
}

TEST_F(FaultyFileSystemTest, RenamingWithoutReplacementKeepsAnExistingFile) {
  storeNoise("new", 1000);
  storeNoise("old", 10);
  const auto rename = [&](const char* to) {
    return errorOf(::renameat2(AT_FDCWD, fs().path("new").c_str(), AT_FDCWD, fs().path(to).c_str(), RENAME_NOREPLACE));
  };
  EXPECT_EQ(rename("old"), EEXIST);
  EXPECT_EQ(filesystem::file_size(fs().stored("old")), 10U);
  EXPECT_EQ(rename("free"), 0);
  EXPECT_EQ(filesystem::file_size(fs().stored("free")), 1000U);
}

TEST_F(FaultyFileSystemTest, AnOpenedFileStaysUsableAfterRenamingAndUnlinking) {
  const std::string bytes = storeNoise("clip.mov", 100 * KiB);
  const FileDescriptor file = openOnMount("clip.mov", O_RDWR);
  ASSERT_EQ(::rename(fs().path("clip.mov").c_str(), fs().path("other.mov").c_str()), 0);
  EXPECT_EQ(readAll(file.get()), bytes);
  EXPECT_EQ(fs().counters("other.mov").bytesRead, bytes.size());
  ASSERT_EQ(::unlink(fs().path("other.mov").c_str()), 0);
  ASSERT_EQ(::pwrite(file.get(), "end", 3, static_cast<off_t>(bytes.size())), 3);
  EXPECT_EQ(readAll(file.get()), bytes + "end");
  struct stat attributes {};
  ASSERT_EQ(::fstat(file.get(), &attributes), 0);
  EXPECT_EQ(attributes.st_nlink, 0U);
}

TEST_F(FaultyFileSystemTest, FilesInARenamedFolderAreKnownByTheirNewPath) {
  ASSERT_EQ(::mkdir(fs().path("a").c_str(), 0755), 0);
  storeNoise("a/clip.mov", 4 * KiB);
  const FileDescriptor file = openOnMount("a/clip.mov");
  ASSERT_EQ(::rename(fs().path("a").c_str(), fs().path("b").c_str()), 0);
  ASSERT_TRUE(readAll(file.get()).has_value());
  EXPECT_EQ(fs().counters("b/clip.mov").bytesRead, 4 * KiB);
  EXPECT_EQ(fs().counters("a/clip.mov").bytesRead, 0U);
}

TEST_F(FaultyFileSystemTest, HardLinksAreOneFile) {
  const std::string bytes = storeNoise("clip.mov", 10 * KiB);
  ASSERT_EQ(::link(fs().path("clip.mov").c_str(), fs().path("link.mov").c_str()), 0);
  struct stat one {};
  struct stat other {};
  ASSERT_EQ(::stat(fs().path("clip.mov").c_str(), &one), 0);
  ASSERT_EQ(::stat(fs().path("link.mov").c_str(), &other), 0);
  EXPECT_EQ(one.st_ino, other.st_ino);
  EXPECT_EQ(one.st_nlink, 2U);
  ASSERT_EQ(::unlink(fs().path("clip.mov").c_str()), 0);
  EXPECT_EQ(readFile(fs().path("link.mov")), bytes);
}

TEST_F(FaultyFileSystemTest, SymbolicLinksPassThrough) {
  const std::string bytes = storeNoise("clip.mov", 100);
  ASSERT_EQ(::symlink("clip.mov", fs().path("pointer").c_str()), 0);
  EXPECT_EQ(filesystem::read_symlink(fs().path("pointer")), "clip.mov");
  EXPECT_EQ(filesystem::read_symlink(fs().stored("pointer")), "clip.mov");
  EXPECT_EQ(readFile(fs().path("pointer")), bytes);
}

TEST_F(FaultyFileSystemTest, FileSystemStatisticsPassThrough) {
  struct statvfs mounted {};
  struct statvfs stored {};
  ASSERT_EQ(::statvfs(fs().root().c_str(), &mounted), 0);
  ASSERT_EQ(::statvfs(fs().backing().c_str(), &stored), 0);
  EXPECT_EQ(mounted.f_blocks, stored.f_blocks);
  EXPECT_EQ(mounted.f_frsize, stored.f_frsize);
}

TEST_F(FaultyFileSystemTest, AMissingFileAndAMissingFolderAreReportedAsMissing) {
  EXPECT_EQ(errorOfOpening(fs().path("missing"), O_RDONLY), ENOENT);
  EXPECT_EQ(errorOfOpening(fs().path("missing/clip.mov"), O_CREAT | O_WRONLY), ENOENT);
  EXPECT_EQ(errorOf(::access(fs().path("missing").c_str(), F_OK)), ENOENT);
}

// ---- Page cache and direct transfer ----

TEST_F(FaultyFileSystemTest, CachedPagesSurviveClosingAndReopening) {
  const std::string bytes = noise(1 * MiB);
  writeFile(fs().path("clip.mov"), bytes);
  fs().resetCounters();
  EXPECT_EQ(readFile(fs().path("clip.mov")), bytes);
  EXPECT_EQ(fs().counters("clip.mov").opens, 1U);
  EXPECT_EQ(fs().counters("clip.mov").readRequests, 0U) << "written pages should still be cached";
}

TEST_F(FaultyFileSystemTest, CachedPagesSurviveANewModificationTime) {
  const std::string bytes = noise(256 * KiB);
  writeFile(fs().path("clip.mov"), bytes);
  const std::array<timespec, 2> times = {timespec{1000000000, 0}, timespec{1000000000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, fs().path("clip.mov").c_str(), times.data(), 0), 0);
  EXPECT_EQ(readFile(fs().path("clip.mov")), bytes);
  EXPECT_EQ(fs().counters("clip.mov").readRequests, 0U);
}

TEST_F(FaultyFileSystemTest, DroppingCachedPagesMakesReadsReachTheFileSystem) {
  const std::string bytes = noise(1 * MiB);
  writeFile(fs().path("clip.mov"), bytes);
  const FileDescriptor file = openOnMount("clip.mov");
  dropCachedPages(file.get());
  EXPECT_EQ(readAll(file.get()), bytes);
  EXPECT_EQ(fs().counters("clip.mov").bytesRead, bytes.size());
  EXPECT_EQ(fs().counters("clip.mov").directReadRequests, 0U);
}

TEST_F(FaultyFileSystemTest, ADirectFlagSetLaterMakesReadsReachTheFileSystemInSpiteOfCachedPages) {
  const std::string bytes = noise(1 * MiB);
  writeFile(fs().path("clip.mov"), bytes);
  const FileDescriptor file = openOnMount("clip.mov");
  ASSERT_TRUE(setDirect(file.get()));
  AlignedBuffer buffer(1 * MiB);
  ASSERT_EQ(::pread(file.get(), buffer.data(), buffer.size(), 0), static_cast<ssize_t>(bytes.size()));
  EXPECT_EQ(std::memcmp(buffer.data(), bytes.data(), bytes.size()), 0);
  const faultyfs::Counters counters = fs().counters("clip.mov");
  EXPECT_EQ(counters.bytesRead, bytes.size());
  EXPECT_GE(counters.directReadRequests, 1U);
  EXPECT_EQ(counters.directReadRequests, counters.readRequests);
}

TEST_F(FaultyFileSystemTest, TheDirectFlagCanBeTakenBack) {
  storeNoise("clip.mov", 64 * KiB);
  const FileDescriptor file = openOnMount("clip.mov");
  ASSERT_TRUE(setDirect(file.get()));
  ASSERT_EQ(::fcntl(file.get(), F_SETFL, ::fcntl(file.get(), F_GETFL) & ~O_DIRECT), 0);
  ASSERT_TRUE(readAll(file.get()).has_value());
  EXPECT_GE(fs().counters("clip.mov").readRequests, 1U);
  EXPECT_EQ(fs().counters("clip.mov").directReadRequests, 0U);
}

TEST_F(FaultyFileSystemTest, DirectWritesAreCountedAndStored) {
  const FileDescriptor file = openFile(fs().path("clip.mov"), O_CREAT | O_RDWR);
  ASSERT_TRUE(setDirect(file.get()));
  AlignedBuffer buffer(256 * KiB);
  ASSERT_EQ(::pwrite(file.get(), buffer.data(), buffer.size(), 0), static_cast<ssize_t>(buffer.size()));
  EXPECT_EQ(readFile(fs().stored("clip.mov")), std::string(buffer.data(), buffer.size()));
  EXPECT_GE(fs().counters("clip.mov").directWriteRequests, 1U);
  EXPECT_EQ(fs().counters("clip.mov").bytesWritten, buffer.size());
}

TEST_F(FaultyFileSystemTest, RefusingDirectOpensLeavesOtherOpensAlone) {
  storeNoise("clip.mov", 4 * KiB);
  fs().whenOpening("*").refuseDirect();
  EXPECT_EQ(errorOfOpening(fs().path("clip.mov"), O_RDONLY | O_DIRECT), EINVAL);
  EXPECT_EQ(errorOfOpening(fs().path("clip.mov"), O_RDONLY), 0);
  EXPECT_EQ(errorOfOpening(fs().path("new.mov"), O_CREAT | O_WRONLY | O_DIRECT), EINVAL);
  EXPECT_TRUE(filesystem::exists(fs().stored("new.mov")));
  fs().clear();
  EXPECT_EQ(errorOfOpening(fs().path("clip.mov"), O_RDONLY | O_DIRECT), 0);
}

TEST_F(FaultyFileSystemTest, DirectReadsCanBeRefusedAlthoughTheFlagCouldBeSet) {
  const std::string bytes = storeNoise("clip.mov", 64 * KiB);
  const auto fault = fs().whenReading("*.mov").refuseDirect();
  const FileDescriptor file = openOnMount("clip.mov");
  ASSERT_TRUE(setDirect(file.get()));
  AlignedBuffer buffer(64 * KiB);
  EXPECT_EQ(errorOf(::pread(file.get(), buffer.data(), buffer.size(), 0)), EINVAL);
  EXPECT_EQ(fs().timesFired(fault), 1U);
  ASSERT_EQ(::fcntl(file.get(), F_SETFL, ::fcntl(file.get(), F_GETFL) & ~O_DIRECT), 0);
  EXPECT_EQ(readAll(file.get()), bytes);
}

TEST_F(FaultyFileSystemTest, DirectWritesCanBeRefusedAlthoughTheFlagCouldBeSet) {
  fs().whenWriting("*").refuseDirect();
  const FileDescriptor file = openFile(fs().path("clip.mov"), O_CREAT | O_WRONLY);
  ASSERT_EQ(::pwrite(file.get(), "0123", 4, 0), 4);
  ASSERT_TRUE(setDirect(file.get()));
  AlignedBuffer buffer(64 * KiB);
  EXPECT_EQ(errorOf(::pwrite(file.get(), buffer.data(), buffer.size(), 0)), EINVAL);
  EXPECT_EQ(readFile(fs().stored("clip.mov")), "0123");
}

// ---- Faults of reading ----

TEST_F(FaultyFileSystemTest, AFlippedBitAppearsFromTheSecondPassOn) {
  const std::string bytes = storeNoise("clip.mov", 3 * MiB);
  const std::size_t offset = 2 * MiB + 17;
  const auto fault = fs().whenReading("clip.mov").fromPass(2).flipBitAt(offset, 5);
  for (int pass = 1; pass <= 3; ++pass) {
    const FileDescriptor file = openOnMount("clip.mov");
    dropCachedPages(file.get());
    const std::optional<std::string> read = readAll(file.get());
    ASSERT_TRUE(read && read->size() == bytes.size());
    if (pass == 1) {
      EXPECT_TRUE(differences(*read, bytes).empty());
    } else {
      EXPECT_EQ(differences(*read, bytes), std::vector{offset});
      EXPECT_EQ(((*read)[offset] ^ bytes[offset]) & 0xFF, 1 << 5);
    }
  }
  EXPECT_EQ(fs().timesFired(fault), 2U);
}

TEST_F(FaultyFileSystemTest, AFlippedBitShowsToDirectReadersButNotToReadersOfTheCache) {
  const std::string bytes = storeNoise("clip.mov", 1 * MiB);
  const FileDescriptor file = openOnMount("clip.mov");
  fs().whenReading("*").fromPass(2).flipBitAt(4000);
  EXPECT_EQ(readAll(file.get()), bytes);
  EXPECT_EQ(readAll(file.get()), bytes) << "answered by the cache, which is right";
  ASSERT_TRUE(setDirect(file.get()));
  AlignedBuffer buffer(8 * KiB);
  ASSERT_EQ(::pread(file.get(), buffer.data(), buffer.size(), 0), static_cast<ssize_t>(buffer.size()));
  EXPECT_EQ(differences(std::string(buffer.data(), buffer.size()), bytes), std::vector<std::size_t>{4000});
}

TEST_F(FaultyFileSystemTest, PassesCountPerFileAndStartAfreshForANewFile) {
  const std::string bytes = noise(4 * KiB);
  fs().whenReading("*").fromPass(2).flipBitAt(100);
  const auto readPastTheCache = [&](const std::string& name) {
    const FileDescriptor file = openOnMount(name);
    dropCachedPages(file.get());
    return readAll(file.get());
  };
  writeFile(fs().path("one"), bytes);
  writeFile(fs().path("two"), bytes);
  EXPECT_EQ(readPastTheCache("one"), bytes);
  EXPECT_EQ(readPastTheCache("two"), bytes);
  EXPECT_NE(readPastTheCache("one"), bytes);
  ASSERT_EQ(::unlink(fs().path("one").c_str()), 0);
  writeFile(fs().path("one"), bytes);
  EXPECT_EQ(readPastTheCache("one"), bytes);
  EXPECT_NE(readPastTheCache("two"), bytes);
}

TEST_F(FaultyFileSystemTest, ABitCanFlipForASinglePass) {
  const std::string bytes = storeNoise("clip.mov", 4 * KiB);
  fs().whenReading("*").fromPass(2).times(1).flipBitAt(0, 7);
  std::vector<bool> right;
  for (int pass = 1; pass <= 3; ++pass) {
    const FileDescriptor file = openOnMount("clip.mov");
    dropCachedPages(file.get());
    right.push_back(readAll(file.get()) == bytes);
  }
  EXPECT_EQ(right, (std::vector<bool>{true, false, true}));
}

TEST_F(FaultyFileSystemTest, AReadErrorHitsOnlyTheOffsetInQuestion) {
  const std::string bytes = storeNoise("clip.mov", 4 * MiB);
  fs().whenReading("clip.mov").failAt(3 * MiB, EIO);
  const FileDescriptor file = openOnMount("clip.mov");
  std::vector<char> buffer(64 * KiB);
  ASSERT_EQ(::pread(file.get(), buffer.data(), buffer.size(), 0), static_cast<ssize_t>(buffer.size()));
  EXPECT_EQ(std::memcmp(buffer.data(), bytes.data(), buffer.size()), 0);
  EXPECT_EQ(errorOf(::pread(file.get(), buffer.data(), buffer.size(), 3 * MiB)), EIO);
  EXPECT_FALSE(readAll(file.get()).has_value());
  fs().clear();
  EXPECT_EQ(readAll(file.get()), bytes);
}

TEST_F(FaultyFileSystemTest, AReadErrorCanBeginWithALaterRequest) {
  storeNoise("clip.mov", 1 * MiB);
  fs().whenReading("clip.mov").fromRequest(3).failAt(4096, EIO);
  const FileDescriptor file = openOnMount("clip.mov");
  ASSERT_TRUE(setDirect(file.get()));
  AlignedBuffer buffer(8 * KiB);
  std::vector<int> errors;
  for (int request = 1; request <= 4; ++request) {
    errors.push_back(errorOf(::pread(file.get(), buffer.data(), buffer.size(), 0)));
  }
  EXPECT_EQ(errors, (std::vector<int>{0, 0, EIO, EIO}));
}

TEST_F(FaultyFileSystemTest, AReadErrorKeepsItsNumberPastTheCache) {
  storeNoise("clip.mov", 64 * KiB);
  fs().whenReading("clip.mov").fail(ENXIO);
  const FileDescriptor file = openOnMount("clip.mov");
  ASSERT_TRUE(setDirect(file.get()));
  AlignedBuffer buffer(4 * KiB);
  EXPECT_EQ(errorOf(::pread(file.get(), buffer.data(), buffer.size(), 0)), ENXIO);
}

TEST_F(FaultyFileSystemTest, ShortReadsShowWhereTheCacheIsBypassed) {
  const std::string bytes = storeNoise("clip.mov", 100 * KiB);
  fs().whenOpening("*").bypassCache();
  fs().whenReading("clip.mov").times(2).limitTo(1000);
  const FileDescriptor file = openOnMount("clip.mov");
  std::vector<char> buffer(10 * KiB);
  EXPECT_EQ(::pread(file.get(), buffer.data(), buffer.size(), 0), 1000);
  EXPECT_EQ(std::memcmp(buffer.data(), bytes.data(), 1000), 0);
  EXPECT_EQ(::pread(file.get(), buffer.data(), buffer.size(), 5000), 1000);
  EXPECT_EQ(std::memcmp(buffer.data(), bytes.data() + 5000, 1000), 0);
  EXPECT_EQ(::pread(file.get(), buffer.data(), buffer.size(), 5000), static_cast<ssize_t>(buffer.size()));
}

TEST_F(FaultyFileSystemTest, EveryReadOfAFileThatBypassesTheCacheIsARequest) {
  const std::string bytes = noise(100 * KiB);
  writeFile(fs().path("clip.mov"), bytes);
  fs().whenOpening("*").bypassCache();
  const FileDescriptor file = openOnMount("clip.mov");
  EXPECT_EQ(readAll(file.get()), bytes);
  EXPECT_EQ(readAll(file.get()), bytes);
  EXPECT_EQ(fs().counters("clip.mov").bytesRead, 2 * bytes.size());
  EXPECT_EQ(fs().counters("clip.mov").directReadRequests, 0U);
}

// ---- Faults of writing ----

TEST_F(FaultyFileSystemTest, AWriteErrorHitsOnlyTheOffsetInQuestion) {
  ASSERT_EQ(::mkdir(fs().path("a").c_str(), 0755), 0);
  fs().whenWriting("a/*").failAt(5 * MiB, EIO);
  const FileDescriptor file = openFile(fs().path("a/clip.mov"), O_CREAT | O_WRONLY);
  const std::string block = noise(1 * MiB);
  for (off_t offset = 0; offset < static_cast<off_t>(5 * MiB); offset += static_cast<off_t>(MiB)) {
    ASSERT_EQ(::pwrite(file.get(), block.data(), block.size(), offset), static_cast<ssize_t>(block.size()));
  }
  EXPECT_EQ(errorOf(::pwrite(file.get(), block.data(), block.size(), 5 * MiB)), EIO);
  EXPECT_EQ(filesystem::file_size(fs().stored("a/clip.mov")), 5 * MiB);
  const FileDescriptor other = openFile(fs().path("clip.mov"), O_CREAT | O_WRONLY);
  EXPECT_EQ(::pwrite(other.get(), block.data(), block.size(), 5 * MiB), static_cast<ssize_t>(block.size()));
}

TEST_F(FaultyFileSystemTest, AWriteErrorCanBePassing) {
  fs().whenWriting("*").fromRequest(2).times(1).fail(EIO);
  const FileDescriptor file = openFile(fs().path("clip.mov"), O_CREAT | O_WRONLY);
  EXPECT_EQ(::write(file.get(), "one", 3), 3);
  EXPECT_EQ(errorOf(::write(file.get(), "two", 3)), EIO);
  EXPECT_EQ(::write(file.get(), "three", 5), 5);
  EXPECT_EQ(readFile(fs().stored("clip.mov")), "onethree");
}

TEST_F(FaultyFileSystemTest, ShortWritesAreAcceptedInPart) {
  fs().whenWriting("clip.mov").times(1).limitTo(5000);
  const std::string bytes = noise(20 * KiB);
  const FileDescriptor file = openFile(fs().path("clip.mov"), O_CREAT | O_WRONLY);
  ASSERT_EQ(::write(file.get(), bytes.data(), bytes.size()), 5000);
  EXPECT_EQ(filesystem::file_size(fs().stored("clip.mov")), 5000U);
  ASSERT_EQ(::write(file.get(), bytes.data() + 5000, bytes.size() - 5000), static_cast<ssize_t>(bytes.size() - 5000));
  EXPECT_EQ(readFile(fs().stored("clip.mov")), bytes);
}

TEST_F(FaultyFileSystemTest, AFullMediumCutsTheWriteThatCrossesItsEndAndRefusesTheNext) {
  fs().whenWriting("*").runOutOfSpaceAfter(10000);
  const std::string bytes = noise(8000);
  const FileDescriptor file = openFile(fs().path("clip.mov"), O_CREAT | O_WRONLY);
  EXPECT_EQ(::write(file.get(), bytes.data(), bytes.size()), 8000);
  EXPECT_EQ(::write(file.get(), bytes.data(), bytes.size()), 2000);
  EXPECT_EQ(errorOf(::write(file.get(), bytes.data(), bytes.size())), ENOSPC);
  EXPECT_EQ(errorOf(::ftruncate(file.get(), 10001)), ENOSPC);
  EXPECT_EQ(errorOf(::fallocate(file.get(), 0, 0, 20000)), ENOSPC);
  EXPECT_EQ(filesystem::file_size(fs().stored("clip.mov")), 10000U);
  EXPECT_EQ(::pwrite(file.get(), "0123", 4, 0), 4) << "what is there can be overwritten";
}

TEST_F(FaultyFileSystemTest, AFullMediumTreatsDirectWritesTheSameWay) {
  fs().whenWriting("*").runOutOfSpaceAfter(96 * KiB);
  const FileDescriptor file = openFile(fs().path("clip.mov"), O_CREAT | O_WRONLY);
  ASSERT_TRUE(setDirect(file.get()));
  AlignedBuffer buffer(64 * KiB);
  EXPECT_EQ(::write(file.get(), buffer.data(), buffer.size()), static_cast<ssize_t>(64 * KiB));
  EXPECT_EQ(::write(file.get(), buffer.data(), buffer.size()), static_cast<ssize_t>(32 * KiB));
  EXPECT_EQ(errorOf(::write(file.get(), buffer.data(), buffer.size())), ENOSPC);
  EXPECT_EQ(filesystem::file_size(fs().stored("clip.mov")), 96 * KiB);
}

TEST_F(FaultyFileSystemTest, AFullMediumStillTakesWhatAFileHasAlreadyGot) {
  storeNoise("clip.mov", 20000);
  fs().whenWriting("*").runOutOfSpaceAfter(10000);
  const FileDescriptor file = openOnMount("clip.mov", O_WRONLY);
  EXPECT_EQ(::pwrite(file.get(), "0123", 4, 15000), 4);
  EXPECT_EQ(errorOf(::ftruncate(file.get(), 20001)), ENOSPC);
  EXPECT_EQ(errorOf(::ftruncate(file.get(), 19000)), 0);
  EXPECT_EQ(filesystem::file_size(fs().stored("clip.mov")), 19000U);
}

TEST_F(FaultyFileSystemTest, DroppedWritesAreAcknowledgedAndReadBackAsZeros) {
  const std::string bytes = noise(256 * KiB);
  fs().whenWriting("clip.mov").dropRange(10000, 50000);
  writeFile(fs().path("clip.mov"), bytes);
  EXPECT_EQ(readFile(fs().path("clip.mov")), bytes) << "the cache does not know of the loss";
  const FileDescriptor file = openOnMount("clip.mov");
  dropCachedPages(file.get());
  EXPECT_EQ(readAll(file.get()), std::string(bytes).replace(10000, 50000, 50000, '\0'));
}

TEST_F(FaultyFileSystemTest, ADroppedEndOfAFileStillExtendsIt) {
  fs().whenWriting("clip.mov").dropRange(100, 1000);
  const std::string bytes = noise(300);
  writeFile(fs().path("clip.mov"), bytes);
  EXPECT_EQ(readFile(fs().stored("clip.mov")), bytes.substr(0, 100) + std::string(200, '\0'));
}

TEST_F(FaultyFileSystemTest, ATornWriteStoresOnlyItsBeginning) {
  fs().whenWriting("clip.mov").tearAt(70000, 1000);
  const std::string bytes = noise(65536);
  const FileDescriptor file = openFile(fs().path("clip.mov"), O_CREAT | O_WRONLY);
  ASSERT_EQ(::write(file.get(), bytes.data(), bytes.size()), 65536);
  ASSERT_EQ(::write(file.get(), bytes.data(), bytes.size()), 65536);
  EXPECT_EQ(readFile(fs().stored("clip.mov")), bytes + bytes.substr(0, 1000) + std::string(64536, '\0'));
}

TEST_F(FaultyFileSystemTest, ABitCanFlipOnTheWayToTheMedium) {
  const std::string bytes = noise(64 * KiB);
  fs().whenWriting("clip.mov").flipBitAt(12345, 2);
  writeFile(fs().path("clip.mov"), bytes);
  EXPECT_EQ(readFile(fs().path("clip.mov")), bytes);
  EXPECT_EQ(differences(readFile(fs().stored("clip.mov")), bytes), std::vector<std::size_t>{12345});
}

// ---- Faults of flushing and closing ----

TEST_F(FaultyFileSystemTest, FlushingFailsAsOftenAsDemanded) {
  fs().whenSyncing("clip.mov").times(2).fail(EIO);
  const FileDescriptor file = openFile(fs().path("clip.mov"), O_CREAT | O_WRONLY);
  EXPECT_EQ(errorOf(::fsync(file.get())), EIO);
  EXPECT_EQ(errorOf(::fdatasync(file.get())), EIO);
  EXPECT_EQ(errorOf(::fsync(file.get())), 0);
  EXPECT_EQ(fs().counters("clip.mov").syncs, 3U);
}

TEST_F(FaultyFileSystemTest, FlushingAFolderCanFail) {
  ASSERT_EQ(::mkdir(fs().path("a").c_str(), 0755), 0);
  fs().whenSyncing("a").fail(EIO);
  const FileDescriptor folder = openOnMount("a", O_RDONLY | O_DIRECTORY);
  const FileDescriptor root = openOnMount(".", O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(errorOf(::fsync(folder.get())), EIO);
  EXPECT_EQ(errorOf(::fsync(root.get())), 0);
  EXPECT_EQ(fs().counters("a").syncs, 1U);
  EXPECT_EQ(fs().counters(".").syncs, 1U);
}

TEST_F(FaultyFileSystemTest, FlushingFoldersAloneCanBeRefused) {
  fs().whenSyncing("*").refuseFolders();
  const FileDescriptor file = openFile(fs().path("clip.mov"), O_CREAT | O_WRONLY);
  const FileDescriptor root = openOnMount(".", O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(errorOf(::fsync(file.get())), 0);
  EXPECT_EQ(errorOf(::fsync(root.get())), EINVAL);
}

TEST_F(FaultyFileSystemTest, ClosingCanFail) {
  fs().whenClosing("clip.mov").fail(EDQUOT);
  FileDescriptor file = openFile(fs().path("clip.mov"), O_CREAT | O_WRONLY);
  FileDescriptor other = openFile(fs().path("other.mov"), O_CREAT | O_WRONLY);
  EXPECT_EQ(errorOf(::close(file.release())), EDQUOT);
  EXPECT_EQ(errorOf(::close(other.release())), 0);
}

// ---- Faults of names and attributes ----

TEST_F(FaultyFileSystemTest, RenamingCanFailByEitherName) {
  storeNoise("one", 1);
  fs().whenRenaming("one").fail(EACCES);
  EXPECT_EQ(errorOf(::rename(fs().path("one").c_str(), fs().path("two").c_str())), EACCES);
  fs().clear();
  fs().whenRenaming("two").fail(EROFS);
  EXPECT_EQ(errorOf(::rename(fs().path("one").c_str(), fs().path("two").c_str())), EROFS);
  EXPECT_EQ(errorOf(::rename(fs().path("one").c_str(), fs().path("three").c_str())), 0);
  EXPECT_TRUE(filesystem::exists(fs().stored("three")));
  EXPECT_EQ(fs().counters("one").renames, 3U);
}

TEST_F(FaultyFileSystemTest, RefusedRenameFlagsLeavePlainRenamesWorking) {
  storeNoise("one", 1);
  fs().whenRenaming("*").refuseFlags();
  const std::string from = fs().path("one");
  const std::string to = fs().path("two");
  EXPECT_EQ(errorOf(::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE)), EINVAL);
  EXPECT_TRUE(filesystem::exists(fs().stored("one")));
  EXPECT_EQ(errorOf(::rename(from.c_str(), to.c_str())), 0);
  EXPECT_TRUE(filesystem::exists(fs().stored("two")));
}

TEST_F(FaultyFileSystemTest, LinkingCanFail) {
  storeNoise("one", 1);
  fs().whenLinking("*").fail(EPERM);
  EXPECT_EQ(errorOf(::link(fs().path("one").c_str(), fs().path("two").c_str())), EPERM);
  EXPECT_FALSE(filesystem::exists(fs().stored("two")));
  fs().clear();
  EXPECT_EQ(errorOf(::link(fs().path("one").c_str(), fs().path("two").c_str())), 0);
  EXPECT_EQ(fs().counters("one").links, 2U);
}

TEST_F(FaultyFileSystemTest, UnlinkingCanFail) {
  storeNoise("one", 1);
  fs().whenUnlinking("one").times(1).fail(EBUSY);
  EXPECT_EQ(errorOf(::unlink(fs().path("one").c_str())), EBUSY);
  EXPECT_TRUE(filesystem::exists(fs().stored("one")));
  EXPECT_EQ(errorOf(::unlink(fs().path("one").c_str())), 0);
  EXPECT_FALSE(filesystem::exists(fs().stored("one")));
  EXPECT_EQ(fs().counters("one").unlinks, 2U);
}

TEST_F(FaultyFileSystemTest, CreatingCanFail) {
  storeNoise("one.mov", 1);
  fs().whenCreating("*.mov").fail(EROFS);
  EXPECT_EQ(errorOfOpening(fs().path("two.mov"), O_CREAT | O_WRONLY), EROFS);
  EXPECT_FALSE(filesystem::exists(fs().stored("two.mov")));
  EXPECT_EQ(errorOfOpening(fs().path("one.mov"), O_CREAT | O_WRONLY), 0) << "exists, so it is only opened";
  EXPECT_EQ(errorOfOpening(fs().path("two.txt"), O_CREAT | O_WRONLY), 0);
}

TEST_F(FaultyFileSystemTest, OpeningCanFail) {
  storeNoise("one.mov", 1);
  fs().whenOpening("*.mov").fail(EMFILE);
  EXPECT_EQ(errorOfOpening(fs().path("one.mov"), O_RDONLY), EMFILE);
  fs().clear();
  EXPECT_EQ(errorOfOpening(fs().path("one.mov"), O_RDONLY), 0);
}

TEST_F(FaultyFileSystemTest, MakingAFolderCanFail) {
  fs().whenMakingFolders("a").fail(ENOSPC);
  EXPECT_EQ(errorOf(::mkdir(fs().path("a").c_str(), 0755)), ENOSPC);
  EXPECT_EQ(errorOf(::mkdir(fs().path("b").c_str(), 0755)), 0);
  EXPECT_FALSE(filesystem::exists(fs().stored("a")));
}

TEST_F(FaultyFileSystemTest, TheReportedSizeCanBeALie) {
  storeNoise("clip.mov", 1000);
  const FileDescriptor file = openOnMount("clip.mov");
  const auto reported = [&] {
    struct stat attributes {};
    EXPECT_EQ(::fstat(file.get(), &attributes), 0);
    return attributes.st_size;
  };
  EXPECT_EQ(reported(), 1000);
  const auto fault = fs().whenReportingAttributes("clip.mov").lieAboutSizeBy(24);
  EXPECT_EQ(reported(), 1024);
  fs().remove(fault);
  fs().whenReportingAttributes("clip.mov").lieAboutSizeBy(-1);
  EXPECT_EQ(reported(), 999);
  EXPECT_EQ(filesystem::file_size(fs().path("clip.mov")), 999U);
}

// ---- Numbers, times and names ----

// The number that stat(2) tells, 0 when it fails.
ino_t numberOf(const filesystem::path& path) {
  struct stat attributes {};
  return ::stat(path.c_str(), &attributes) == 0 ? attributes.st_ino : 0;
}

TEST_F(FaultyFileSystemTest, NumbersMadeFromNamesChangeWithThem) {
  storeNoise("clip.mov", 1);
  fs().whenReportingAttributes("*").numberByName();
  const ino_t number = numberOf(fs().path("clip.mov"));
  EXPECT_EQ(numberOf(fs().path("clip.mov")), number);
  filesystem::create_hard_link(fs().path("clip.mov"), fs().path("link.mov"));
  EXPECT_NE(numberOf(fs().path("link.mov")), number);
  filesystem::rename(fs().path("clip.mov"), fs().path("renamed.mov"));
  EXPECT_NE(numberOf(fs().path("renamed.mov")), number);
  EXPECT_NE(numberOf(fs().path("renamed.mov")), 0U);
}

TEST_F(FaultyFileSystemTest, TimesAreReportedAtTheirGrain) {
  storeNoise("clip.mov", 1);
  const std::array<timespec, 2> times{timespec{1'700'000'003, 987'654'321}, timespec{1'700'000'003, 987'654'321}};
  ASSERT_EQ(::utimensat(AT_FDCWD, fs().stored("clip.mov").c_str(), times.data(), 0), 0);
  const auto reported = [&] {
    struct stat attributes {};
    EXPECT_EQ(::stat(fs().path("clip.mov").c_str(), &attributes), 0);
    return std::pair(attributes.st_mtim.tv_sec, attributes.st_mtim.tv_nsec);
  };
  EXPECT_EQ(reported(), std::pair(1'700'000'003L, 987'654'321L));
  const auto fault = fs().whenReportingAttributes("*").roundTimesTo(10ms);
  EXPECT_EQ(reported(), std::pair(1'700'000'003L, 980'000'000L));
  fs().remove(fault);
  fs().whenReportingAttributes("*").roundTimesTo(2s);
  EXPECT_EQ(reported(), std::pair(1'700'000'002L, 0L));
}

TEST_F(FaultyFileSystemTest, WhereCaseIsIgnoredNamesThatDifferInItAloneAreOneFile) {
  const std::string bytes = storeNoise("Clip.mov", 4 * KiB);
  EXPECT_EQ(errorOfOpening(fs().path("CLIP.MOV"), O_RDONLY), ENOENT);
  fs().whenLookingUp("*").ignoreCase();
  EXPECT_EQ(readFile(fs().path("CLIP.MOV")), bytes);
  EXPECT_EQ(errorOfOpening(fs().path("clip.MOV"), O_CREAT | O_EXCL | O_WRONLY), EEXIST);
  filesystem::rename(fs().path("clip.mov"), fs().path("take.mov"));
  EXPECT_EQ(namesBelow(fs().backing()), std::vector<std::string>{"take.mov"});
  filesystem::remove(fs().path("TAKE.mov"));
  EXPECT_TRUE(filesystem::is_empty(fs().backing()));
}

TEST_F(FaultyFileSystemTest, WhereCaseIsIgnoredARenameReplacesWhatDiffersInItAlone) {
  storeNoise("Old.mov", 1);
  const std::string bytes = storeNoise("new.mov", 2);
  fs().whenLookingUp("*").ignoreCase();
  EXPECT_EQ(errorOf(::renameat2(AT_FDCWD, fs().path("new.mov").c_str(), AT_FDCWD, fs().path("old.mov").c_str(),
                                RENAME_NOREPLACE)),
            EEXIST);
  filesystem::rename(fs().path("new.mov"), fs().path("old.mov"));
  EXPECT_EQ(namesBelow(fs().backing()), std::vector<std::string>{"Old.mov"});
  EXPECT_EQ(readFile(fs().stored("Old.mov")), bytes);
}

// ---- Slow answers ----

TEST_F(FaultyFileSystemTest, SlowAnswersTakeTheirTime) {
  storeNoise("clip.mov", 4 * KiB);
  fs().slowDown("clip.mov", 60ms);
  const FileDescriptor file = openOnMount("clip.mov", O_RDWR);
  const auto timeOf = [](const auto& action) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_GE(action(), 0);
    return std::chrono::steady_clock::now() - start;
  };
  char byte = 0;
  EXPECT_GE(timeOf([&] { return ::pread(file.get(), &byte, 1, 0); }), 60ms);
  EXPECT_GE(timeOf([&] { return ::pwrite(file.get(), &byte, 1, 0); }), 60ms);
  EXPECT_GE(timeOf([&] { return ::fsync(file.get()); }), 60ms);
}

TEST_F(FaultyFileSystemTest, OtherRequestsGoOnDuringASlowAnswerAndClearingEndsIt) {
  const std::string bytes = storeNoise("slow", 4 * KiB);
  storeNoise("quick", 4 * KiB);
  const auto fault = fs().whenReading("slow").delayBy(30s);
  std::future<std::string> slow = std::async(std::launch::async, [&] { return readFile(fs().path("slow")); });
  ASSERT_TRUE(fs().waitUntilFired(fault));
  EXPECT_EQ(readFile(fs().path("quick")), noise(4 * KiB));
  EXPECT_EQ(slow.wait_for(0s), std::future_status::timeout);
  fs().clear();
  EXPECT_EQ(slow.wait_for(15s), std::future_status::ready);
  EXPECT_EQ(slow.get(), bytes);
}

TEST_F(FaultyFileSystemTest, WaitingForAFaultThatNeverFiresEnds) {
  const auto fault = fs().whenReading("clip.mov").fail(EIO);
  EXPECT_FALSE(fs().waitUntilFired(fault, 1, 10ms));
}

// ---- Control ----

TEST_F(FaultyFileSystemTest, SeveralFaultsAreInForceAtTheSameTimeAndCanEndOneByOne) {
  storeNoise("one", 10);
  storeNoise("two", 10);
  const auto first = fs().whenOpening("one").fail(EIO);
  fs().whenOpening("two").fail(EACCES);
  EXPECT_EQ(errorOfOpening(fs().path("one"), O_RDONLY), EIO);
  EXPECT_EQ(errorOfOpening(fs().path("two"), O_RDONLY), EACCES);
  fs().remove(first);
  EXPECT_EQ(errorOfOpening(fs().path("one"), O_RDONLY), 0);
  EXPECT_EQ(errorOfOpening(fs().path("two"), O_RDONLY), EACCES);
  EXPECT_EQ(fs().timesFired(first), 1U);
}

TEST_F(FaultyFileSystemTest, PatternsAndCountersCopeWithUnusualNames) {
  const std::string name = "a \"clip\" with\nline\tand [brackets] \xC3\xA4";
  writeFile(fs().path(name), "12345");
  EXPECT_EQ(fs().counters(name).bytesWritten, 5U);
  fs().whenOpening("*line\tand*").fail(EIO);
  EXPECT_EQ(errorOfOpening(fs().path(name), O_RDONLY), EIO);
}

TEST_F(FaultyFileSystemTest, CountersTellDeliveriesPerBlockAndSumOverPatterns) {
  storeNoise("one", 64 * KiB);
  storeNoise("two", 64 * KiB);
  const FileDescriptor one = openOnMount("one");
  const FileDescriptor two = openOnMount("two");
  ASSERT_TRUE(setDirect(one.get()) && setDirect(two.get()));
  AlignedBuffer buffer(64 * KiB);
  ASSERT_EQ(::pread(one.get(), buffer.data(), 64 * KiB, 0), static_cast<ssize_t>(64 * KiB));
  ASSERT_EQ(::pread(one.get(), buffer.data(), 8 * KiB, 4096), static_cast<ssize_t>(8 * KiB));
  ASSERT_EQ(::pread(two.get(), buffer.data(), 64 * KiB, 0), static_cast<ssize_t>(64 * KiB));
  EXPECT_EQ(fs().counters("one").leastDeliveries, 1U);
  EXPECT_EQ(fs().counters("one").mostDeliveries, 2U);
  EXPECT_EQ(fs().counters("two").mostDeliveries, 1U);
  EXPECT_EQ(fs().countersMatching("*").bytesRead, 136 * KiB);
  EXPECT_EQ(fs().countersMatching("*").mostDeliveries, 2U);
  fs().resetCounters();
  EXPECT_EQ(fs().countersMatching("*").readRequests, 0U);
}

TEST_F(FaultyFileSystemTest, TheMountedTreeShowsNothingButTheBackingFolder) {
  EXPECT_TRUE(filesystem::is_empty(fs().root()));
}

TEST_F(FaultyFileSystemTest, SeveralFileSystemsLiveSideBySide) {
  FaultyFileSystem other(_scratch.path());
  other.whenCreating("*").fail(EIO);
  EXPECT_EQ(errorOfOpening(other.path("clip.mov"), O_CREAT | O_WRONLY), EIO);
  EXPECT_EQ(errorOfOpening(fs().path("clip.mov"), O_CREAT | O_WRONLY), 0);
}

TEST_F(FaultyFileSystemTest, UnmountingWorksWithOpenFilesAndHeldBackRequests) {
  storeNoise("clip.mov", 4 * KiB);
  const filesystem::path root = fs().root();
  const FileDescriptor file = openOnMount("clip.mov");
  const auto fault = fs().whenReading("clip.mov").delayBy(30s);
  char byte = 0;
  std::future<ssize_t> held = std::async(std::launch::async, [&] { return ::pread(file.get(), &byte, 1, 0); });
  ASSERT_TRUE(fs().waitUntilFired(fault));
  _fs.reset();
  EXPECT_TRUE(held.valid());
  held.get();
  EXPECT_FALSE(filesystem::exists(root));
  EXPECT_EQ(errorOf(::fsync(file.get())), ENOTCONN);
}

TEST_F(FaultyFileSystemTest, AVanishedMediumFailsEverythingAndIsStillCleanedUp) {
  storeNoise("clip.mov", 4 * KiB);
  const FileDescriptor file = openOnMount("clip.mov");
  fs().vanish();
  char byte = 0;
  EXPECT_EQ(errorOf(::pread(file.get(), &byte, 1, 0)), ENOTCONN);
  EXPECT_EQ(errorOfOpening(fs().path("clip.mov"), O_RDONLY), ENOTCONN);
  EXPECT_EQ(filesystem::file_size(fs().stored("clip.mov")), 4 * KiB);
  EXPECT_THROW(fs().clear(), std::runtime_error);
  const filesystem::path root = fs().root();
  _fs.reset();
  EXPECT_FALSE(filesystem::exists(root));
}

// Mounts in a process of a group of its own, which then kills itself, or the whole group. Returns the mount point.
filesystem::path mountInADyingProcess(const filesystem::path& scratch, bool wholeGroup) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    return {};
  }
  const FileDescriptor readEnd(ends[0]);
  FileDescriptor writeEnd(ends[1]);
  const pid_t client = ::fork();
  if (client == 0) {
    ::setpgid(0, 0);
    const FaultyFileSystem orphan(scratch);
    const std::string root = orphan.root();
    const bool told = ::write(ends[1], root.data(), root.size()) == static_cast<ssize_t>(root.size());
    ::kill(wholeGroup ? 0 : ::getpid(), told && !wholeGroup ? SIGKILL : SIGTERM);
    ::_exit(1);
  }
  writeEnd.reset();
  std::array<char, 4096> buffer{};
  const ssize_t size = ::read(readEnd.get(), buffer.data(), buffer.size());
  ::waitpid(client, nullptr, 0);
  return std::string(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
}

// Waits until nothing is mounted there; every change of the mounts of this process wakes the poll.
bool isUnmountedInTheEnd(const filesystem::path& root) {
  const FileDescriptor mounts = openFile("/proc/self/mounts", O_RDONLY);
  const auto isMounted = [&] { return readAll(mounts.get()).value_or("").find(root) != std::string::npos; };
  pollfd source{mounts.get(), POLLERR | POLLPRI, 0};
  while (isMounted() && ::poll(&source, 1, 30000) > 0) {
  }
  return !isMounted();
}

TEST_F(FaultyFileSystemTest, TheMountGoesAwayWhenItsClientDies) {
  const filesystem::path root = mountInADyingProcess(_scratch.path(), false);
  ASSERT_FALSE(root.empty());
  EXPECT_TRUE(isUnmountedInTheEnd(root));
  filesystem::remove_all(root.parent_path());
}

TEST_F(FaultyFileSystemTest, TheMountGoesAwayWhenTheWholeProcessGroupOfItsClientIsTerminated) {
  const filesystem::path root = mountInADyingProcess(_scratch.path(), true);
  ASSERT_FALSE(root.empty());
  EXPECT_TRUE(isUnmountedInTheEnd(root));
  filesystem::remove_all(root.parent_path());
}

}  // namespace
