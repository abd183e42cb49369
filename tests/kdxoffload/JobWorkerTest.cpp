#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <tuple>

#include "KDXFileTools/kdxoffload/JobWorker.h"
#include "digest/KDXDigestContext.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ScratchDirectory.h"

using namespace kdxoffload;
namespace fs = std::filesystem;

namespace {

constexpr int64_t someTime = 1'400'000'000'123'456'789;

class JobWorkerTest : public testing::Test {
 protected:
  JobWorkerTest() {
    for (const char* folder : {"card/DCIM", "a/DCIM", "b/DCIM"}) fs::create_directories(scratch.path() / folder);
  }

  [[nodiscard]] std::string path(const std::string& name) const { return scratch.path() / name; }

  // Writes a file of the card, and gives the item that stands for it.
  [[nodiscard]] OrderedItem onCard(const std::string& name, const std::string& bytes, uint32_t mode = 0640) const {
    const auto folder = platform::Folder::open(path("card/DCIM"), nullptr);
    writeFile(path("card/DCIM/") + name, bytes);
    const platform::FileDescriptor file = folder->openFile(name, nullptr);
    EXPECT_TRUE(platform::setModeAndTime(file.get(), mode, someTime, nullptr));
    return {.name = name, .size = bytes.size(), .modified = someTime, .mode = mode};
  }

  [[nodiscard]] WorkerSetup setup() const {
    return {.card = path("card"),
            .destinations = {path("a"), path("b")},
            .algorithm = KDXDigestAlgorithmMD5,
            .privateFolder = ".work"};
  }

  [[nodiscard]] JobOrder order(Task task, std::vector<OrderedItem> items) const {
    return {
        .number = 3, .task = task, .folder = "DCIM", .destinations = DestinationSet::all(2), .items = std::move(items)};
  }

  JobResult perform(const JobOrder& wanted) const { return JobWorker(setup()).perform(wanted); }

  // How a process ends that does the order: 77 when it answers.
  [[nodiscard]] int endOf(const JobOrder& wanted) const {
    return runInChild([&] { std::ignore = perform(wanted); }).exitStatus;
  }

  [[nodiscard]] std::vector<std::string> names(const std::string& folder) const {
    return namesBelow(scratch.path() / folder);
  }

  [[nodiscard]] platform::ItemFacts facts(const std::string& folder, const std::string& name) const {
    return platform::Folder::open(path(folder), nullptr)->factsOf(name, nullptr).value();
  }

  const ScratchDirectory scratch;
};

using testing::ElementsAre;

}  // namespace

TEST_F(JobWorkerTest, ASmallFileIsCopiedAndReadBackWithoutAnotherThread) {
  const auto threads = [] {
    const fs::directory_iterator all("/proc/self/task");
    return static_cast<int>(std::distance(begin(all), end(all)));
  };
  const auto threadsStartedFor = [this, &threads](const OrderedItem& item) {
    return runInChild([&] {
             const int before = threads();
             std::ignore = perform(order(Task::copy, {item}));
             ::_exit(threads() - before);
           })
        .exitStatus;
  };
  EXPECT_EQ(0, threadsStartedFor(onCard("sheet.txt", mediaBytes(64 * KiB))));
  EXPECT_EQ(mediaBytes(64 * KiB), readFile(path("b/DCIM/sheet.txt")));
  EXPECT_LT(0, threadsStartedFor(onCard("clip.mov", mediaBytes(64 * KiB + 1))));
}

TEST_F(JobWorkerTest, ACopyHasTheBytesModeAndTimeOfTheCardEverywhere) {
  const JobResult result = perform(order(Task::copy, {onCard("clip.mov", mediaBytes(3 * MiB + 5), 0440)}));
  EXPECT_EQ(0, result.status) << result.reason;
  ASSERT_EQ(2U, result.items.size());
  for (const char* folder : {"a/DCIM", "b/DCIM"}) {
    EXPECT_EQ(mediaBytes(3 * MiB + 5), readFile(path(folder) + "/clip.mov"));
    EXPECT_EQ(0440U, facts(folder, "clip.mov").mode);
    EXPECT_EQ(someTime, facts(folder, "clip.mov").modified);
    EXPECT_THAT(names(folder), ElementsAre("clip.mov"));
  }
  EXPECT_EQ(facts("b/DCIM", "clip.mov").identity, result.items[1].facts.identity);
}

TEST_F(JobWorkerTest, ThePermissionToRunAsTheOwnerIsNotKept) {
  EXPECT_EQ(0, perform(order(Task::copy, {onCard("tool", "bytes", 06755)})).status);
  EXPECT_EQ(0755U, facts("a/DCIM", "tool").mode);
}

TEST_F(JobWorkerTest, AJobThatFailsEndsItsProcessWithItsStatus) {
  const JobOrder wanted = order(Task::copy, {onCard("clip.mov", "new")});
  EXPECT_EQ(cameBack, endOf(wanted));
  // The name is taken now.
  EXPECT_EQ(109, endOf(wanted));
}

TEST_F(JobWorkerTest, WithReplacingAFileMakesRoom) {
  writeFile(path("a/DCIM/clip.mov"), "old");
  JobOrder wanted = order(Task::copy, {onCard("clip.mov", "new")});
  wanted.replaces = true;
  EXPECT_EQ(0, perform(wanted).status);
  EXPECT_EQ("new", readFile(path("a/DCIM/clip.mov")));
}

TEST_F(JobWorkerTest, AFileThatIsNotTheOneListedIsNotCopied) {
  OrderedItem item = onCard("clip.mov", "bytes");
  ++item.modified;
  EXPECT_EQ(WorkStatus::sourceChanged, perform(order(Task::copy, {item})).status);
  EXPECT_THAT(names("a"), ElementsAre());
}

TEST_F(JobWorkerTest, NamesThatTheJobsCannotTakeGoByAnAlias) {
  for (const std::string& name : {std::string(255, 'n'), std::string("\xff\xfe.mov"), std::string("x.kdxcopy"),
                                  std::string("line\nhash MD5:0"), std::string("-f")}) {
    JobOrder wanted = order(Task::copy, {onCard(name, "bytes of " + name)});
    wanted.usesAlias = true;
    const JobResult result = perform(wanted);
    EXPECT_EQ(0, result.status) << result.reason;
    EXPECT_EQ("bytes of " + name, readFile(path("b/DCIM/") + name));
    EXPECT_EQ(someTime, facts("a/DCIM", name).modified);
  }
}

TEST_F(JobWorkerTest, AnAliasReplacesWhatStandsAtTheNameOnlyWhenAsked) {
  writeFile(path("b/DCIM/x.kdxcopy"), "somebody else's");
  JobOrder wanted = order(Task::copy, {onCard("x.kdxcopy", "bytes")});
  wanted.usesAlias = true;
  EXPECT_EQ(WorkStatus::inTheWay, perform(wanted).status);
  EXPECT_EQ("somebody else's", readFile(path("b/DCIM/x.kdxcopy")));
  wanted.replaces = true;
  EXPECT_EQ(0, perform(wanted).status);
  EXPECT_EQ("bytes", readFile(path("b/DCIM/x.kdxcopy")));
}

TEST_F(JobWorkerTest, ALinkInPlaceOfAFolderIsNotFollowed) {
  fs::create_directory(path("elsewhere"));
  fs::remove(path("a/DCIM"));
  fs::create_directory_symlink(path("elsewhere"), path("a/DCIM"));
  const JobResult result = perform(order(Task::copy, {onCard("clip.mov", "bytes")}));
  EXPECT_EQ(WorkStatus::notReachable, result.status);
  EXPECT_THAT(names("elsewhere"), ElementsAre());
}

TEST_F(JobWorkerTest, TheFramesOfASequenceAreCopiedWithTheirTimes) {
  JobOrder wanted = order(Task::sequence, {onCard("A%_0998.dpx", "one"), onCard("A%_0999.dpx", "two", 0600)});
  wanted.identifier = "A%%_0998-0999.####.dpx";
  const JobResult result = perform(wanted);
  EXPECT_EQ(0, result.status) << result.reason;
  EXPECT_EQ(4U, result.items.size());
  EXPECT_THAT(names("b"), ElementsAre("DCIM/A%_0998.dpx", "DCIM/A%_0999.dpx"));
  EXPECT_EQ("two", readFile(path("a/DCIM/A%_0999.dpx")));
  EXPECT_EQ(0600U, facts("a/DCIM", "A%_0999.dpx").mode);
  EXPECT_EQ(someTime, facts("a/DCIM", "A%_0998.dpx").modified);
}

TEST_F(JobWorkerTest, AComparisonTellsTheDigestWhereAllAgree) {
  const OrderedItem item = onCard("clip.mov", mediaBytes(MiB));
  for (const char* folder : {"a", "b"}) writeFile(path(folder) + "/DCIM/clip.mov", mediaBytes(MiB));
  const JobResult result = perform(order(Task::compare, {item}));
  EXPECT_EQ(0, result.status) << result.reason;
  ASSERT_EQ(1U, result.digests.size());
  EXPECT_EQ("MD5:" + digestByProgram("md5sum", path("card/DCIM/clip.mov")), result.digests[0].text());
  EXPECT_EQ(someTime, facts("b/DCIM", "clip.mov").modified);
}

TEST_F(JobWorkerTest, AComparisonFindsOneDifferentBitAndChangesNothing) {
  const OrderedItem item = onCard("clip.mov", mediaBytes(MiB));
  for (const char* folder : {"a", "b"}) writeFile(path(folder) + "/DCIM/clip.mov", mediaBytes(MiB));
  damageFile(path("b/DCIM/clip.mov"), 4711);
  const platform::ItemFacts before = facts("b/DCIM", "clip.mov");
  EXPECT_EQ(WorkStatus::differs, perform(order(Task::compare, {item})).status);
  EXPECT_EQ(before.modified, facts("b/DCIM", "clip.mov").modified);
}

TEST_F(JobWorkerTest, TheCardsOwnFileAtADestinationProvesNothing) {
  const OrderedItem item = onCard("clip.mov", "bytes");
  for (const char* folder : {"a", "b"})
    fs::create_hard_link(path("card/DCIM/clip.mov"), path(folder) + "/DCIM/clip.mov");
  EXPECT_EQ(WorkStatus::cardsOwnFile, perform(order(Task::compare, {item})).status);
}

TEST_F(JobWorkerTest, FoldersAreMadeAndThoseThatAreThereAreTaken) {
  JobOrder wanted = order(Task::makeFolders, {{.name = "x"}, {.name = "x/y"}, {.name = "DCIM"}});
  wanted.folder = "";
  for (int again = 0; again < 2; ++again) {
    const JobResult result = perform(wanted);
    EXPECT_EQ(6U, result.items.size());
    for (const ItemResult& item : result.items) EXPECT_EQ(0, item.status) << item.remark;
    EXPECT_TRUE(fs::is_directory(path("b/x/y")));
  }
}

TEST_F(JobWorkerTest, AFileInPlaceOfAFolderIsTold) {
  writeFile(path("a/x"), "file");
  JobOrder wanted = order(Task::makeFolders, {{.name = "x"}, {.name = "x/y"}});
  wanted.folder = "";
  const JobResult result = perform(wanted);
  std::vector<int> statuses;
  for (const ItemResult& item : result.items) statuses.push_back(item.status);
  EXPECT_THAT(statuses, ElementsAre(WorkStatus::notReachable, 0, WorkStatus::notReachable, 0));
  EXPECT_EQ("file", readFile(path("a/x")));
}

TEST_F(JobWorkerTest, LinksAreMadeAsLinksAndNotFollowed) {
  fs::create_symlink("other", path("b/DCIM/link"));
  const JobResult result = perform(order(
      Task::makeLinks, {{.name = "link", .target = "../..", .modified = someTime}, {.name = "same", .target = "x"}}));
  ASSERT_EQ(4U, result.items.size());
  EXPECT_EQ(0, result.items[0].status);
  EXPECT_EQ(WorkStatus::inTheWay, result.items[1].status);
  EXPECT_EQ("../..", fs::read_symlink(path("a/DCIM/link")));
  EXPECT_EQ("other", fs::read_symlink(path("b/DCIM/link")));
  EXPECT_EQ(someTime, facts("a/DCIM", "link").modified);
  EXPECT_EQ(0, perform(order(Task::makeLinks, {{.name = "same", .target = "x"}})).items[1].status);
}

TEST_F(JobWorkerTest, ModeAndTimeOfFoldersAreKept) {
  JobOrder wanted = order(Task::keepFolders, {{.name = "DCIM", .modified = someTime, .mode = 0750}});
  wanted.folder = "";
  const JobResult result = perform(wanted);
  ASSERT_EQ(2U, result.items.size());
  EXPECT_EQ(0750U, facts("b", "DCIM").mode);
  EXPECT_EQ(someTime, facts("b", "DCIM").modified);
}

TEST_F(JobWorkerTest, CleaningRemovesWhatItNamesAndTheFolderOfAliases) {
  writeFile(path("a/DCIM/x.kdxcopy"), "left");
  writeFile(path("a/DCIM/y.mov"), "kept");
  fs::create_directory(path("a/.work"));
  writeFile(path("a/.work/12.kdxcopy"), "left");
  fs::create_directory(path("a/DCIM/z.kdxcopy"));
  JobOrder wanted = order(Task::clean, {{.name = "DCIM/x.kdxcopy"}, {.name = "DCIM/z.kdxcopy"}, {.name = "none/x"}});
  wanted.folder = "";
  EXPECT_EQ(0, perform(wanted).status);
  EXPECT_THAT(names("a"), ElementsAre("DCIM/y.mov"));
  EXPECT_FALSE(fs::exists(path("a/.work")));
  EXPECT_TRUE(fs::is_directory(path("a/DCIM/z.kdxcopy")));
}

TEST_F(JobWorkerTest, ASyncReachesEveryDestination) {
  JobOrder wanted = order(Task::sync, {});
  wanted.folder = "";
  EXPECT_EQ(0, perform(wanted).status);
  WorkerSetup gone = setup();
  fs::remove_all(path("b"));
  EXPECT_EQ(WorkStatus::notReachable, JobWorker(gone).perform(wanted).status);
}

TEST_F(JobWorkerTest, AFileTwoThousandFoldersDeepIsCopied) {
  std::string folder;
  for (int level = 0; level < 2000; ++level) folder += "level/";
  folder.pop_back();
  std::optional<platform::Folder> card = platform::Folder::open(path("card"), nullptr);
  std::optional<platform::Folder> deep = card->makeFolders(folder, nullptr);
  for (const char* destination : {"a", "b"}) {
    ASSERT_TRUE(platform::Folder::open(path(destination), nullptr)->makeFolders(folder, nullptr));
  }
  writeFile(deep->path() + "/clip.mov", "bytes");
  const platform::ItemFacts found = deep->factsOf("clip.mov", nullptr).value();
  JobOrder wanted = order(Task::copy, {{.name = "clip.mov", .size = 5, .modified = found.modified, .mode = 0644}});
  wanted.folder = folder;
  const JobResult result = perform(wanted);
  EXPECT_EQ(0, result.status) << result.reason;
}
