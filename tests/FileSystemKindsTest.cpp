// Every kind of file system that can be mounted here is offloaded to and from, by the built program.

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/MountedKind.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

namespace fs = std::filesystem;

namespace {

using Words = std::vector<std::string>;

constexpr const char* temporaryExtension = ".kdxcopy";
constexpr std::size_t temporaryExtensionSize = 8;
// As far as file systems of FUSE are concerned the system has no limit for names that a file could reach here.
constexpr std::size_t anyLength = 0;

enum class Full {
  isNoticed,
  isNever,         // it takes memory as long as there is any
  endsTheProgram,  // which serves the file system, after half a minute of looking for the place in its source
  isForTheCache    // what is written goes into a cache first, and to the store when the run is over
};

struct Kind {
  const char* name;
  const char* kind;               // as tests/kinds/mount takes it
  std::size_t longestName = 255;  // bytes
  int statusOfRefusedName = 107;  // 110 where a name is refused only when something is written
  bool takesUmlauts = true;
  bool readsTheDevice = false;      // what is read back comes from the device, whatever is in memory
  bool tellsExchangedFiles = true;  // a file that was put in the place of another can be told from it
  Full full = Full::isNoticed;
  friend void PrintTo(const Kind& row, std::ostream* out) { *out << row.name; }
};

uint64_t freeBytes(const fs::path& folder) {
  struct statvfs facts = {};
  EXPECT_EQ(0, ::statvfs(folder.c_str(), &facts));
  return facts.f_bfree * facts.f_frsize;
}

// A scratch folder with a card and a backup, and beside it a file system of the kind. One mount serves all cases, since some
// take seconds to mount; each case has a folder of its own.
class FileSystemKinds : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    if (isSanitized()) GTEST_SKIP() << "kinds of file system are tried with the build that is delivered";
    std::string whyNot;
    _volume = MountedKind::mount(GetParam().kind, whyNot);
    if (!_volume) GTEST_SKIP() << whyNot;
    writeFile(clip, mediaBytes(11 * MiB + 17));
    const std::string bytes = mediaBytes(2 * MiB, 3);
    for (const auto& [name, size] : {std::pair{"p.0001.dpx", MiB + 17}, {"p.0002.dpx", 4096UL}, {"p.0003.dpx", 1UL}}) {
      writeFile(scratch.file(fmt::format("card/{}", name)), bytes.substr(0, size));
    }
  }

  [[nodiscard]] std::string onVolume(const std::string& name) const { return _volume->file(name); }
  [[nodiscard]] fs::path store() const { return _volume->store(); }

  // One clip to the scratch folder and to the volume: both are whole, and nothing else is left.
  void expectClipIsOffloaded(const std::string& source, const std::string& folder, const std::string& name,
                             const Words& options) const {
    const std::string backup = scratch.file(folder + "/" + name);
    const std::string destination = onVolume(folder + "/" + name);
    const ToolRun run = runTool(with(options, {source, backup, destination}));
    EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
    for (const std::string& copy : {backup, destination}) expectWhole(source, copy);
    EXPECT_EQ(Words{name}, namesBelow(fs::path(destination).parent_path()));
    fs::remove(destination);
  }

  void expectSequenceIsOffloaded(const std::string& card, const std::string& folder, const Words& options) const {
    const std::string backup = scratch.file(folder + "/frames");
    const std::string destination = onVolume(folder + "/frames");
    const ToolRun run = runTool(with(options, {"-s", card + "/p.1-3.####.dpx", backup, destination}));
    EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
    const Words frames{"p.0001.dpx", "p.0002.dpx", "p.0003.dpx"};
    EXPECT_EQ(frames, namesBelow(fs::path(destination).parent_path()));
    for (const std::string& frame : frames) {
      expectWhole(card + "/" + frame, fs::path(backup).replace_filename(frame));
      expectWhole(card + "/" + frame, fs::path(destination).replace_filename(frame));
    }
  }

  static void expectWhole(const std::string& source, const std::string& copy) {
    ASSERT_TRUE(fs::exists(copy)) << copy;
    EXPECT_TRUE(readFile(source) == readFile(copy)) << copy << " is not a whole copy";
  }

  static Words with(Words options, const Words& paths) {
    options.insert(options.end(), paths.begin(), paths.end());
    return options;
  }

  // The cases; each leaves its folder behind.
  void expectEveryOptionWorks();
  void expectTheReadBackComesFromTheDevice();
  void expectItIsASourceToo();
  void expectNamesAndSizesArrive();
  void expectTooLongNamesAreRefused();
  void expectTakenNamesAreKept();
  void expectAnExchangedFileIsNotMoved();
  void expectAFullDeviceIsNoticed();

  ScratchDirectory scratch;
  const std::string clip = scratch.file("card/clip.mov");

 private:
  void fillUp() const;

  std::unique_ptr<MountedKind> _volume;
};

void FileSystemKinds::expectEveryOptionWorks() {
  for (const Words& options : {Words{}, {"-k"}, {"-n"}, {"-f"}, {"-nf"}}) {
    const std::string folder = "options" + (options.empty() ? "" : options[0]);
    SCOPED_TRACE(folder);
    if (options == Words{"-f"}) {
      writeFile(onVolume(folder + "/clip.mov"), "an older take");
      writeFile(onVolume(folder + "-frames/p.0002.dpx"), "an older frame");
    }
    expectClipIsOffloaded(clip, folder, "clip.mov", options);
    expectSequenceIsOffloaded(scratch.path() / "card", folder + "-frames", options);
  }
}

void FileSystemKinds::expectTheReadBackComesFromTheDevice() {
  if (!GetParam().readsTheDevice) return;
  SCOPED_TRACE("read-back");
  const uint64_t before = _volume->bytesReadFromDevice();
  const ToolRun run = runTool({clip, onVolume("device/clip.mov")});
  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_GE(_volume->bytesReadFromDevice() - before, fs::file_size(clip));
  fs::remove(onVolume("device/clip.mov"));
}

void FileSystemKinds::expectItIsASourceToo() {
  SCOPED_TRACE("source");
  for (const char* name : {"clip.mov", "p.0001.dpx", "p.0002.dpx", "p.0003.dpx"}) {
    writeFile(onVolume(fmt::format("card/{}", name)), readFile(scratch.file(fmt::format("card/{}", name))));
  }
  expectClipIsOffloaded(onVolume("card/clip.mov"), "from", "clip.mov", {});
  expectSequenceIsOffloaded(onVolume("card"), "from-frames", {});
}

void FileSystemKinds::expectNamesAndSizesArrive() {
  SCOPED_TRACE("names and sizes");
  const std::string small = scratch.file("card/small.mov");
  writeFile(small, mediaBytes(4097, 5));
  const std::string empty = scratch.file("card/empty.mov");
  writeFile(empty, "");
  expectClipIsOffloaded(empty, "empty", "clip.mov", {});
  expectClipIsOffloaded(small, "unaligned", "clip.mov", {});
  expectClipIsOffloaded(small, "spaces", "a clip, first take.mov", {});
  if (GetParam().takesUmlauts) expectClipIsOffloaded(small, "umlauts", "Übergröße 1.mov", {});
  constexpr std::size_t longestBesideTheTemporary = 255 - temporaryExtensionSize;
  const std::size_t most = GetParam().longestName == anyLength ? longestBesideTheTemporary + 1
                                                               : GetParam().longestName - temporaryExtensionSize;
  expectClipIsOffloaded(small, "long", std::string(std::min(most, longestBesideTheTemporary), 'n'), {});
}

void FileSystemKinds::expectTooLongNamesAreRefused() {
  SCOPED_TRACE("names that it does not take");
  Words names;
  if (!GetParam().takesUmlauts) names.push_back("Übergröße 1.mov");
  if (GetParam().longestName != anyLength) {
    names.push_back(std::string(GetParam().longestName - temporaryExtensionSize + 1, 'n'));
  }
  for (const std::string& name : names) {
    const std::string backup = scratch.file("refused/" + name.substr(0, 8));
    const std::string destination = onVolume("refused/" + name);
    const ToolRun run = runTool({scratch.file("card/p.0001.dpx"), backup, destination});
    EXPECT_EQ(GetParam().statusOfRefusedName, run.exitStatus) << run.output << run.errors;
    EXPECT_FALSE(fs::exists(backup));
    EXPECT_THAT(namesBelow(fs::path(destination).parent_path()), testing::Each(testing::EndsWith(temporaryExtension)));
  }
}

void FileSystemKinds::expectTakenNamesAreKept() {
  SCOPED_TRACE("taken names");
  const std::string taken = onVolume("taken/clip.mov");
  const std::string backup = scratch.file("taken/clip.mov");
  writeFile(taken, "precious");
  const ToolRun run = runTool({clip, backup, taken});
  EXPECT_EQ(109, run.exitStatus) << run.output << run.errors;
  EXPECT_EQ("precious", readFile(taken));

  // That of a frame is not looked at before the move.
  const std::string frame = onVolume("taken-frames/p.0002.dpx");
  writeFile(frame, "precious");
  const ToolRun sequenceRun = runTool({"-s", scratch.path() / "card/p.1-3.####.dpx", onVolume("taken-frames/frames")});
  EXPECT_EQ(109, sequenceRun.exitStatus) << sequenceRun.output << sequenceRun.errors;
  EXPECT_EQ("precious", readFile(frame));
}

void FileSystemKinds::expectAnExchangedFileIsNotMoved() {
  // Where nothing tells the two files apart it is by chance what is noticed.
  if (!GetParam().tellsExchangedFiles) return;
  SCOPED_TRACE("a second run");
  constexpr int moved = 10;
  constexpr int notMoved = 11;
  const std::string destination = onVolume("exchanged/clip.mov");
  const std::string somethingElse = mediaBytes(11 * MiB + 17, 2);
  // In a process of its own: an end of the run must not be the end of the test, which has a file system to unmount.
  const int status = statusOfChild([&] {
    const auto job = KDXDispatchCopy::initWithSourceURL(platform::FileURL(clip));
    job->addDestinationURL(platform::FileURL(destination));
    job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
    const bool isProved =
        job->performCopy(nullptr) && job->startVerification(nullptr) && job->finishVerification(nullptr);
    fs::remove(destination + temporaryExtension);
    writeFile(destination + temporaryExtension, somethingElse);
    if (isProved) ::_exit(job->moveFilesInPlace(nullptr) ? moved : notMoved);
  });

  EXPECT_EQ(notMoved, status);
  EXPECT_FALSE(fs::exists(destination));
}

void FileSystemKinds::expectAFullDeviceIsNoticed() {
  if (GetParam().full != Full::isNoticed) return;
  SCOPED_TRACE("a full device");
  fillUp();
  const std::string destination = onVolume("full/clip.mov");
  const std::string backup = scratch.file("full/clip.mov");
  const ToolRun run = runTool({clip, backup, destination});
  EXPECT_THAT(run.exitStatus, testing::AnyOf(107, 110)) << run.output << run.errors;
  EXPECT_FALSE(fs::exists(destination));
  EXPECT_FALSE(fs::exists(backup));
}

// Leaves less than half of what the clip needs.
void FileSystemKinds::fillUp() const {
  constexpr uint64_t room = 4 * MiB;
  const std::string bytes = mediaBytes(MiB, 9);
  uint64_t before = 0;
  // What one file was given too much at its end comes back when it is closed, and the next one takes it. Some keep for
  // themselves what they report as free.
  for (int number = 0; freeBytes(store()) > room && freeBytes(store()) != before; ++number) {
    before = freeBytes(store());
    const int filler =
        ::open((store() / fmt::format("filler{}", number)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(filler, 0);
    while (freeBytes(store()) > room && ::write(filler, bytes.data(), bytes.size()) > 0) ::fdatasync(filler);
    ::close(filler);
  }
}

TEST_P(FileSystemKinds, AreOffloadedToAndFromAndLoseNothing) {
  expectEveryOptionWorks();
  expectTheReadBackComesFromTheDevice();
  expectItIsASourceToo();
  expectNamesAndSizesArrive();
  expectTooLongNamesAreRefused();
  expectTakenNamesAreKept();
  expectAnExchangedFileIsNotMoved();
  expectAFullDeviceIsNoticed();
}

// Names that differ in case alone are one file there: no outcome may claim more than there is, nor cost what stood there.
class FileSystemsThatIgnoreCase : public FileSystemKinds {};

TEST_P(FileSystemsThatIgnoreCase, DoNotGetOneFileForTwoDestinations) {
  const std::string one = onVolume("case/CLIP.mov");
  const std::string other = onVolume("case/clip.mov");

  const ToolRun run = runTool({clip, one, other});

  EXPECT_NE(0, run.exitStatus) << run.output;
  // A program that served the file system until then must not have been ended by it.
  if (fs::exists(other)) expectWhole(clip, other);
}

TEST_P(FileSystemsThatIgnoreCase, KeepAFileWhoseNameDiffersInCase) {
  const std::string taken = onVolume("case/CLIP.mov");
  writeFile(taken, "precious");

  const ToolRun run = runTool({clip, onVolume("case/clip.mov")});

  EXPECT_EQ(109, run.exitStatus) << run.output << run.errors;
  EXPECT_EQ("precious", readFile(taken));
}

TEST_P(FileSystemsThatIgnoreCase, LoseNothingWhenTwoDestinationsReplaceOneFile) {
  const std::string replaced = onVolume("case/Clip.mov");
  writeFile(replaced, "an older take");

  const ToolRun run = runTool({"-f", clip, onVolume("case/CLIP.mov"), onVolume("case/clip.mov")});

  EXPECT_NE(0, run.exitStatus) << run.output;
  ASSERT_TRUE(fs::exists(replaced));
  if (readFile(replaced) != "an older take") expectWhole(clip, replaced);
}

INSTANTIATE_TEST_SUITE_P(Mounted, FileSystemsThatIgnoreCase,
                         testing::Values(Kind{.name = "ExfatFuse", .kind = "exfat-fuse"},
                                         Kind{.name = "Fusefat", .kind = "fusefat"}),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    Mounted, FileSystemKinds,
    testing::Values(
        Kind{.name = "Ext2", .kind = "ext2", .readsTheDevice = true},
        Kind{.name = "Ext4", .kind = "ext4", .readsTheDevice = true},
        Kind{.name = "Xfs", .kind = "xfs", .readsTheDevice = true},
        Kind{.name = "Btrfs", .kind = "btrfs", .readsTheDevice = true},
        Kind{.name = "BtrfsCompressed", .kind = "btrfs-zstd", .readsTheDevice = true},
        Kind{.name = "Tmpfs", .kind = "tmpfs"}, Kind{.name = "Ramfs", .kind = "ramfs", .full = Full::isNever},
        Kind{.name = "Overlay", .kind = "overlay", .readsTheDevice = true},
        Kind{.name = "ExfatFuse", .kind = "exfat-fuse"}, Kind{.name = "Ntfs3g", .kind = "ntfs-3g"},
        Kind{.name = "Ntfs3gBigWrites", .kind = "ntfs-3g-big-writes"},
        Kind{.name = "Fusefat", .kind = "fusefat", .takesUmlauts = false}, Kind{.name = "Bindfs", .kind = "bindfs"},
        Kind{.name = "Gocryptfs", .kind = "gocryptfs"}, Kind{.name = "Encfs", .kind = "encfs", .longestName = 175},
        Kind{.name = "FuseOverlayfs", .kind = "fuse-overlayfs", .longestName = 251},
        Kind{.name = "Sshfs", .kind = "sshfs"}, Kind{.name = "SshfsDirectIo", .kind = "sshfs-direct-io"},
        Kind{.name = "Mergerfs", .kind = "mergerfs"}, Kind{.name = "UnionfsFuse", .kind = "unionfs-fuse"},
        Kind{.name = "Cryfs", .kind = "cryfs", .longestName = anyLength, .full = Full::endsTheProgram},
        Kind{.name = "RcloneOff", .kind = "rclone-off", .statusOfRefusedName = 110, .tellsExchangedFiles = false},
        Kind{
            .name = "RcloneWrites", .kind = "rclone-writes", .tellsExchangedFiles = false, .full = Full::isForTheCache},
        Kind{.name = "RcloneFull", .kind = "rclone-full", .tellsExchangedFiles = false, .full = Full::isForTheCache}),
    rowName);

}  // namespace
