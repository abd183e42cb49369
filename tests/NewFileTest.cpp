#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "platform/NewFile.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ScratchDirectory.h"

using platform::Folder;
using platform::NewFile;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class NewFileTest : public testing::Test {
 protected:
  NewFile create() { return NewFile::create(folder, "list", &error).value(); }
  [[nodiscard]] std::vector<std::string> names() const { return namesBelow(scratch.path()); }

  ScratchDirectory scratch;
  Folder folder = Folder::open(scratch.path(), nullptr).value();
  std::optional<platform::Error> error;
};

}  // namespace

TEST_F(NewFileTest, ItHasItsNameOnceItIsWhole) {
  NewFile file = create();
  EXPECT_TRUE(file.write("one ", &error));
  EXPECT_TRUE(file.write("two", &error));
  EXPECT_THAT(names(), ElementsAre("list.kdxcopy"));
  EXPECT_TRUE(file.give(&error));
  EXPECT_THAT(names(), ElementsAre("list"));
  EXPECT_EQ("one two", readFile(scratch.file("list")));
}

TEST_F(NewFileTest, WithoutANameItIsRemoved) {
  {
    NewFile file = create();
    EXPECT_TRUE(file.write("one", &error));
  }
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(NewFileTest, OneThatWasMovedIsRemovedOnce) {
  NewFile file = create();
  {
    NewFile moved = std::move(file);
    EXPECT_TRUE(moved.write("one", &error));
    EXPECT_TRUE(moved.give(&error));
  }
  EXPECT_THAT(names(), ElementsAre("list"));
}

TEST_F(NewFileTest, GivingTheNameNeverReplacesAnything) {
  writeFile(scratch.file("list"), "somebody else's");
  {
    NewFile file = create();
    EXPECT_FALSE(file.give(&error));
    EXPECT_EQ(EEXIST, error.value().code);
  }
  EXPECT_THAT(names(), ElementsAre("list"));
  EXPECT_EQ("somebody else's", readFile(scratch.file("list")));
}

TEST_F(NewFileTest, ReplacingTakesThePlaceOfTheFileBefore) {
  writeFile(scratch.file("list"), "before");
  NewFile file = create();
  EXPECT_TRUE(file.write("after", &error));
  EXPECT_EQ("before", readFile(scratch.file("list")));
  EXPECT_TRUE(file.replace(&error));
  EXPECT_THAT(names(), ElementsAre("list"));
  EXPECT_EQ("after", readFile(scratch.file("list")));
}

TEST_F(NewFileTest, AFolderIsNotReplaced) {
  std::filesystem::create_directory(scratch.path() / "list");
  NewFile file = create();
  EXPECT_FALSE(file.replace(&error));
  EXPECT_EQ(EISDIR, error.value().code);
}

TEST_F(NewFileTest, ATemporaryNameThatIsTakenIsLeftAlone) {
  writeFile(scratch.file("list.kdxcopy"), "somebody else's");
  ASSERT_EQ(0, ::symlink("elsewhere", scratch.file("list.1.kdxcopy").c_str()));
  NewFile file = create();
  EXPECT_TRUE(file.write("mine", &error));
  EXPECT_TRUE(file.give(&error));
  EXPECT_THAT(names(), ElementsAre("list", "list.1.kdxcopy", "list.kdxcopy"));
  EXPECT_EQ("somebody else's", readFile(scratch.file("list.kdxcopy")));
  EXPECT_EQ("mine", readFile(scratch.file("list")));
}

TEST_F(NewFileTest, AFolderThatIsGoneIsAnError) {
  std::filesystem::remove(scratch.path());
  EXPECT_FALSE(NewFile::create(folder, "list", &error));
  EXPECT_EQ(ENOENT, error.value().code);
}

TEST_F(NewFileTest, AfterAFailedWriteThereIsNoName) {
  const ChildRun run = runInChild([this] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{.rlim_cur = 5 * MiB, .rlim_max = RLIM_INFINITY};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    NewFile file = create();
    const std::string bytes(4 * MiB, 'x');
    const bool isFirstWritten = file.write(bytes, &error);
    const bool isSecondWritten = file.write(bytes, &error);
    const bool isNamed = !error || error->code != EFBIG || file.write("z", nullptr) || file.give(nullptr);
    std::_Exit(isFirstWritten && !isSecondWritten && !isNamed ? 0 : 1);
  });
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_THAT(names(), ElementsAre("list.kdxcopy")) << "the process ended without removing it";
}

TEST_F(NewFileTest, AProcessThatIsKilledLeavesNothingUnderTheName) {
  EXPECT_EQ(128 + SIGKILL, statusOfChild([this] {
              NewFile file = create();
              file.write("half", nullptr);
              ::raise(SIGKILL);
            }));
  EXPECT_THAT(names(), ElementsAre("list.kdxcopy"));
}
