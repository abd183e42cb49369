#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileManager.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using platform::Error;
using platform::removeItem;

using testing::HasSubstr;

namespace fs = std::filesystem;

namespace {

using Names = std::vector<std::string>;

// Calls that the kernel is to answer with an error.
struct RefusedCall {
  std::vector<long> numbers;
  int code;
};

#ifdef SYS_link
const std::vector<long> linkCalls{SYS_link, SYS_linkat};
#else
const std::vector<long> linkCalls{SYS_linkat};
#endif

// From now on, for this whole process: the kernel answers the calls with their errors.
bool refuseCalls(const std::vector<RefusedCall>& calls) {
  std::vector<sock_filter> program{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  for (const RefusedCall& call : calls) {
    for (const long number : call.numbers) {
      program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 1));
      program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(call.code)));
    }
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filter{.len = static_cast<unsigned short>(program.size()), .filter = program.data()};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

constexpr int cannotRefuse = 255;

// What the operation returns (0 ... 254) in a process of its own.
int resultInChild(const std::function<int()>& operation) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(operation());
  int status = 0;
  EXPECT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status));
  return WEXITSTATUS(status);
}

// Moves what stands at the path when it is called.
bool moveItem(const std::string& from, const std::string& to, platform::ErrorPlace error) {
  return platform::moveItem(platform::PinnedFile::ofItem(from), from, to, error);
}

// 0, or the error code of the move, on a file system that lacks the calls.
int moveWithout(const std::vector<RefusedCall>& calls, const std::string& from, const std::string& to) {
  return resultInChild([&] {
    if (!refuseCalls(calls)) return cannotRefuse;
    std::optional<Error> error;
    return moveItem(from, to, &error) ? 0 : static_cast<int>(error->code);
  });
}

// Existence, size

TEST(FileManager, ANameIsTakenByAFileAFolderAndALinkWhereverItLeads) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "");
  fs::create_directory(scratch.path() / "folder");
  fs::create_symlink("clip.mov", scratch.file("link.mov"));
  fs::create_symlink("nowhere", scratch.file("dangling.mov"));
  fs::create_symlink("loop.mov", scratch.file("loop.mov"));
  for (const char* name : {"clip.mov", "folder", "link.mov", "dangling.mov", "loop.mov"})
    EXPECT_TRUE(platform::fileExistsAtPath(scratch.file(name))) << name;
}

TEST(FileManager, ANameThatNothingHasIsFree) {
  const ScratchDirectory scratch;
  EXPECT_FALSE(platform::fileExistsAtPath(scratch.file("clip.mov")));
  EXPECT_FALSE(platform::fileExistsAtPath((scratch.path() / "missing/clip.mov").string()));
}

TEST(FileManager, TheSizeIsThatOfTheFileThroughLinks) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), mediaBytes(4097));
  fs::create_symlink("clip.mov", scratch.file("link.mov"));
  fs::create_symlink("nowhere", scratch.file("dangling.mov"));
  EXPECT_EQ(4097U, platform::sizeOfFile(scratch.file("clip.mov")));
  EXPECT_EQ(4097U, platform::sizeOfFile(scratch.file("link.mov")));
  EXPECT_EQ(std::nullopt, platform::sizeOfFile(scratch.file("dangling.mov")));
  EXPECT_EQ(std::nullopt, platform::sizeOfFile(scratch.file("missing.mov")));
}

// Removal

TEST(FileManager, AFileIsRemovedAndItsOtherNameKeepsTheContent) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "content");
  fs::create_hard_link(scratch.file("clip.mov"), scratch.file("other.mov"));
  std::optional<Error> error;
  EXPECT_TRUE(removeItem(scratch.file("clip.mov"), &error));
  EXPECT_FALSE(error);
  EXPECT_EQ((Names{"other.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("content", readFile(scratch.file("other.mov")));
}

TEST(FileManager, ASymbolicLinkIsRemovedAndNotWhatItLeadsTo) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("folder/clip.mov"), "content");
  fs::create_symlink("folder/clip.mov", scratch.file("file.link"));
  fs::create_directory_symlink("folder", scratch.file("folder.link"));
  EXPECT_TRUE(removeItem(scratch.file("file.link"), nullptr));
  EXPECT_TRUE(removeItem(scratch.file("folder.link"), nullptr));
  EXPECT_EQ((Names{"folder/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("content", readFile(scratch.file("folder/clip.mov")));
}

TEST(FileManager, AFolderIsNeverRemovedNorWhatIsBelowIt) {
  const ScratchDirectory scratch;
  const std::string folder = (scratch.path() / "clip.mov").string();
  writeFile(scratch.file("clip.mov/take.mov"), "content");
  std::optional<Error> error;
  EXPECT_FALSE(removeItem(folder, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ("POSIXErrorDomain", error->domain);
  EXPECT_EQ(21, error->code);
  EXPECT_EQ("unlink " + folder + ": Is a directory", error->description);
  EXPECT_EQ("content", readFile(scratch.file("clip.mov/take.mov")));
}

TEST(FileManager, AnEmptyFolderIsNeverRemoved) {
  const ScratchDirectory scratch;
  fs::create_directory(scratch.path() / "clip.mov");
  std::optional<Error> error;
  EXPECT_FALSE(removeItem((scratch.path() / "clip.mov").string(), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(21, error->code);
  EXPECT_TRUE(fs::is_directory(scratch.path() / "clip.mov"));
}

TEST(FileManager, RemovingWhatIsNotThereIsAnErrorThatNamesIt) {
  const ScratchDirectory scratch;
  std::optional<Error> error;
  EXPECT_FALSE(removeItem(scratch.file("clip.mov"), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(ENOENT, error->code);
  EXPECT_EQ("unlink " + scratch.file("clip.mov") + ": No such file or directory", error->description);
  EXPECT_EQ(scratch.file("clip.mov"), error->path);
}

TEST(FileManager, RemovingOnAReadOnlyVolumeIsAnErrorWithItsNumber) {
  std::string whyNot;
  const auto volume = MountedFileSystem::mount("tmpfs", MiB, whyNot);
  if (!volume) GTEST_SKIP() << whyNot;
  writeFile(volume->file("clip.mov"), "content");
  ASSERT_EQ(0, ::mount(nullptr, volume->path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  std::optional<Error> error;
  EXPECT_FALSE(removeItem(volume->file("clip.mov"), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(30, error->code);
  EXPECT_EQ("content", readFile(volume->file("clip.mov")));
}

// Moving

TEST(FileManager, AMoveGivesTheFileItsNewName) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov.kdxcopy"), "content");
  std::optional<Error> error;
  EXPECT_TRUE(moveItem(scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov"), &error));
  EXPECT_FALSE(error);
  EXPECT_EQ((Names{"clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("content", readFile(scratch.file("clip.mov")));
}

TEST(FileManager, AMoveNeverReplacesAFile) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov.kdxcopy"), "new");
  writeFile(scratch.file("clip.mov"), "old");
  std::optional<Error> error;
  EXPECT_FALSE(moveItem(scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov"), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ("POSIXErrorDomain", error->domain);
  EXPECT_EQ(EEXIST, error->code);
  EXPECT_THAT(*error->description, HasSubstr("rename"));
  EXPECT_THAT(*error->description, HasSubstr(scratch.file("clip.mov.kdxcopy")));
  EXPECT_THAT(*error->description, HasSubstr("File exists"));
  EXPECT_EQ("new", readFile(scratch.file("clip.mov.kdxcopy")));
  EXPECT_EQ("old", readFile(scratch.file("clip.mov")));
}

TEST(FileManager, AMoveNeverReplacesALinkWhereverItLeads) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov.kdxcopy"), "new");
  fs::create_symlink("nowhere", scratch.file("clip.mov"));
  std::optional<Error> error;
  EXPECT_FALSE(moveItem(scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov"), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(EEXIST, error->code);
  EXPECT_EQ("nowhere", fs::read_symlink(scratch.file("clip.mov")));
  EXPECT_EQ("new", readFile(scratch.file("clip.mov.kdxcopy")));
}

TEST(FileManager, AMoveNeverReplacesAnEmptyFolder) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov.kdxcopy"), "new");
  fs::create_directory(scratch.path() / "clip.mov");
  std::optional<Error> error;
  EXPECT_FALSE(moveItem(scratch.file("clip.mov.kdxcopy"), (scratch.path() / "clip.mov").string(), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(EEXIST, error->code);
  EXPECT_TRUE(fs::is_directory(scratch.path() / "clip.mov"));
}

TEST(FileManager, MovingWhatIsNotThereIsAnErrorThatNamesIt) {
  const ScratchDirectory scratch;
  std::optional<Error> error;
  EXPECT_FALSE(moveItem(scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov"), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(ENOENT, error->code);
  EXPECT_EQ("rename " + scratch.file("clip.mov.kdxcopy") + ": No such file or directory", error->description);
}

TEST(FileManager, AMoveToAnotherFileSystemIsAnErrorAndMovesNothing) {
  std::string whyNot;
  const auto volume = MountedFileSystem::mount("tmpfs", MiB, whyNot);
  if (!volume) GTEST_SKIP() << whyNot;
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "content");
  std::optional<Error> error;
  EXPECT_FALSE(moveItem(scratch.file("clip.mov"), volume->file("clip.mov"), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(EXDEV, error->code);
  EXPECT_EQ((Names{"clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ(Names{}, namesBelow(volume->path()));
}

// File systems that lack the rename that replaces nothing, and some that lack links too.
struct LackingRow : NamedRow {
  std::vector<RefusedCall> calls;
};

class LackingFileSystem : public testing::TestWithParam<LackingRow> {};

TEST_P(LackingFileSystem, MovesAFileAllTheSame) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov.kdxcopy"), "content");
  const int code = moveWithout(GetParam().calls, scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov"));
  if (code == cannotRefuse) GTEST_SKIP() << "this kernel does not let a process refuse calls";
  EXPECT_EQ(0, code);
  EXPECT_EQ((Names{"clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("content", readFile(scratch.file("clip.mov")));
}

TEST_P(LackingFileSystem, NeverReplacesAFile) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov.kdxcopy"), "new");
  writeFile(scratch.file("clip.mov"), "old");
  const int code = moveWithout(GetParam().calls, scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov"));
  if (code == cannotRefuse) GTEST_SKIP() << "this kernel does not let a process refuse calls";
  EXPECT_EQ(EEXIST, code);
  EXPECT_EQ("new", readFile(scratch.file("clip.mov.kdxcopy")));
  EXPECT_EQ("old", readFile(scratch.file("clip.mov")));
}

TEST_P(LackingFileSystem, NeverReplacesALinkThatLeadsNowhere) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov.kdxcopy"), "new");
  fs::create_symlink("nowhere", scratch.file("clip.mov"));
  const int code = moveWithout(GetParam().calls, scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov"));
  if (code == cannotRefuse) GTEST_SKIP() << "this kernel does not let a process refuse calls";
  EXPECT_EQ(EEXIST, code);
  EXPECT_EQ("nowhere", fs::read_symlink(scratch.file("clip.mov")));
  EXPECT_EQ("new", readFile(scratch.file("clip.mov.kdxcopy")));
}

TEST_P(LackingFileSystem, TellsThatTheFileIsMissing) {
  const ScratchDirectory scratch;
  const int code = moveWithout(GetParam().calls, scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov"));
  if (code == cannotRefuse) GTEST_SKIP() << "this kernel does not let a process refuse calls";
  EXPECT_EQ(ENOENT, code);
}

INSTANTIATE_TEST_SUITE_P(
    FileManager, LackingFileSystem,
    testing::Values(LackingRow{"FlagUnknown", {{{SYS_renameat2}, EINVAL}}},
                    LackingRow{"CallUnknown", {{{SYS_renameat2}, ENOSYS}}},
                    LackingRow{"NotSupported", {{{SYS_renameat2}, ENOTSUP}}},
                    LackingRow{"LinksNotPermitted", {{{SYS_renameat2}, EINVAL}, {linkCalls, EPERM}}},
                    LackingRow{"LinksNotSupported", {{{SYS_renameat2}, EINVAL}, {linkCalls, ENOTSUP}}},
                    LackingRow{"LinksUnknown", {{{SYS_renameat2}, ENOSYS}, {linkCalls, ENOSYS}}},
                    LackingRow{"NotPermitted", {{{SYS_renameat2}, EPERM}}},
                    LackingRow{"TooManyLinks", {{{SYS_renameat2}, EINVAL}, {linkCalls, EMLINK}}},
                    LackingRow{"LinksFailLikeADevice", {{{SYS_renameat2}, EINVAL}, {linkCalls, EIO}}},
                    LackingRow{"LinksOutOfRange", {{{SYS_renameat2}, EINVAL}, {linkCalls, ERANGE}}},
                    LackingRow{"LinksToAnotherBranch", {{{SYS_renameat2}, EINVAL}, {linkCalls, EXDEV}}}),
    rowName);

TEST(FileManager, AMoveThatFailsForAnotherReasonIsNotTriedInAnotherWay) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov.kdxcopy"), "content");
  const int code = moveWithout({{{SYS_renameat2}, EACCES}}, scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov"));
  if (code == cannotRefuse) GTEST_SKIP() << "this kernel does not let a process refuse calls";
  EXPECT_EQ(EACCES, code);
  EXPECT_EQ((Names{"clip.mov.kdxcopy"}), namesBelow(scratch.path()));
}

#ifdef SYS_rename
const std::vector<long> renameCalls{SYS_rename, SYS_renameat};
#else
const std::vector<long> renameCalls{SYS_renameat};
#endif

TEST(FileManager, AMoveThatFailsInEveryWayIsTheErrorOfTheLast) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov.kdxcopy"), "content");
  const int code = moveWithout({{{SYS_renameat2}, EINVAL}, {linkCalls, EPERM}, {renameCalls, EACCES}},
                               scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov"));
  if (code == cannotRefuse) GTEST_SKIP() << "this kernel does not let a process refuse calls";
  EXPECT_EQ(EACCES, code);
  EXPECT_EQ((Names{"clip.mov.kdxcopy"}), namesBelow(scratch.path()));
}

// Another file comes to the temporary name after the one to be moved was pinned.
TEST_P(LackingFileSystem, GivesNoNameToAFileThatWasPutInThePlaceOfThePinnedOne) {
  const ScratchDirectory scratch;
  const std::string from = scratch.file("clip.mov.kdxcopy");
  const std::string to = scratch.file("clip.mov");
  writeFile(from, "proved");
  const auto item = platform::PinnedFile::ofItem(from);
  fs::rename(from, scratch.file("elsewhere"));
  // Files of the same tick of the clock can't be told apart everywhere.
  do {
    fs::remove(from);
    writeFile(from, "of another run");
  } while (item.stamp()->isOf(*platform::stampOfItem(from)));
  const int code = resultInChild([&] {
    if (!refuseCalls(GetParam().calls)) return cannotRefuse;
    std::optional<Error> error;
    return platform::moveItem(item, from, to, &error) ? 0 : static_cast<int>(error->code);
  });
  if (code == cannotRefuse) GTEST_SKIP() << "this kernel does not let a process refuse calls";
  EXPECT_EQ(ESTALE, code);
  EXPECT_EQ((Names{"clip.mov.kdxcopy", "elsewhere"}), namesBelow(scratch.path()));
  EXPECT_EQ("of another run", readFile(from));
}

struct InjectionRow : NamedRow {
  const char* inject;
};

class OffloadToLackingFileSystem : public testing::TestWithParam<InjectionRow> {};

TEST_P(OffloadToLackingFileSystem, EndsUnderTheFinalName) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), mediaBytes(5000));
  const ToolRun run = runTool(
      {.arguments = {scratch.file("clip.mov"), scratch.file("a/clip.mov")}, .wrapper = injecting(GetParam().inject)});
  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_EQ((Names{"a/clip.mov", "clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ(mediaBytes(5000), readFile(scratch.file("a/clip.mov")));
}

INSTANTIATE_TEST_SUITE_P(FileManager, OffloadToLackingFileSystem,
                         testing::Values(InjectionRow{"FlagUnknown", "renameat2:error=EINVAL"},
                                         InjectionRow{"CallUnknown", "renameat2:error=ENOSYS"},
                                         InjectionRow{"NotSupported", "renameat2:error=EOPNOTSUPP"}),
                         rowName);

// Permanence

TEST(FileManager, TheDataOfAFileIsMadePermanent) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), mediaBytes(5000));
  EXPECT_EQ(0, platform::makeDataPermanent(scratch.file("clip.mov")));
}

TEST(FileManager, WhereNoFileIsThereIsNoDataToMakePermanent) {
  const ScratchDirectory scratch;
  EXPECT_EQ(0, platform::makeDataPermanent(scratch.file("clip.mov")));
}

TEST(FileManager, ASymbolicLinkIsNotFollowedToMakeDataPermanent) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "content");
  fs::create_symlink("clip.mov", scratch.file("link.mov"));
  EXPECT_GT(0, platform::makeDataPermanent(scratch.file("link.mov")));
}

TEST(FileManager, AFailedSyncOfTheDataIsWhatTheCallReturned) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "content");
  const int result = resultInChild([&] {
    if (!refuseCalls({{{SYS_fdatasync}, EIO}})) return cannotRefuse;
    return -platform::makeDataPermanent(scratch.file("clip.mov"));
  });
  if (result == cannotRefuse) GTEST_SKIP() << "this kernel does not let a process refuse calls";
  EXPECT_EQ(1, result);
}

TEST(FileManager, AFileIsSyncedWithItsFolder) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), mediaBytes(5000));
  EXPECT_EQ(0, platform::fullSync(scratch.file("clip.mov")));
  EXPECT_EQ(mediaBytes(5000), readFile(scratch.file("clip.mov")));
}

struct SyncRow : NamedRow {
  const char* fileOnTheOtherDescriptor;  // what descriptor 0 is: "" closed, else opened for reading
};

class SyncOfAMissingFile : public testing::TestWithParam<SyncRow> {};

TEST_P(SyncOfAMissingFile, IsAFailureWhateverDescriptorZeroIs) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("regular"), "content");
  const std::string given = GetParam().fileOnTheOtherDescriptor;
  const int result = resultInChild([&] {
    ::close(STDIN_FILENO);
    const std::string input = given == "regular" ? scratch.file("regular") : given;
    if (!input.empty() && ::open(input.c_str(), O_RDONLY) != STDIN_FILENO) return cannotRefuse;
    return -platform::fullSync(scratch.file("missing.mov"));
  });
  EXPECT_EQ(1, result);
}

INSTANTIATE_TEST_SUITE_P(FileManager, SyncOfAMissingFile,
                         testing::Values(SyncRow{"Closed", ""}, SyncRow{"NothingToSync", "/dev/null"},
                                         SyncRow{"AFileThatCanBeSynced", "regular"}),
                         rowName);

class SyncOfTheOffload : public testing::Test {
 protected:
  void SetUp() override {
    if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
    writeFile(_scratch.file("clip.mov"), mediaBytes(5000));
  }

  ToolRun offloadWith(const std::vector<std::string>& wrapper) const {
    return runTool({.arguments = {"-k", _scratch.file("clip.mov"), destination()}, .wrapper = wrapper});
  }

  std::string destination() const { return _scratch.file("a/clip.mov"); }
  std::string folder() const { return (_scratch.path() / "a").string(); }
  std::string failureLine() const {
    return "Error: couldn't sync the file system of file " + destination() + " (error code -1)\n";
  }

 private:
  ScratchDirectory _scratch;
};

TEST_F(SyncOfTheOffload, FailsWhenTheFileCannotBeSynced) {
  const ToolRun run = offloadWith(injectingAt(destination(), {"fsync:error=EIO"}));
  EXPECT_EQ(106, run.exitStatus);
  EXPECT_THAT(run.output, HasSubstr(failureLine()));
}

TEST_F(SyncOfTheOffload, IsNotTriedAgainAfterAFailure) {
  // Only the first sync fails: a second one would succeed, and prove nothing.
  const ToolRun run = offloadWith(injectingAt(destination(), {"fsync:error=EIO:when=1"}));
  EXPECT_EQ(106, run.exitStatus);
}

TEST_F(SyncOfTheOffload, FailsWhenTheFolderCannotBeSynced) {
  const ToolRun run = offloadWith(injectingAt(folder(), {"fsync:error=EIO"}));
  EXPECT_EQ(106, run.exitStatus);
  EXPECT_THAT(run.output, HasSubstr(failureLine()));
}

TEST_F(SyncOfTheOffload, PassesOverFileSystemsThatSyncNoFolders) {
  for (const char* inject : {"fsync:error=EINVAL", "fsync:error=EOPNOTSUPP"}) {
    const ToolRun run = offloadWith(injectingAt(folder(), {inject}));
    EXPECT_EQ(0, run.exitStatus) << inject << run.output;
    EXPECT_TRUE(removeItem(destination(), nullptr));
  }
}

TEST_F(SyncOfTheOffload, FailsWhenTheFolderCannotBeOpened) {
  const ToolRun run = offloadWith(injectingAt(folder(), {"openat:error=EIO"}));
  EXPECT_EQ(106, run.exitStatus);
}

TEST_F(SyncOfTheOffload, OfAFolderThatMayNotBeReadIsThatOfItsFileSystem) {
  const ToolRun run = offloadWith(injectingAt(folder(), {"openat:error=EACCES"}));
  EXPECT_EQ(0, run.exitStatus);
}

TEST_F(SyncOfTheOffload, FailsBeforeTheMoveWhenTheDataCannotBeMadePermanent) {
  const ToolRun run = offloadWith(injectingAt(destination() + ".kdxcopy", {"fdatasync:error=EIO"}));
  EXPECT_EQ(106, run.exitStatus);
  EXPECT_EQ((Names{"clip.mov.kdxcopy"}), namesBelow(folder()));
}

}  // namespace
