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
using Arguments = std::vector<std::string>;

// The wrapper that makes calls fail, where `at` is given only those that concern that path, and keeps a log of them.
std::vector<std::string> failing(const std::vector<std::string>& injections, const std::string& at,
                                 const std::string& log) {
  std::vector<std::string> words = injecting(injections.front());
  std::ranges::replace(words, std::string("/dev/null"), log);
  for (std::size_t index = 1; index < injections.size(); ++index) {
    words.emplace_back("-e");
    words.push_back("inject=" + injections[index]);
  }
  if (!at.empty()) {
    words.emplace_back("-P");
    words.push_back(at);
  }
  return words;
}

// Files of the temporary directory can be written past the cache.
bool writesPastTheCache(const ClipOffload& offload) {
  const int file = ::open(offload.source.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  if (file >= 0) ::close(file);
  return file >= 0;
}

using Words = const char* [4];  // up to the first null

std::vector<std::string> wordsOf(const Words& words) {
  return {std::begin(words), std::ranges::find(words, nullptr)};
}

// One failure of the system, and all that comes of it. Constants alone: large tables of strings take compilers minutes.
struct Fault {
  const char* name;
  Words injections;     // as strace takes them
  const char* at = "";  // the file concerned; empty: any
  Words options = {};
  int status;
  const char* output;
  const char* logged = "";
  OnDisk names;
  const char* settings = "";
  const char* standsThere = "";  // what the final name holds before; empty: there is none
  const char* oldTemporary = "";
};

void PrintTo(const Fault& fault, std::ostream* stream) {
  *stream << fault.name;
}

ToolRun runWith(const Fault& row, const ClipOffload& offload, const std::vector<std::string>& wrapper) {
  const ScratchDirectory settings;
  writeFile(settings.file("kdxdispatchcopy/defaults.ini"), row.settings);
  if (*row.standsThere != '\0') writeFile(offload.destination, row.standsThere);
  if (*row.oldTemporary != '\0') writeFile(offload.destination + ".kdxcopy", row.oldTemporary);
  Arguments arguments = wordsOf(row.options);
  arguments.push_back(offload.source);
  arguments.push_back(offload.destination);
  return runTool(ToolStart{
      .arguments = std::move(arguments), .wrapper = wrapper, .environment = {{"XDG_CONFIG_HOME", settings.path()}}});
}

void expectFault(const Fault& row) {
  const ClipOffload offload;
  const ScratchDirectory logs;
  const std::string log = logs.file("calls");
  const ToolRun run = runWith(row, offload, failing(wordsOf(row.injections), offload.filled(row.at), log));
  EXPECT_EQ(row.status, run.exitStatus);
  expectOutput(offload.filled(row.output), run.output);
  if (*row.settings == '\0') expectLogged(offload.filled(row.logged), run.errors);
  EXPECT_EQ(namesOf(row.names), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(offload.source));
  EXPECT_THAT(readFile(log), HasSubstr("(INJECTED)")) << "the fault did not come to pass";
  if (run.exitStatus == 0) {
    EXPECT_TRUE(offload.bytes == readFile(offload.destination));
  }
}

// Without the fault nothing goes wrong, so the fault is the cause.
void expectNoFault(const Fault& row) {
  const ClipOffload offload;
  const ToolRun run = runWith(row, offload, {});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_EQ(offloaded(), offload.names());
  EXPECT_TRUE(offload.bytes == readFile(offload.destination));
}

class ToolFaults : public testing::TestWithParam<Fault> {};

TEST_P(ToolFaults, EndWithTheirStatusAndCostNothingThatWasThere) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  expectFault(GetParam());
  expectNoFault(GetParam());
}

class ToolHarmlessFaults : public testing::TestWithParam<Fault> {};

TEST_P(ToolHarmlessFaults, DoNotChangeTheOffload) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  expectFault(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Reading, ToolFaults,
    testing::Values(Fault{.name = "SourceCanNotBeOpened",
                          .injections = {"openat:error=EACCES"},
                          .at = "{source}",
                          .status = 108,
                          .output = "{started}"
                                    "ERROR: could not open file at path: {source}\n",
                          .names = OnDisk::notMoved},
                    Fault{.name = "FirstReadOfTheSource",
                          .injections = {"read:error=EIO"},
                          .at = "{source}",
                          .status = 111,
                          .output = "{started}",
                          .names = OnDisk::notMoved},
                    Fault{.name = "LaterReadOfTheSource",
                          .injections = {"read:error=EIO:when=3"},
                          .at = "{source}",
                          .status = 111,
                          .output = "{started}",
                          .names = OnDisk::notMoved,
                          .settings = "readBufferSizeMB = 1\n"},
                    Fault{.name = "EveryReadOfTheSourceRefused",
                          .injections = {"read:error=EINVAL"},
                          .at = "{source}",
                          .status = 111,
                          .output = "{started}",
                          .names = OnDisk::notMoved},
                    // What can't be read is not what was copied.
                    Fault{.name = "ReadBackOfTheDestination",
                          .injections = {"read:error=EIO"},
                          .at = "{destination}.kdxcopy",
                          .options = {"-ns"},
                          .status = 105,
                          .output = "{started}{hashed}"
                                    "INFO: verifying {backup}\n"
                                    "INFO: expected hash: {md5} but got hash: "
                                    "d41d8cd98f00b204e9800998ecf8427e.\n"
                                    "ERROR: verify of destination file #1 ({destination}.kdxcopy) failed, "
                                    "wrong hash.\n",
                          .logged = "verification failed: {destination}.kdxcopy",
                          .names = OnDisk::notMoved}),
    rowName);

INSTANTIATE_TEST_SUITE_P(Creating, ToolFaults,
                         testing::Values(Fault{.name = "TemporaryFileCanNotBeOpened",
                                               .injections = {"openat:error=EACCES"},
                                               .at = "{destination}.kdxcopy",
                                               .status = 107,
                                               .output = "{started}",
                                               .names = OnDisk::untouched},
                                         Fault{.name = "TemporaryFileCanNotBeLookedAt",
                                               .injections = {"newfstatat,fstat,statx:error=EIO"},
                                               .at = "{destination}.kdxcopy",
                                               .status = 107,
                                               .output = "{started}",
                                               .names = OnDisk::notMoved},
                                         Fault{.name = "OldTemporaryFileCanNotBeRemoved",
                                               .injections = {"unlink:error=EIO"},
                                               .at = "{destination}.kdxcopy",
                                               .status = 107,
                                               .output = "{started}",
                                               .names = OnDisk::notMoved,
                                               .oldTemporary = "left by an earlier run"}),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    Writing, ToolFaults,
    testing::Values(Fault{.name = "NoSpace",
                          .injections = {"write:error=ENOSPC"},
                          .at = "{destination}.kdxcopy",
                          .status = 110,
                          .output = "{started}"
                                    "write failed: -1",
                          .names = OnDisk::notMoved},
                    Fault{.name = "DeviceError",
                          .injections = {"write:error=EIO"},
                          .at = "{destination}.kdxcopy",
                          .options = {"-n"},
                          .status = 110,
                          .output = "{started}"
                                    "write failed: -1",
                          .names = OnDisk::notMoved},
                    Fault{.name = "EveryWriteRefused",
                          .injections = {"write:error=EINVAL"},
                          .at = "{destination}.kdxcopy",
                          .status = 110,
                          .output = "{started}"
                                    "write failed: -1",
                          .names = OnDisk::notMoved},
                    // The end of the file does not fill a block and goes through the cache.
                    Fault{.name = "EndOfTheFileNotPushedToTheDevice",
                          .injections = {"sync_file_range:error=EIO"},
                          .at = "{destination}.kdxcopy",
                          .status = 110,
                          .output = "{started}"
                                    "write failed: -1",
                          .names = OnDisk::notMoved},
                    Fault{.name = "LostOnTheCachedRoad",
                          .injections = {"fcntl:error=EINVAL", "fdatasync:error=EIO"},
                          .at = "{destination}.kdxcopy",
                          .status = 110,
                          .output = "{started}{hashed}"
                                    "write failed: -1",
                          .names = OnDisk::notMoved},
                    Fault{.name = "LostAtTheClose",
                          .injections = {"close:error=EIO:when=1"},
                          .at = "{destination}.kdxcopy",
                          .status = 110,
                          .output = "{started}{hashed}"
                                    "write failed: -1",
                          .names = OnDisk::notMoved},
                    Fault{.name = "ShortIsFoundByTheSizeCheck",
                          .injections = {"write:retval=1000"},
                          .at = "{destination}.kdxcopy",
                          .options = {"-k"},
                          .status = 104,
                          .output = "{started}{hashed}"
                                    "the expected filesize (3145745) is not the number of bytes for file "
                                    "{destination}.kdxcopy (3145745)\n",
                          .logged = "the expected filesize (3145745) is not the number of bytes for file "
                                    "{destination}.kdxcopy (3145745)",
                          .names = OnDisk::notMoved},
                    Fault{.name = "ShortIsFoundByTheReadBack",
                          .injections = {"write:retval=1000"},
                          .at = "{destination}.kdxcopy",
                          .status = 105,
                          .output = "{started}{hashed}"
                                    "~INFO: verifying {card}\n"
                                    "~INFO: verifying {backup}\n"
                                    "~verify of source file #2 ({source}) ok.\n"
                                    "~INFO: expected hash: {md5} but got hash: "
                                    "d41d8cd98f00b204e9800998ecf8427e.\n"
                                    "~ERROR: verify of destination file #1 ({destination}.kdxcopy) failed, "
                                    "wrong hash.\n",
                          .logged = "verification failed: {destination}.kdxcopy",
                          .names = OnDisk::notMoved}),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Moving, ToolFaults,
    testing::Values(Fault{.name = "NameTakenAtTheLastMoment",
                          .injections = {"renameat2:error=EEXIST"},
                          .options = {"-k"},
                          .status = 109,
                          .output = "{started}{hashed}{sizeChecked}{moving}{notMovedLines}",
                          .logged = "KDXCopyErrorDomain 109: {destination}.kdxcopy",
                          .names = OnDisk::notMoved},
                    Fault{.name = "NotAllowed",
                          .injections = {"renameat2:error=EACCES"},
                          .options = {"-k"},
                          .status = 1,
                          .output = "{started}{hashed}{sizeChecked}{moving}{notMovedLines}",
                          .names = OnDisk::notMoved},
                    Fault{.name = "NameTakenWhereItIsLinked",
                          .injections = {"renameat2:error=EINVAL", "link:error=EEXIST"},
                          .options = {"-k"},
                          .status = 109,
                          .output = "{started}{hashed}{sizeChecked}{moving}{notMovedLines}",
                          .logged = "KDXCopyErrorDomain 109: {destination}.kdxcopy",
                          .names = OnDisk::notMoved},
                    Fault{.name = "NotAllowedWhereItIsLinked",
                          .injections = {"renameat2:error=ENOSYS", "link:error=EACCES", "rename:error=EACCES"},
                          .options = {"-k"},
                          .status = 1,
                          .output = "{started}{hashed}{sizeChecked}{moving}{notMovedLines}",
                          .names = OnDisk::notMoved},
                    Fault{.name = "NotAllowedWhereItIsRenamed",
                          .injections = {"renameat2:error=EOPNOTSUPP", "link:error=EPERM", "rename:error=EACCES"},
                          .options = {"-k"},
                          .status = 1,
                          .output = "{started}{hashed}{sizeChecked}{moving}{notMovedLines}",
                          .names = OnDisk::notMoved},
                    // Both names then have the whole copy.
                    Fault{.name = "TemporaryNameStaysWhereItIsLinked",
                          .injections = {"renameat2:error=EINVAL", "unlink:error=EIO"},
                          .options = {"-k"},
                          .status = 1,
                          .output = "{started}{hashed}{sizeChecked}{moving}{notMovedLines}",
                          .names = OnDisk::both},
                    Fault{.name = "FileInTheWayCanNotBeRemoved",
                          .injections = {"unlink:error=EACCES"},
                          .at = "{destination}",
                          .options = {"-k", "-f"},
                          .status = 13,
                          .output = "{started}{hashed}{sizeChecked}{moving}"
                                    "failed to remove {destination} before moving"
                                    "{notMovedLines}",
                          .logged = "unlink {destination}: Permission denied",
                          .names = OnDisk::both,
                          .standsThere = "an earlier take"},
                    Fault{.name = "FileInTheWayIsRemovedButTheCopyCanNotBeMoved",
                          .injections = {"renameat2:error=EIO"},
                          .options = {"-k", "-f"},
                          .status = 1,
                          .output = "{started}{hashed}{sizeChecked}{moving}{notMovedLines}",
                          .names = OnDisk::notMoved,
                          .standsThere = "an earlier take"}),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Flushing, ToolFaults,
    testing::Values(Fault{.name = "File",
                          .injections = {"fsync:error=EIO"},
                          .at = "{destination}",
                          .status = 106,
                          .output = "{started}{hashed}{bothReadBack}{moving}{flushing}"
                                    "Error: couldn't sync the file system of file {destination} (error code -1)\n",
                          .names = OnDisk::offloaded},
                    Fault{.name = "Folder",
                          .injections = {"fsync:error=EIO"},
                          .at = "{backup}",
                          .options = {"-k"},
                          .status = 106,
                          .output = "{started}{hashed}{sizeChecked}{moving}{flushing}"
                                    "Error: couldn't sync the file system of file {destination} (error code -1)\n",
                          .names = OnDisk::offloaded},
                    Fault{.name = "FolderThatCanNotBeOpened",
                          .injections = {"openat:error=EIO"},
                          .at = "{backup}",
                          .options = {"-k"},
                          .status = 106,
                          .output = "{started}{hashed}{sizeChecked}{moving}{flushing}"
                                    "Error: couldn't sync the file system of file {destination} (error code -1)\n",
                          .names = OnDisk::offloaded},
                    Fault{.name = "FileThatCanNotBeOpened",
                          .injections = {"openat:error=EACCES"},
                          .at = "{destination}",
                          .options = {"-k"},
                          .status = 106,
                          .output = "{started}{hashed}{sizeChecked}{moving}{flushing}"
                                    "Error: couldn't sync the file system of file {destination} (error code -1)\n",
                          .names = OnDisk::offloaded}),
    rowName);

// Without a read-back and a look at sizes nothing else would find it.
TEST(ToolFailure, AShortWriteIsAFailedWriteWhereNothingIsReadBackAndSizesAreNotLookedAt) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ClipOffload offload;
  const ToolRun run =
      runTool(ToolStart{.arguments = {"-k", "-nfs", "-a", "3145745", offload.source, offload.destination},
                        .wrapper = failing({"write:retval=1000"}, offload.destination + ".kdxcopy", "/dev/null")});
  EXPECT_EQ(110, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, "write failed: 1000"})), run.output);
}

// As Linux sees it a success of descriptor 0 would be one, but it proves nothing of the media.
TEST(ToolFailure, AFinalFileThatCanNotBeOpenedIsNotFlushedByFlushingStandardInput) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ClipOffload offload;
  const ScratchDirectory other;
  writeFile(other.file("input"), "a file that can be synced");
  const auto start = [&](std::vector<std::string> wrapper) {
    return ToolStart{.arguments = {"-k", "-f", offload.source, offload.destination},
                     .wrapper = std::move(wrapper),
                     .standardInput = other.file("input")};
  };
  const ToolRun run = runTool(start(failing({"openat:error=EACCES"}, offload.destination, "/dev/null")));
  EXPECT_EQ(106, run.exitStatus);
  EXPECT_THAT(run.output,
              EndsWith(offload.filled("Error: couldn't sync the file system of file {destination} (error code -1)\n")));
  EXPECT_EQ(0, runTool(start({})).exitStatus);
}

TEST(ToolFailure, DataThatCanNotBeMadePermanentGetsNoFinalName) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  if (!writesPastTheCache(ClipOffload())) GTEST_SKIP() << "the temporary directory has no O_DIRECT";
  const Fault fault{.name = "Data",
                    .injections = {"fdatasync:error=EIO"},
                    .at = "{destination}.kdxcopy",
                    .status = 106,
                    .output =
                        "{started}{hashed}{bothReadBack}{moving}"
                        "Error: couldn't sync the file system of file {destination}.kdxcopy (error code "
                        "-1)\n",
                    .names = OnDisk::notMoved};
  expectFault(fault);
  expectNoFault(fault);
}

TEST(ToolFailure, DataThatCanNotBeMadePermanentDoesNotRemoveWhatIsToBeReplaced) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  if (!writesPastTheCache(ClipOffload())) GTEST_SKIP() << "the temporary directory has no O_DIRECT";
  const ClipOffload offload;
  writeFile(offload.destination, "an earlier take");
  const auto start = [&](std::vector<std::string> wrapper) {
    return ToolStart{.arguments = {"-f", offload.source, offload.destination}, .wrapper = std::move(wrapper)};
  };
  const ToolRun run = runTool(start(failing({"fdatasync:error=EIO"}, offload.destination + ".kdxcopy", "/dev/null")));
  EXPECT_EQ(106, run.exitStatus);
  EXPECT_EQ("an earlier take", readFile(offload.destination));
  EXPECT_EQ(0, runTool(start({})).exitStatus);
  EXPECT_TRUE(offload.bytes == readFile(offload.destination));
}

// Whoever asks for no flush at all is not stopped by one that fails.
TEST(ToolFailure, WithoutFlushNothingIsSynced) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  if (!writesPastTheCache(ClipOffload())) GTEST_SKIP() << "the temporary directory has no O_DIRECT";
  const ClipOffload offload;
  const ToolRun run = runTool(ToolStart{.arguments = {"-nf", offload.source, offload.destination},
                                        .wrapper = failing({"fsync,fdatasync:error=EIO"}, "", "/dev/null")});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_EQ(offloaded(), offload.names());
}

// A fault that changes nothing; a second one may close the first way around it.
constexpr Fault harmless(const char* name, const char* injection, const char* at = "", const char* second = nullptr) {
  return Fault{.name = name,
               .injections = {injection, second},
               .at = at,
               .status = 0,
               .output = "{started}{hashed}{bothReadBack}{moving}{flushing}{closing}",
               .names = OnDisk::offloaded};
}

INSTANTIATE_TEST_SUITE_P(Moving, ToolHarmlessFaults,
                         testing::Values(harmless("RenameDoesNotKnowItsFlag", "renameat2:error=EINVAL"),
                                         harmless("RenameIsNotThere", "renameat2:error=ENOSYS"),
                                         harmless("RenameIsNotSupported", "renameat2:error=EOPNOTSUPP"),
                                         harmless("NoLinksEither", "renameat2:error=EINVAL", "", "link:error=EPERM"),
                                         harmless("LinksNotSupported", "renameat2:error=EINVAL", "",
                                                  "link:error=EOPNOTSUPP"),
                                         harmless("TooManyLinks", "renameat2:error=ENOSYS", "", "link:error=EMLINK"),
                                         harmless("FoldersAreNotSynced", "fsync:error=EINVAL", "{backup}"),
                                         harmless("FoldersDoNotSupportSyncs", "fsync:error=EOPNOTSUPP", "{backup}")),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    PastTheCache, ToolHarmlessFaults,
    testing::Values(harmless("SourceRefusesTheFlag", "fcntl:error=EINVAL", "{source}"),
                    harmless("DestinationRefusesTheFlag", "fcntl:error=EINVAL", "{destination}.kdxcopy"),
                    harmless("SourceRefusesTheFirstRead", "read:error=EINVAL:when=1", "{source}"),
                    harmless("DestinationRefusesTheFirstWrite", "write:error=EINVAL:when=1", "{destination}.kdxcopy"),
                    harmless("DestinationRefusesTheFirstReadBack", "read:error=EINVAL:when=1", "{destination}.kdxcopy"),
                    harmless("AlignmentIsNotTold", "statx:error=ENOSYS"),
                    harmless("CacheTakesNoAdvice", "fadvise64:error=EINVAL"),
                    harmless("RangesCanNotBePushed", "sync_file_range:error=ENOSYS")),
    rowName);

INSTANTIATE_TEST_SUITE_P(Everywhere, ToolHarmlessFaults,
                         testing::Values(harmless("DiskPriorityCanNotBeRaised", "ioprio_set:error=EPERM"),
                                         harmless("ProcessorsAreNotTold", "sched_getaffinity:error=EPERM"),
                                         harmless("ReadsAreInterrupted", "read:error=EINTR:when=1", "{source}"),
                                         harmless("WritesAreInterrupted", "write:error=EINTR:when=1",
                                                  "{destination}.kdxcopy")),
                         rowName);

// Calls that only help, each answered for the whole run as a kernel or a container's filter answers that has no such call.
using RefusedCall = std::tuple<const char*, const char*>;  // call, error

class ToolWithoutHelp : public testing::TestWithParam<RefusedCall> {
 protected:
  static void expectSuccess(bool isSequence) {
    if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
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

class ToolWithoutWorkingDirectory : public testing::TestWithParam<Paths> {};

TEST_P(ToolWithoutWorkingDirectory, StillOffloadsRelativePaths) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ClipOffload offload;
  const auto& [source, destination] = GetParam();
  const ToolRun run = runTool(ToolStart{.arguments = {"-k", source, destination},
                                        .wrapper = injecting("getcwd:error=EACCES"),
                                        .workingDirectory = offload.scratch.path() / "card"});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_TRUE(offload.bytes == readFile(offload.scratch.path() / "card" / destination));
}

INSTANTIATE_TEST_SUITE_P(Names, ToolWithoutWorkingDirectory,
                         testing::Values(Paths{"../card/clip.mov", "../backup/clip.mov"},
                                         Paths{"./clip.mov", "./take2"}, Paths{"clip.mov", "take2"}));

// The first is the queue that prints, so it must not be waited for.
class ToolWithoutThreads : public testing::TestWithParam<const char*> {};

TEST_P(ToolWithoutThreads, EndsWithAMessageAndGivesNoFinalName) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ClipOffload offload;
  const ToolRun run =
      runTool(ToolStart{.arguments = {offload.source, offload.destination}, .wrapper = injecting(GetParam())});
  EXPECT_EQ(1, run.exitStatus);
  EXPECT_THAT(run.errors, StartsWith("kdxdispatchcopy: could not get a thread for the queue "));
  EXPECT_EQ(0, std::ranges::count(offload.names(), "backup/clip.mov"));
  EXPECT_TRUE(offload.bytes == readFile(offload.source));
}

INSTANTIATE_TEST_SUITE_P(Starts, ToolWithoutThreads,
                         testing::Values("clone3:error=EAGAIN", "clone3:error=EAGAIN:when=2",
                                         "clone3:error=EAGAIN:when=3"));

TEST(ToolFailure, AFailedWriteToOneDestinationGivesNoDestinationItsFinalName) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ClipOffload offload;
  const std::string second = offload.scratch.file("shuttle/clip.mov");
  const auto start = [&](std::vector<std::string> wrapper) {
    return ToolStart{.arguments = {offload.source, offload.destination, second}, .wrapper = std::move(wrapper)};
  };
  const ToolRun run = runTool(start(failing({"write:error=EIO"}, second + ".kdxcopy", "/dev/null")));
  EXPECT_EQ(110, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, "write failed: -1"})), run.output);
  EXPECT_EQ((Names{"backup/clip.mov.kdxcopy", "card/clip.mov", "shuttle/clip.mov.kdxcopy"}), offload.names());
  EXPECT_EQ(0, runTool(start({})).exitStatus);
}

TEST(ToolFailure, ADestinationThatCanNotBeMovedLeavesThoseBeforeItAndThoseBehindIt) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ClipOffload offload;
  const std::string second = offload.scratch.file("second/clip.mov");
  const std::string third = offload.scratch.file("third/clip.mov");
  const ToolRun run =
      runTool(ToolStart{.arguments = {"-n", offload.source, offload.destination, second, third},
                        .wrapper = failing({"renameat2:error=EEXIST"}, second + ".kdxcopy", "/dev/null")});
  EXPECT_EQ(109, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("failed to move " + second + ".kdxcopy\nfailed to move files in place\n"));
  EXPECT_EQ((Names{"backup/clip.mov", "card/clip.mov", "second/clip.mov.kdxcopy", "third/clip.mov.kdxcopy"}),
            offload.names());
  for (const std::string& copy : {offload.destination, second + ".kdxcopy", third + ".kdxcopy"}) {
    EXPECT_TRUE(offload.bytes == readFile(copy)) << copy;
  }
}

// The other destinations are read back to their end all the same.
TEST(ToolFailure, ADestinationThatCanNotBeReadBackDoesNotStopTheReadBackOfTheOthers) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ClipOffload offload;
  const std::string second = offload.scratch.file("shuttle/clip.mov");
  const ToolRun run = runTool(ToolStart{.arguments = {offload.source, offload.destination, second},
                                        .wrapper = failing({"read:error=EIO"}, second + ".kdxcopy", "/dev/null")});
  EXPECT_EQ(105, run.exitStatus);
  expectOutput(
      offload.filled(text({started, hashed,
                           "~INFO: verifying {card}\n"
                           "~INFO: verifying {backup}\n",
                           "~INFO: verifying " + (offload.scratch.path() / "shuttle").string() + "\n",
                           "~verify of source file #3 ({source}) ok.\n"
                           "~verify of destination file #1 ({destination}) ok.\n"
                           "~INFO: expected hash: {md5} but got hash: d41d8cd98f00b204e9800998ecf8427e.\n",
                           "~ERROR: verify of destination file #2 (" + second + ".kdxcopy) failed, wrong hash.\n"})),
      run.output);
  expectLogged("verification failed: " + second + ".kdxcopy", run.errors);
  EXPECT_EQ((Names{"backup/clip.mov.kdxcopy", "card/clip.mov", "shuttle/clip.mov.kdxcopy"}), offload.names());
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
TEST(ToolFailure, APartTakenByAFullDeviceIsFoundByTheSizeCheckAndByTheReadBack) {
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
