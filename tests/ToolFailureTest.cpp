// Whole runs of the built program in which the system fails: one call of it refuses, or a device is full.

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <ostream>
#include <tuple>

#include "tests/support/ClipOffload.h"
#include "tests/support/ExpectedText.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/OutputLines.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using Names = std::vector<std::string>;

// Files of the temporary directory can be written past the cache.
bool writesPastTheCache(const ClipOffload& offload) {
  const int file = ::open(offload.source.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  if (file >= 0) ::close(file);
  return file >= 0;
}

// One failure of the system, and all that comes of it. Constants alone: large tables of strings take compilers minutes.
struct Fault : NamedRow {
  const char* injections;  // as strace takes them, with a space between two
  const char* at;          // the file concerned; empty: any
  const char* options;     // with a space between two
  int status;
  const char* output;  // "{logged}": the same text as below
  OnDisk names;
  const char* logged = "";
  const char* settings = "";
  const char* standsThere = "";  // what the final name holds before; empty: there is none
  const char* oldTemporary = "";
};

constexpr const char* temporary = "{destination}.kdxcopy";

// A source that can't be read.
constexpr Fault unread(const char* name, const char* injection, const char* settings = "") {
  return {name, injection, "{source}", "", 111, "{started}", OnDisk::notMoved, "", settings};
}

// A temporary file that can't be had.
constexpr Fault uncreated(const char* name, const char* injection, OnDisk names, const char* old = "") {
  return {name, injection, temporary, "", 107, "{started}", names, "", "", "", old};
}

// A write that is seen to fail.
constexpr Fault unwritten(const char* name, const char* injections, const char* output = "{started}write failed: -1",
                          const char* options = "") {
  return {name, injections, temporary, options, 110, output, OnDisk::notMoved};
}

// A copy that does not get its final name.
constexpr Fault unmoved(const char* name, const char* injections, int status, const char* logged = "",
                        OnDisk names = OnDisk::notMoved) {
  return {name, injections, "", "-k", status, "{started}{hashed}{sizeChecked}{moving}{notMovedLines}", names, logged};
}

// A final name that can't be made permanent.
constexpr Fault unflushed(const char* name, const char* injection, const char* at) {
  return {name,
          injection,
          at,
          "-k",
          106,
          "{started}{hashed}{sizeChecked}{moving}{flushing}"
          "Error: couldn't sync the file system of file {destination} (error code -1)\n",
          OnDisk::offloaded};
}

// A fault that changes nothing; a second one may close the first way around it.
constexpr Fault harmless(const char* name, const char* injections, const char* at = "") {
  return {name, injections, at, "", 0, "{started}{hashed}{bothReadBack}{moving}{flushing}{closing}", OnDisk::offloaded};
}

class ToolFailure : public testing::Test {
 protected:
  void SetUp() override {
    if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  }

  // Runs the program with these arguments while calls that concern the file fail.
  static ToolRun runWith(std::vector<std::string> arguments, const std::string& injection, const std::string& at) {
    return runTool(ToolStart{.arguments = std::move(arguments), .wrapper = injectingAt(at, {injection})});
  }

  const ClipOffload _offload;
  const std::string _temporary = _offload.destination + ".kdxcopy";
};

class ToolWithFault : public ToolFailure, public testing::WithParamInterface<Fault> {
 protected:
  static void expectFault(const Fault& row) {
    const ClipOffload offload;
    const ScratchDirectory logs;
    const std::string log = logs.file("calls");
    std::vector<std::string> wrapper{"strace", "-f", "-qq", "-o", log};
    for (const std::string& inject : wordsOf(row.injections)) wrapper.insert(wrapper.end(), {"-e", "inject=" + inject});
    if (*row.at != '\0') wrapper.insert(wrapper.end(), {"-P", offload.filled(row.at)});
    const ToolRun run = runRow(row, offload, wrapper);
    EXPECT_EQ(row.status, run.exitStatus);
    expectOutput(offload.filled(replaced(row.output, "{logged}", row.logged)), run.output);
    if (*row.settings == '\0') expectLogged(offload.filled(row.logged), run.errors);
    EXPECT_EQ(namesOf(row.names), offload.names());
    EXPECT_TRUE(offload.bytes == readFile(offload.source));
    EXPECT_THAT(readFile(log), HasSubstr("(INJECTED)")) << "the fault did not come to pass";
    if (run.exitStatus == 0) {
      EXPECT_TRUE(offload.bytes == readFile(offload.destination));
    } else if (row.names == OnDisk::both && *row.standsThere != '\0') {
      EXPECT_EQ(row.standsThere, readFile(offload.destination));
    }
  }

  // Without the fault nothing goes wrong, so the fault is the cause.
  static void expectNoFault(const Fault& row) {
    const ClipOffload offload;
    const ToolRun run = runRow(row, offload, {});
    EXPECT_EQ(0, run.exitStatus) << run.output;
    EXPECT_EQ(offloaded(), offload.names());
    EXPECT_TRUE(offload.bytes == readFile(offload.destination));
  }

 private:
  static ToolRun runRow(const Fault& row, const ClipOffload& offload, const std::vector<std::string>& wrapper) {
    const ScratchDirectory settings;
    writeFile(settings.file("kdxdispatchcopy/defaults.ini"), row.settings);
    if (*row.standsThere != '\0') writeFile(offload.destination, row.standsThere);
    if (*row.oldTemporary != '\0') writeFile(offload.destination + ".kdxcopy", row.oldTemporary);
    std::vector<std::string> arguments = wordsOf(row.options);
    arguments.insert(arguments.end(), {offload.source, offload.destination});
    return runTool({.arguments = arguments, .wrapper = wrapper, .environment = {{"XDG_CONFIG_HOME", settings.path()}}});
  }
};

class ToolFaults : public ToolWithFault {};

TEST_P(ToolFaults, EndWithTheirStatusAndCostNothingThatWasThere) {
  expectFault(GetParam());
  expectNoFault(GetParam());
}

class ToolFaultsPastTheCache : public ToolWithFault {};

TEST_P(ToolFaultsPastTheCache, EndWithTheirStatusAndCostNothingThatWasThere) {
  if (!writesPastTheCache(_offload)) GTEST_SKIP() << "the temporary directory has no O_DIRECT";
  expectFault(GetParam());
  expectNoFault(GetParam());
}

class ToolHarmlessFaults : public ToolWithFault {};

TEST_P(ToolHarmlessFaults, DoNotChangeTheOffload) {
  expectFault(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Reading, ToolFaults,
    testing::Values(Fault{"SourceCanNotBeOpened", "openat:error=EACCES", "{source}", "", 108,
                          "{started}ERROR: could not open file at path: {source}\n", OnDisk::notMoved},
                    unread("FirstReadOfTheSource", "read:error=EIO"),
                    unread("LaterReadOfTheSource", "read:error=EIO:when=3", "readBufferSizeMB = 1\n"),
                    unread("EveryReadOfTheSourceRefused", "read:error=EINVAL"),
                    // What can't be read is not what was copied.
                    Fault{"ReadBackOfTheDestination", "read:error=EIO", temporary, "-ns", 105,
                          "{started}{hashed}INFO: verifying {backup}\n"
                          "INFO: expected hash: {md5} but got hash: d41d8cd98f00b204e9800998ecf8427e.\n"
                          "ERROR: verify of destination file #1 ({destination}.kdxcopy) failed, wrong hash.\n",
                          OnDisk::notMoved, "verification failed: {destination}.kdxcopy"}),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Creating, ToolFaults,
    testing::Values(uncreated("TemporaryFileCanNotBeOpened", "openat:error=EACCES", OnDisk::untouched),
                    uncreated("TemporaryFileCanNotBeLookedAt", "newfstatat,fstat,statx:error=EIO", OnDisk::notMoved),
                    uncreated("OldTemporaryFileCanNotBeRemoved", "unlink:error=EIO", OnDisk::notMoved,
                              "left by an earlier run")),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Writing, ToolFaults,
    testing::Values(
        unwritten("NoSpace", "write:error=ENOSPC"),
        unwritten("DeviceError", "write:error=EIO", "{started}write failed: -1", "-n"),
        unwritten("EveryWriteRefused", "write:error=EINVAL"),
        // The end of the file does not fill a block and goes through the cache.
        unwritten("EndOfTheFileNotPushedToTheDevice", "sync_file_range:error=EIO"),
        unwritten("LostOnTheCachedRoad", "fcntl:error=EINVAL fdatasync:error=EIO", "{started}{hashed}write failed: -1"),
        unwritten("LostAtTheClose", "close:error=EIO:when=1", "{started}{hashed}write failed: -1"),
        Fault{"ShortIsFoundByTheSizeCheck", "write:retval=1000", temporary, "-k", 104, "{started}{hashed}{logged}\n",
              OnDisk::notMoved,
              "the expected filesize (3145745) is not the number of bytes for file {destination}.kdxcopy (3145745)"},
        Fault{"ShortIsFoundByTheReadBack", "write:retval=1000", temporary, "", 105,
              "{started}{hashed}~INFO: verifying {card}\n"
              "~INFO: verifying {backup}\n"
              "~verify of source file #2 ({source}) ok.\n"
              "~INFO: expected hash: {md5} but got hash: d41d8cd98f00b204e9800998ecf8427e.\n"
              "~ERROR: verify of destination file #1 ({destination}.kdxcopy) failed, wrong hash.\n",
              OnDisk::notMoved, "verification failed: {destination}.kdxcopy"}),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Moving, ToolFaults,
    testing::Values(
        unmoved("NameTakenAtTheLastMoment", "renameat2:error=EEXIST", 109,
                "KDXCopyErrorDomain 109: {destination}.kdxcopy"),
        unmoved("NotAllowed", "renameat2:error=EACCES", 1),
        unmoved("NameTakenWhereItIsLinked", "renameat2:error=EINVAL link:error=EEXIST", 109,
                "KDXCopyErrorDomain 109: {destination}.kdxcopy"),
        unmoved("NotAllowedWhereItIsLinked", "renameat2:error=ENOSYS link:error=EACCES rename:error=EACCES", 1),
        unmoved("NotAllowedWhereItIsRenamed", "renameat2:error=EOPNOTSUPP link:error=EPERM rename:error=EACCES", 1),
        // Both names then have the whole copy.
        unmoved("TemporaryNameStaysWhereItIsLinked", "renameat2:error=EINVAL unlink:error=EIO", 1, "", OnDisk::both),
        Fault{"FileInTheWayCanNotBeRemoved", "unlink:error=EACCES", "{destination}", "-k -f", 13,
              "{started}{hashed}{sizeChecked}{moving}failed to remove {destination} before moving{notMovedLines}",
              OnDisk::both, "unlink {destination}: Permission denied", "", "an earlier take"},
        Fault{"FileInTheWayIsRemovedButTheCopyCanNotBeMoved", "renameat2:error=EIO", "", "-k -f", 1,
              "{started}{hashed}{sizeChecked}{moving}{notMovedLines}", OnDisk::notMoved, "", "", "an earlier take"}),
    rowName);

INSTANTIATE_TEST_SUITE_P(Flushing, ToolFaults,
                         testing::Values(Fault{"File", "fsync:error=EIO", "{destination}", "", 106,
                                               "{started}{hashed}{bothReadBack}{moving}{flushing}Error: couldn't sync "
                                               "the file system of file {destination} (error code -1)\n",
                                               OnDisk::offloaded},
                                         unflushed("Folder", "fsync:error=EIO", "{backup}"),
                                         unflushed("FolderThatCanNotBeOpened", "openat:error=EIO", "{backup}"),
                                         unflushed("FileThatCanNotBeOpened", "openat:error=EACCES", "{destination}")),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    Data, ToolFaultsPastTheCache,
    testing::Values(Fault{"ThatCanNotBeMadePermanentGetsNoFinalName", "fdatasync:error=EIO", temporary, "", 106,
                          "{started}{hashed}{bothReadBack}{moving}"
                          "Error: couldn't sync the file system of file {destination}.kdxcopy (error code -1)\n",
                          OnDisk::notMoved},
                    Fault{"ThatCanNotBeMadePermanentDoesNotRemoveWhatIsToBeReplaced", "fdatasync:error=EIO", temporary,
                          "-f", 106,
                          "{started}{hashed}{bothReadBack}{moving}"
                          "Error: couldn't sync the file system of file {destination}.kdxcopy (error code -1)\n",
                          OnDisk::both, "", "", "an earlier take"}),
    rowName);

// Without a read-back and a look at sizes nothing else would find it.
TEST_F(ToolFailure, AShortWriteIsAFailedWriteWhereNothingIsReadBackAndSizesAreNotLookedAt) {
  const ToolRun run =
      runWith({"-k", "-nfs", "-a", "3145745", _offload.source, _offload.destination}, "write:retval=1000", _temporary);
  EXPECT_EQ(110, run.exitStatus);
  EXPECT_EQ(_offload.filled(text({started, "write failed: 1000"})), run.output);
}

// As Linux sees it a success of descriptor 0 would be one, but it proves nothing of the media.
TEST_F(ToolFailure, AFinalFileThatCanNotBeOpenedIsNotFlushedByFlushingStandardInput) {
  const ScratchDirectory other;
  writeFile(other.file("input"), "a file that can be synced");
  ToolStart start{.arguments = {"-k", "-f", _offload.source, _offload.destination},
                  .wrapper = injectingAt(_offload.destination, {"openat:error=EACCES"}),
                  .standardInput = other.file("input")};
  const ToolRun run = runTool(start);
  EXPECT_EQ(106, run.exitStatus);
  EXPECT_THAT(
      run.output,
      EndsWith(_offload.filled("Error: couldn't sync the file system of file {destination} (error code -1)\n")));
  start.wrapper.clear();
  EXPECT_EQ(0, runTool(start).exitStatus);
}

// Whoever asks for no flush at all is not stopped by one that fails.
TEST_F(ToolFailure, WithoutFlushNothingIsSynced) {
  if (!writesPastTheCache(_offload)) GTEST_SKIP() << "the temporary directory has no O_DIRECT";
  const ToolRun run = runTool(
      {.arguments = {"-nf", _offload.source, _offload.destination}, .wrapper = injecting("fsync,fdatasync:error=EIO")});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_EQ(offloaded(), _offload.names());
}

INSTANTIATE_TEST_SUITE_P(Moving, ToolHarmlessFaults,
                         testing::Values(harmless("RenameDoesNotKnowItsFlag", "renameat2:error=EINVAL"),
                                         harmless("RenameIsNotThere", "renameat2:error=ENOSYS"),
                                         harmless("RenameIsNotSupported", "renameat2:error=EOPNOTSUPP"),
                                         harmless("NoLinksEither", "renameat2:error=EINVAL link:error=EPERM"),
                                         harmless("LinksNotSupported", "renameat2:error=EINVAL link:error=EOPNOTSUPP"),
                                         harmless("TooManyLinks", "renameat2:error=ENOSYS link:error=EMLINK"),
                                         harmless("FoldersAreNotSynced", "fsync:error=EINVAL", "{backup}"),
                                         harmless("FoldersDoNotSupportSyncs", "fsync:error=EOPNOTSUPP", "{backup}")),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    PastTheCache, ToolHarmlessFaults,
    testing::Values(harmless("SourceRefusesTheFlag", "fcntl:error=EINVAL", "{source}"),
                    harmless("DestinationRefusesTheFlag", "fcntl:error=EINVAL", temporary),
                    harmless("SourceRefusesTheFirstRead", "read:error=EINVAL:when=1", "{source}"),
                    harmless("DestinationRefusesTheFirstWrite", "write:error=EINVAL:when=1", temporary),
                    harmless("DestinationRefusesTheFirstReadBack", "read:error=EINVAL:when=1", temporary),
                    harmless("AlignmentIsNotTold", "statx:error=ENOSYS"),
                    harmless("CacheTakesNoAdvice", "fadvise64:error=EINVAL"),
                    harmless("RangesCanNotBePushed", "sync_file_range:error=ENOSYS")),
    rowName);

INSTANTIATE_TEST_SUITE_P(Everywhere, ToolHarmlessFaults,
                         testing::Values(harmless("DiskPriorityCanNotBeRaised", "ioprio_set:error=EPERM"),
                                         harmless("ProcessorsAreNotTold", "sched_getaffinity:error=EPERM"),
                                         harmless("ReadsAreInterrupted", "read:error=EINTR:when=1", "{source}"),
                                         harmless("WritesAreInterrupted", "write:error=EINTR:when=1", temporary)),
                         rowName);

// Calls that only help, each answered for the whole run as a kernel or a container's filter answers that has no such call.
using RefusedCall = std::tuple<const char*, const char*>;  // call, error

class ToolWithoutHelp : public ToolFailure, public testing::WithParamInterface<RefusedCall> {
 protected:
  static void expectSuccess(bool isSequence) {
    const auto& [call, error] = GetParam();
    const ScratchDirectory scratch;
    for (const char* frame : {"card/take.1.dpx", "card/take.2.dpx"})
      writeFile(scratch.file(frame), mediaBytes(MiB + 17));
    std::vector<std::string> arguments{scratch.file("card/take.1.dpx"), scratch.file("backup/take.1.dpx")};
    if (isSequence) arguments = {"-s", scratch.file("card/take.1-2.#.dpx"), scratch.file("backup/frames")};
    std::filesystem::create_directory(scratch.path() / "backup");

    const ToolRun run =
        runTool({.arguments = arguments, .wrapper = injecting(fmt::format("{}:error={}", call, error).c_str())});

    EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
    EXPECT_TRUE(mediaBytes(MiB + 17) == readFile(scratch.file("backup/take.1.dpx")));
    if (isSequence) {
      EXPECT_TRUE(mediaBytes(MiB + 17) == readFile(scratch.file("backup/take.2.dpx")));
    }
  }
};

TEST_P(ToolWithoutHelp, OffloadsAClip) {
  expectSuccess(false);
}

TEST_P(ToolWithoutHelp, OffloadsASequence) {
  expectSuccess(true);
}

INSTANTIATE_TEST_SUITE_P(Refused, ToolWithoutHelp,
                         testing::Combine(testing::Values("statx", "renameat2", "sync_file_range", "fadvise64",
                                                          "madvise", "ioprio_set", "sched_setaffinity", "syncfs"),
                                          testing::Values("ENOSYS", "EPERM", "EINVAL", "EOPNOTSUPP")),
                         [](const auto& row) {
                           return std::string(std::get<0>(row.param)) + "With" + std::get<1>(row.param);
                         });

using Paths = std::pair<std::string, std::string>;  // source, destination

class ToolWithoutWorkingDirectory : public ToolFailure, public testing::WithParamInterface<Paths> {};

TEST_P(ToolWithoutWorkingDirectory, StillOffloadsRelativePaths) {
  const auto& [source, destination] = GetParam();
  const ToolRun run = runTool(ToolStart{.arguments = {"-k", source, destination},
                                        .wrapper = injecting("getcwd:error=EACCES"),
                                        .workingDirectory = _offload.scratch.path() / "card"});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_TRUE(_offload.bytes == readFile(_offload.scratch.path() / "card" / destination));
}

INSTANTIATE_TEST_SUITE_P(Names, ToolWithoutWorkingDirectory,
                         testing::Values(Paths{"../card/clip.mov", "../backup/clip.mov"},
                                         Paths{"./clip.mov", "./take2"}, Paths{"clip.mov", "take2"}));

// The first is the queue that prints, so it must not be waited for.
class ToolWithoutThreads : public ToolFailure, public testing::WithParamInterface<const char*> {};

TEST_P(ToolWithoutThreads, EndsWithAMessageAndGivesNoFinalName) {
  const ToolRun run =
      runTool(ToolStart{.arguments = {_offload.source, _offload.destination}, .wrapper = injecting(GetParam())});
  EXPECT_EQ(1, run.exitStatus);
  EXPECT_THAT(run.errors, StartsWith("kdxdispatchcopy: could not get a thread for the queue "));
  EXPECT_EQ(0, std::ranges::count(_offload.names(), "backup/clip.mov"));
  EXPECT_TRUE(_offload.bytes == readFile(_offload.source));
}

INSTANTIATE_TEST_SUITE_P(Starts, ToolWithoutThreads,
                         testing::Values("clone3:error=EAGAIN", "clone3:error=EAGAIN:when=2",
                                         "clone3:error=EAGAIN:when=3"));

TEST_F(ToolFailure, AFailedWriteToOneDestinationGivesNoDestinationItsFinalName) {
  const std::string second = _offload.scratch.file("shuttle/clip.mov");
  const std::vector<std::string> arguments{_offload.source, _offload.destination, second};
  const ToolRun run = runWith(arguments, "write:error=EIO", second + ".kdxcopy");
  EXPECT_EQ(110, run.exitStatus);
  EXPECT_EQ(_offload.filled(text({started, "write failed: -1"})), run.output);
  EXPECT_EQ((Names{"backup/clip.mov.kdxcopy", "card/clip.mov", "shuttle/clip.mov.kdxcopy"}), _offload.names());
  EXPECT_EQ(0, runTool(arguments).exitStatus);
}

TEST_F(ToolFailure, ADestinationThatCanNotBeMovedLeavesThoseBeforeItAndThoseBehindIt) {
  const std::string second = _offload.scratch.file("second/clip.mov");
  const std::string third = _offload.scratch.file("third/clip.mov");
  const ToolRun run = runWith({"-n", _offload.source, _offload.destination, second, third}, "renameat2:error=EEXIST",
                              second + ".kdxcopy");
  EXPECT_EQ(109, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("failed to move " + second + ".kdxcopy\nfailed to move files in place\n"));
  EXPECT_EQ((Names{"backup/clip.mov", "card/clip.mov", "second/clip.mov.kdxcopy", "third/clip.mov.kdxcopy"}),
            _offload.names());
  for (const std::string& copy : {_offload.destination, second + ".kdxcopy", third + ".kdxcopy"}) {
    EXPECT_TRUE(_offload.bytes == readFile(copy)) << copy;
  }
}

// The other destinations are read back to their end all the same.
TEST_F(ToolFailure, ADestinationThatCanNotBeReadBackDoesNotStopTheReadBackOfTheOthers) {
  const std::string second = _offload.scratch.file("shuttle/clip.mov");
  const ToolRun run = runWith({_offload.source, _offload.destination, second}, "read:error=EIO", second + ".kdxcopy");
  EXPECT_EQ(105, run.exitStatus);
  expectOutput(
      _offload.filled(text({started, hashed,
                            "~INFO: verifying {card}\n"
                            "~INFO: verifying {backup}\n"
                            "~INFO: verifying {scratch}/shuttle\n"
                            "~verify of source file #3 ({source}) ok.\n"
                            "~verify of destination file #1 ({destination}) ok.\n"
                            "~INFO: expected hash: {md5} but got hash: d41d8cd98f00b204e9800998ecf8427e.\n",
                            "~ERROR: verify of destination file #2 (" + second + ".kdxcopy) failed, wrong hash.\n"})),
      run.output);
  expectLogged("verification failed: " + second + ".kdxcopy", run.errors);
  EXPECT_EQ((Names{"backup/clip.mov.kdxcopy", "card/clip.mov", "shuttle/clip.mov.kdxcopy"}), _offload.names());
}

// A device that is smaller than the clip.
struct SmallDevice {
  const char* type;
  std::size_t size;
};

void PrintTo(const SmallDevice& device, std::ostream* stream) {
  *stream << device.type;
}

class ToolSmallDevices : public testing::TestWithParam<SmallDevice> {
 protected:
  void SetUp() override {
    std::string whyNot;
    _device = MountedFileSystem::mount(GetParam().type, GetParam().size, whyNot);
    if (!_device) GTEST_SKIP() << whyNot;
    writeFile(_settings.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
  }

  ToolRun offloadToBoth(const ClipOffload& offload, const std::string& option) {
    return runTool(ToolStart{.arguments = {option, offload.source, offload.destination, _device->file("clip.mov")},
                             .environment = {{"XDG_CONFIG_HOME", _settings.path()}}});
  }

  std::unique_ptr<MountedFileSystem> _device;
  ScratchDirectory _settings;
};

TEST_P(ToolSmallDevices, StopTheOffloadWhenTheyAreFullAndCostNothing) {
  const ClipOffload offload(GetParam().size + MiB);
  writeFile(_device->file("older.mov"), "an older clip");

  const ToolRun run = offloadToBoth(offload, "-ns");

  EXPECT_EQ(110, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, "write failed: -1"})), run.output);
  EXPECT_EQ(notMoved(), offload.names());
  EXPECT_EQ(0, std::ranges::count(namesBelow(_device->path()), "clip.mov"));
  EXPECT_TRUE(offload.bytes == readFile(offload.source));
  EXPECT_EQ("an older clip", readFile(_device->file("older.mov")));
}

TEST_P(ToolSmallDevices, TakeAClipThatFits) {
  const ClipOffload offload(MiB + 17);
  const ToolRun run = offloadToBoth(offload, "-k");
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_EQ(offloaded(), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(_device->file("clip.mov")));
}

INSTANTIATE_TEST_SUITE_P(Types, ToolSmallDevices,
                         testing::Values(SmallDevice{"tmpfs", 3 * MiB}, SmallDevice{"ext4", 8 * MiB}),
                         [](const auto& row) { return std::string(row.param.type); });

// The whole clip is one write, of which the device takes a part: nothing fails, and still it must be seen.
TEST(ToolSmallDevice, APartTakenByAFullDeviceIsFoundByTheSizeCheckAndByTheReadBack) {
  std::string whyNot;
  const auto device = MountedFileSystem::mount("tmpfs", 2 * MiB, whyNot);
  if (!device) GTEST_SKIP() << whyNot;
  const ClipOffload offload;
  const std::string second = device->file("clip.mov");

  const ToolRun sizes = runTool({"-k", offload.source, offload.destination, second});
  EXPECT_EQ(104, sizes.exitStatus);
  EXPECT_EQ(offload.filled(text({started, hashed, sizeChecked,
                                 "the expected filesize (3145745) is not the number of bytes for file " + second +
                                     ".kdxcopy (3145745)\n"})),
            sizes.output);
  EXPECT_EQ(notMoved(), offload.names());
  EXPECT_EQ((Names{"clip.mov.kdxcopy"}), namesBelow(device->path()));

  const ToolRun readBack = runTool({offload.source, offload.destination, second});
  EXPECT_EQ(105, readBack.exitStatus);
  EXPECT_THAT(readBack.output,
              HasSubstr("ERROR: verify of destination file #2 (" + second + ".kdxcopy) failed, wrong hash.\n"));
  EXPECT_EQ(notMoved(), offload.names());
  EXPECT_EQ((Names{"clip.mov.kdxcopy"}), namesBelow(device->path()));
}

}  // namespace
