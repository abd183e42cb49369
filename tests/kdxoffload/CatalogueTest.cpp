#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>

#include "KDXFileTools/kdxoffload/Catalogue.h"
#include "tests/kdxoffload/DatabaseAt.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/ScratchDirectory.h"

using kdxoffload::Catalogue;
using kdxoffload::Database;
using kdxoffload::Entry;
using kdxoffload::FileDigest;
using kdxoffload::FileOfRecord;
using kdxoffload::FileRecord;
using kdxoffload::Listing;
using kdxoffload::OffloadRecord;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using State = FileRecord::State;

namespace {

using Paths = std::vector<std::string>;

constexpr std::chrono::milliseconds noPatience{0};
const std::string raid = "/mnt/raid";
const std::string shuttle = "/mnt/shuttle";

FileRecord recordIn(State state, uint64_t size = 10) {
  return {.state = state,
          .digest = FileDigest::fromText("XXHash64BE:ef46db3751d8e999").value(),
          .size = size,
          .modified = 1'700'000'000'000'000'001,
          .destinationSize = size,
          .destinationModified = 1'700'000'000'000'000'002};
}

FileRecord begun(uint64_t size = 10) {
  return {.state = State::begun, .size = size, .modified = 1'700'000'000'000'000'001};
}

FileOfRecord fileAt(std::size_t destination, const std::string& path, State state) {
  return {.destination = destination, .path = path, .record = recordIn(state)};
}

const std::vector<FileOfRecord> clip{fileAt(0, "clip.mov", State::proved)};

// A card of files at its top.
Listing cardOf(const Paths& names) {
  Listing card;
  for (const std::string& name : names) {
    card.entries.push_back({.name = name, .facts = {.kind = platform::ItemKind::file, .size = 10}});
  }
  return card;
}

// When a file was begun is another matter (see below).
std::vector<FileRecord> recordsOf(const Catalogue& catalogue, const std::string& destination, const Listing& card) {
  std::vector<FileRecord> records = catalogue.recordsOf(destination, card);
  for (FileRecord& record : records) {
    if (record.state == State::begun) record.destinationModified = record.begun = 0;
  }
  return records;
}

FileRecord recordOf(const Catalogue& catalogue, const std::string& destination, const std::string& name) {
  return recordsOf(catalogue, destination, cardOf({name})).front();
}

class CatalogueTest : public testing::Test {
 protected:
  [[nodiscard]] Catalogue opened() const { return Catalogue::open(path, noPatience); }
  // One that a run with two destinations has begun with.
  [[nodiscard]] Catalogue started() const {
    Catalogue catalogue = opened();
    catalogue.startOffload("/media/card", {raid, shuttle}, 1000);
    return catalogue;
  }
  void proveClip() const {
    Catalogue catalogue = started();
    catalogue.begin(clip);
    catalogue.prove(clip);
  }
  // Does to the database what no release of the program does.
  void change(const std::string& statement) const {
    Database database = databaseAt(path);
    database.execute(statement);
    ASSERT_FALSE(database.hasFailed()) << database.failure();
  }
  // A catalogue that can't be used goes on without remembering.
  static void expectUseless(Catalogue catalogue, const std::string& why) {
    ASSERT_TRUE(catalogue.problem());
    EXPECT_THAT(*catalogue.problem(), HasSubstr(why));
    catalogue.startOffload("/media/card", {raid}, 1000);
    catalogue.begin(clip);
    catalogue.prove(clip);
    catalogue.forget(clip);
    catalogue.endOffload({});
    EXPECT_EQ(FileRecord{}, recordOf(catalogue, raid, "clip.mov"));
    EXPECT_THAT(catalogue.history(), IsEmpty());
    EXPECT_THAT(catalogue.destinationsOf("/media/card"), IsEmpty());
  }
  // Neither to be kept nor to be read.
  void expectUseless(const std::string& why) const {
    expectUseless(opened(), why);
    expectUseless(Catalogue::openForReading(path), why);
  }

  ScratchDirectory scratch;
  std::string path = scratch.file("catalogue.sqlite");
};

// Ends this process as a loss of power would: nothing is closed.
[[noreturn]] void die() {
  ::raise(SIGKILL);
  std::abort();
}

}  // namespace

TEST_F(CatalogueTest, KnowsNothingOfAFileThatItWasNeverTold) {
  const Catalogue catalogue = started();
  EXPECT_FALSE(catalogue.problem()) << *catalogue.problem();
  EXPECT_EQ(FileRecord{}, recordOf(catalogue, raid, "clip.mov"));
  EXPECT_EQ(FileRecord{}, recordOf(catalogue, "/mnt/never", "clip.mov"));
}

TEST_F(CatalogueTest, OfAFileThatWasBegunItIsKnownUntilWhenItsRunWasAtWork) {
  const auto now = std::chrono::system_clock::now();
  const auto nanoseconds = [](std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
  };
  const auto begunUntil = [](const Catalogue& catalogue) {
    return catalogue.recordsOf(raid, cardOf({"clip.mov"})).front().destinationModified;
  };
  Catalogue catalogue = started();
  catalogue.begin(std::vector{fileAt(0, "clip.mov", State::proved)});
  EXPECT_NEAR(static_cast<double>(nanoseconds(now)), static_cast<double>(begunUntil(catalogue)), 60e9);
  const auto anHour = std::chrono::hours(1);
  catalogue.stillAtWork(now + anHour);
  EXPECT_NEAR(static_cast<double>(nanoseconds(now + anHour)), static_cast<double>(begunUntil(catalogue)), 1e9);
  // What another run did later says nothing of this one.
  const int64_t later = std::chrono::system_clock::to_time_t(now + 2 * anHour);
  catalogue.startOffload("/media/other", {raid}, later);
  catalogue.stillAtWork(now + 3 * anHour);
  EXPECT_NEAR(static_cast<double>(nanoseconds(now + anHour)), static_cast<double>(begunUntil(catalogue)), 1e9);
}

TEST_F(CatalogueTest, RemembersWhatWasBegunAndWhatWasProvedAcrossRuns) {
  {
    Catalogue catalogue = started();
    catalogue.begin(std::vector{fileAt(0, "a", State::proved), fileAt(0, "b", State::proved)});
    catalogue.prove(std::vector{fileAt(0, "a", State::proved)});
    EXPECT_EQ(begun(), recordOf(catalogue, raid, "b"));
  }
  const Catalogue catalogue = opened();
  EXPECT_THAT(recordsOf(catalogue, raid, cardOf({"b", "c", "a"})),
              ElementsAre(begun(), FileRecord{}, recordIn(State::proved)));
}

TEST_F(CatalogueTest, RemembersHowAFileWasProved) {
  Catalogue catalogue = started();
  for (const State state : {State::proved, State::adopted, State::copied}) {
    catalogue.prove(std::vector{fileAt(1, "clip.mov", state)});
    EXPECT_EQ(recordIn(state), recordOf(catalogue, shuttle, "clip.mov"));
  }
}

TEST_F(CatalogueTest, TakesNothingForAProofThatIsNone) {
  Catalogue catalogue = started();
  catalogue.begin(clip);
  catalogue.prove(std::vector{fileAt(0, "clip.mov", State::begun), fileAt(0, "clip.mov", State::none)});
  EXPECT_EQ(begun(), recordOf(catalogue, raid, "clip.mov"));
}

TEST_F(CatalogueTest, KeepsEachDestinationApart) {
  Catalogue catalogue = started();
  catalogue.prove(clip);
  EXPECT_EQ(recordIn(State::proved), recordOf(catalogue, raid, "clip.mov"));
  EXPECT_EQ(FileRecord{}, recordOf(catalogue, shuttle, "clip.mov"));
}

TEST_F(CatalogueTest, KnowsADestinationByItsPathAtAnyPosition) {
  proveClip();
  Catalogue catalogue = opened();
  catalogue.startOffload("/media/card", {shuttle, raid}, 2000);
  EXPECT_EQ(recordIn(State::proved), recordOf(catalogue, raid, "clip.mov"));
  catalogue.begin(std::vector{fileAt(1, "clip.mov", State::proved)});
  EXPECT_EQ(begun(), recordOf(catalogue, raid, "clip.mov"));
}

TEST_F(CatalogueTest, AFileThatIsBegunAnewIsProvedNoMore) {
  Catalogue catalogue = started();
  catalogue.prove(clip);
  catalogue.begin(clip);
  EXPECT_EQ(begun(), recordOf(catalogue, raid, "clip.mov"));
}

TEST_F(CatalogueTest, KnowsNothingOfAFileThatItWasToForget) {
  Catalogue catalogue = started();
  catalogue.begin(std::vector{fileAt(0, "a", State::proved), fileAt(0, "b", State::proved)});
  catalogue.forget(std::vector{fileAt(0, "a", State::proved), fileAt(0, "never", State::proved)});
  EXPECT_THAT(recordsOf(catalogue, raid, cardOf({"a", "b"})), ElementsAre(FileRecord{}, begun()));
  EXPECT_FALSE(catalogue.problem());
}

TEST_F(CatalogueTest, PathsAreBytes) {
  const Paths names{"\xff\xfe",  "a\nb", "quo'te\"", "per%cent",           "\xc3\xbc",
                    "u\xcc\x88", "A",    "a",        std::string(255, 'x')};
  Catalogue catalogue = started();
  std::vector<FileOfRecord> files;
  for (std::size_t index = 0; index < names.size(); ++index) {
    files.push_back({.path = names[index], .record = recordIn(State::proved, index)});
  }
  catalogue.prove(files);
  const std::vector<FileRecord> records = opened().recordsOf(raid, cardOf(names));
  for (std::size_t index = 0; index < names.size(); ++index) {
    EXPECT_EQ(recordIn(State::proved, index), records[index]) << names[index];
  }
}

TEST_F(CatalogueTest, GivesRecordsToFilesInFoldersAndToNothingElse) {
  Listing card;
  card.entries.push_back({.name = "day1", .facts = {.kind = platform::ItemKind::folder}});
  card.entries.push_back({.parent = 0, .name = "clip.mov", .facts = {.kind = platform::ItemKind::file}});
  card.entries.push_back({.parent = 0, .name = "link", .facts = {.kind = platform::ItemKind::link}});
  Catalogue catalogue = started();
  catalogue.prove(std::vector{fileAt(0, "day1", State::proved), fileAt(0, "day1/clip.mov", State::proved),
                              fileAt(0, "day1/link", State::proved)});
  EXPECT_THAT(recordsOf(catalogue, raid, card), ElementsAre(FileRecord{}, recordIn(State::proved), FileRecord{}));
}

TEST_F(CatalogueTest, ADestinationThatTheRunDoesNotHaveIsPassedOver) {
  Catalogue catalogue = started();
  catalogue.prove(std::vector{fileAt(2, "clip.mov", State::proved)});
  EXPECT_FALSE(catalogue.problem());
  EXPECT_EQ(FileRecord{}, recordOf(catalogue, raid, "clip.mov"));
}

TEST_F(CatalogueTest, KeepsThousandsOfFilesInOneChange) {
  constexpr std::size_t count = 20'000;
  Paths names;
  std::vector<FileOfRecord> files;
  for (std::size_t index = 0; index < count; ++index) {
    names.push_back("A001C003_240101_R1XY." + std::to_string(index) + ".dpx");
    files.push_back({.path = names.back(), .record = recordIn(State::proved, index)});
  }
  Catalogue catalogue = started();
  catalogue.prove(files);
  const std::vector<FileRecord> records = catalogue.recordsOf(raid, cardOf(names));
  ASSERT_EQ(count, records.size());
  for (std::size_t index = 0; index < count; ++index) {
    ASSERT_EQ(recordIn(State::proved, index), records[index]) << names[index];
  }
}

// What a program leaves that is ended between the steps.

TEST_F(CatalogueTest, AProgramKilledAfterTheFirstStepLeavesWhatItHadBegun) {
  EXPECT_EQ(128 + SIGKILL, statusOfChild([this] {
              Catalogue catalogue = started();
              catalogue.begin(clip);
              die();
            }));
  const Catalogue catalogue = opened();
  EXPECT_FALSE(catalogue.problem()) << *catalogue.problem();
  EXPECT_EQ(begun(), recordOf(catalogue, raid, "clip.mov"));
}

TEST_F(CatalogueTest, AProgramKilledAfterTheSecondStepLeavesTheProof) {
  EXPECT_EQ(128 + SIGKILL, statusOfChild([this] {
              proveClip();
              Catalogue catalogue = started();
              catalogue.prove(std::vector{fileAt(0, "other.mov", State::proved)});
              die();
            }));
  EXPECT_THAT(Catalogue::openForReading(path).recordsOf(raid, cardOf({"clip.mov", "other.mov"})),
              ElementsAre(recordIn(State::proved), recordIn(State::proved)));
}

TEST_F(CatalogueTest, AProgramKilledBeforeItsEndIsInTheHistoryWithoutOne) {
  EXPECT_EQ(128 + SIGKILL, statusOfChild([this] {
              const Catalogue catalogue = started();
              die();
            }));
  const std::vector<OffloadRecord> history = Catalogue::openForReading(path).history();
  ASSERT_EQ(1U, history.size());
  EXPECT_FALSE(history.front().ended);
}

// The history.

TEST_F(CatalogueTest, TheHistoryHasEveryRunTheLatestLast) {
  const OffloadRecord outcome{.ended = 1500,
                              .exitStatus = 2,
                              .files = 12'940,
                              .proved = 12'937,
                              .bytes = 1'020'000'000'000,
                              .verdict = "DO NOT ERASE: 3 of 12,940 files are not proved."};
  started().endOffload(outcome);
  Catalogue catalogue = opened();
  catalogue.startOffload("/media/other\xff", {shuttle}, 3000);
  const std::vector<OffloadRecord> history = catalogue.history();
  ASSERT_EQ(2U, history.size());
  EXPECT_LT(history[0].number, history[1].number);
  EXPECT_EQ("/media/card", history[0].card);
  EXPECT_EQ((Paths{raid, shuttle}), history[0].destinations);
  EXPECT_EQ(1000, history[0].started);
  EXPECT_EQ(1500, history[0].ended);
  EXPECT_EQ(2, history[0].exitStatus);
  EXPECT_EQ(12'940U, history[0].files);
  EXPECT_EQ(12'937U, history[0].proved);
  EXPECT_EQ(1'020'000'000'000U, history[0].bytes);
  EXPECT_EQ(outcome.verdict, history[0].verdict);
  EXPECT_EQ("/media/other\xff", history[1].card);
  EXPECT_EQ(Paths{shuttle}, history[1].destinations);
  EXPECT_FALSE(history[1].ended);
}

TEST_F(CatalogueTest, KnowsAllDestinationsOfACardEachOnce) {
  Catalogue catalogue = opened();
  catalogue.startOffload("/media/card", {raid}, 1000);
  catalogue.startOffload("/media/other", {"/mnt/elsewhere"}, 1000);
  catalogue.startOffload("/media/card", {shuttle, raid}, 2000);
  EXPECT_EQ((Paths{raid, shuttle}), catalogue.destinationsOf("/media/card"));
  EXPECT_THAT(catalogue.destinationsOf("/media/third"), IsEmpty());
}

TEST_F(CatalogueTest, ARunInTheHistoryThatMakesNoSenseIsLeftOut) {
  started().endOffload({.ended = 1});
  const std::string whole = readFile(path);
  for (const std::string nonsense :
       {"card = 'relative'", "card = 7", "started = 'x'", "ended = 'x'", "exitStatus = 256", "exitStatus = -1",
        "files = -1", "proved = -1", "bytes = 1.5", "verdict = 7"}) {
    ASSERT_EQ(1U, Catalogue::openForReading(path).history().size());
    change("UPDATE offloads SET " + nonsense);
    const Catalogue catalogue = Catalogue::openForReading(path);
    EXPECT_THAT(catalogue.history(), IsEmpty()) << nonsense;
    EXPECT_FALSE(catalogue.problem()) << nonsense;
    writeFile(path, whole);
  }
}

// Where it is.

TEST_F(CatalogueTest, StandsInTheStateFolder) {
  ::setenv("XDG_STATE_HOME", "/var/state", 1);
  EXPECT_EQ("/var/state/kdxoffload/catalogue.sqlite", Catalogue::defaultPath());
  ::setenv("XDG_STATE_HOME", "relative", 1);
  ::setenv("HOME", "/home/dit", 1);
  EXPECT_EQ("/home/dit/.local/state/kdxoffload/catalogue.sqlite", Catalogue::defaultPath());
  ::unsetenv("XDG_STATE_HOME");
  ::unsetenv("HOME");
  EXPECT_FALSE(Catalogue::defaultPath());
}

TEST_F(CatalogueTest, WithoutAPathNothingIsRemembered) {
  expectUseless(Catalogue::open("", noPatience), "no home folder");
  expectUseless(Catalogue::openForReading("", noPatience), "no home folder");
}

TEST_F(CatalogueTest, IsMadeWithTheFoldersAboveIt) {
  path = scratch.path() / "state" / "kdxoffload" / "catalogue.sqlite";
  proveClip();
  EXPECT_EQ(Paths{"state/kdxoffload/catalogue.sqlite"}, namesBelow(scratch.path()));
  EXPECT_EQ(recordIn(State::proved), recordOf(opened(), raid, "clip.mov"));
}

TEST_F(CatalogueTest, AtRestItIsOneFile) {
  proveClip();
  EXPECT_EQ(Paths{"catalogue.sqlite"}, namesBelow(scratch.path()));
}

TEST_F(CatalogueTest, TwoProgramsKeepItAtOnce) {
  Catalogue one = started();
  Catalogue other = opened();
  other.startOffload("/media/other", {raid}, 1000);
  one.begin(std::vector{fileAt(0, "one", State::proved)});
  other.begin(std::vector{fileAt(0, "other", State::proved)});
  one.prove(std::vector{fileAt(0, "one", State::proved)});
  other.prove(std::vector{fileAt(0, "other", State::proved)});
  EXPECT_FALSE(one.problem());
  EXPECT_FALSE(other.problem());
  EXPECT_THAT(Catalogue::openForReading(path).recordsOf(raid, cardOf({"one", "other"})),
              ElementsAre(recordIn(State::proved), recordIn(State::proved)));
}

TEST_F(CatalogueTest, OnAFileSystemOfThisMachineNobodyWhoLooksHoldsAnOffloadUp) {
  const ScratchDirectory inMemory("/dev/shm");
  path = inMemory.file("catalogue.sqlite");
  Catalogue catalogue = started();
  Database looking = Database::open(path, Database::Access::look, noPatience);
  looking.execute("BEGIN");
  ASSERT_EQ(0, looking.integer("SELECT count(*) FROM files"));
  catalogue.prove(clip);
  EXPECT_FALSE(catalogue.problem()) << *catalogue.problem();
  EXPECT_EQ(recordIn(State::proved), recordOf(catalogue, raid, "clip.mov"));
}

TEST_F(CatalogueTest, LookedUpWhileItIsMissingItIsEmptyAndStaysMissing) {
  const Catalogue catalogue = Catalogue::openForReading(path);
  EXPECT_FALSE(catalogue.problem());
  EXPECT_THAT(catalogue.history(), IsEmpty());
  EXPECT_EQ(FileRecord{}, recordOf(catalogue, raid, "clip.mov"));
  EXPECT_THAT(namesBelow(scratch.path()), IsEmpty());
}

TEST_F(CatalogueTest, LookedUpItRemembersNothingNew) {
  proveClip();
  const std::string before = readFile(path);
  {
    Catalogue catalogue = Catalogue::openForReading(path);
    catalogue.startOffload("/media/card", {raid}, 5000);
    catalogue.begin(clip);
    EXPECT_EQ(recordIn(State::proved), recordOf(catalogue, raid, "clip.mov"));
    EXPECT_FALSE(catalogue.problem());
  }
  EXPECT_EQ(before, readFile(path));
}

// Where it can't be kept.

TEST_F(CatalogueTest, AFileThatIsNoDatabaseIsLeftAsItIs) {
  const std::string bytes = mediaBytes(100 * KiB);
  writeFile(path, bytes);
  expectUseless("not a catalogue");
  EXPECT_EQ(bytes, readFile(path));
  EXPECT_EQ(Paths{"catalogue.sqlite"}, namesBelow(scratch.path()));
}

TEST_F(CatalogueTest, AnEmptyFileBecomesACatalogue) {
  writeFile(path, "");
  EXPECT_FALSE(Catalogue::openForReading(path).problem());
  proveClip();
  EXPECT_EQ(recordIn(State::proved), recordOf(opened(), raid, "clip.mov"));
}

TEST_F(CatalogueTest, AnotherProgramsDatabaseIsLeftAsItIs) {
  for (const std::string identity :
       {"CREATE TABLE files (a)", "PRAGMA application_id = 1", "PRAGMA user_version = 1"}) {
    std::filesystem::remove(path);
    change(identity);
    const std::string before = readFile(path);
    expectUseless("another program's database");
    EXPECT_EQ(before, readFile(path)) << identity;
  }
}

TEST_F(CatalogueTest, TheCatalogueOfANewerReleaseIsLeftAsItIs) {
  proveClip();
  change("PRAGMA user_version = 2");
  const std::string before = readFile(path);
  expectUseless("newer release");
  EXPECT_EQ(before, readFile(path));
}

TEST_F(CatalogueTest, ACatalogueWithoutItsTablesIsDamaged) {
  for (const std::string table : {"files", "destinations"}) {
    proveClip();
    change("DROP TABLE " + table);
    const Catalogue catalogue = Catalogue::openForReading(path);
    EXPECT_EQ(FileRecord{}, recordOf(catalogue, raid, "clip.mov"));
    ASSERT_TRUE(catalogue.problem()) << table;
    EXPECT_THAT(*catalogue.problem(), HasSubstr("damaged"));
    std::filesystem::remove(path);
  }
}

TEST_F(CatalogueTest, OneThatWasCutShortIsDamaged) {
  proveClip();
  const std::string whole = readFile(path);
  ASSERT_GT(whole.size(), 8192U);
  for (const std::size_t left : {whole.size() / 2, std::size_t{4096}, std::size_t{100}}) {
    std::filesystem::remove(path);
    writeFile(path, whole.substr(0, left));
    const Catalogue catalogue = opened();
    EXPECT_EQ(FileRecord{}, recordOf(catalogue, raid, "clip.mov")) << left;
    EXPECT_TRUE(catalogue.problem()) << left;
  }
}

TEST_F(CatalogueTest, NoByteThatWasDamagedMakesAProof) {
  constexpr std::size_t step = 61;
  {
    Catalogue catalogue = started();
    catalogue.begin(clip);
  }
  const std::string whole = readFile(path);
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  const auto put = [&](std::size_t offset, char byte) {
    file.seekp(static_cast<std::streamoff>(offset)).put(byte).flush();
  };
  for (std::size_t offset = 0; offset < whole.size(); offset += step) {
    put(offset, static_cast<char>(whole[offset] ^ 0x03));
    const State state = recordOf(Catalogue::openForReading(path, noPatience), raid, "clip.mov").state;
    EXPECT_TRUE(state == State::none || state == State::begun) << offset;
    put(offset, whole[offset]);
  }
  EXPECT_EQ(begun(), recordOf(Catalogue::openForReading(path), raid, "clip.mov"));
}

TEST_F(CatalogueTest, OneThatIsLockedIsGivenUp) {
  proveClip();
  Database holder = databaseAt(path);
  holder.execute("BEGIN EXCLUSIVE");
  expectUseless(opened(), "locked by another program");
}

TEST_F(CatalogueTest, OneThatIsLockedInTheMiddleIsGivenUp) {
  Catalogue catalogue = started();
  catalogue.begin(std::vector{fileAt(0, "a", State::proved)});
  Database holder = databaseAt(path);
  holder.execute("BEGIN IMMEDIATE");
  ASSERT_FALSE(holder.hasFailed());
  catalogue.prove(std::vector{fileAt(0, "a", State::proved)});
  expectUseless(std::move(catalogue), "locked by another program");
}

TEST_F(CatalogueTest, ALockIsWaitedFor) {
  proveClip();
  Database holder = databaseAt(path);
  holder.execute("BEGIN EXCLUSIVE");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(Catalogue::open(path, std::chrono::milliseconds(200)).problem());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

TEST_F(CatalogueTest, SomethingElseAtItsNameIsNoCatalogue) {
  std::filesystem::create_directory(path);
  expectUseless("no file");
  std::filesystem::remove(path);
  ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
  expectUseless("no file");
}

TEST_F(CatalogueTest, WhereItsFolderCanNotBeMadeNothingIsRemembered) {
  writeFile(scratch.file("taken"), "");
  path = scratch.file("taken") + "/kdxoffload/catalogue.sqlite";
  expectUseless(opened(), "taken");
  path = "/proc/nowhere/catalogue.sqlite";
  expectUseless(opened(), "/proc");
}

TEST_F(CatalogueTest, OnAReadOnlyFileSystemNothingIsRememberedButAllIsRead) {
  std::string whyNot;
  const auto writable = MountedFileSystem::mount("tmpfs", 4 * MiB, whyNot);
  if (!writable) GTEST_SKIP() << whyNot;
  path = writable->file("catalogue.sqlite");
  proveClip();
  ASSERT_EQ(0, std::system(("mount -o remount,ro " + writable->path().string()).c_str()));
  const Catalogue looked = Catalogue::openForReading(path);
  EXPECT_FALSE(looked.problem()) << *looked.problem();
  EXPECT_EQ(recordIn(State::proved), recordOf(looked, raid, "clip.mov"));
  expectUseless(opened(), "read-only");
  path = writable->file("new.sqlite");
  expectUseless(opened(), "");
}

TEST_F(CatalogueTest, OnAFileSystemThatIsFullFromTheStartNothingIsRemembered) {
  std::string whyNot;
  const auto small = MountedFileSystem::mount("tmpfs", MiB, whyNot);
  if (!small) GTEST_SKIP() << whyNot;
  path = small->file("catalogue.sqlite");
  std::system(("head -c 2M /dev/zero >" + small->file("filler") + " 2>/dev/null").c_str());
  expectUseless(opened(), "full");
}

TEST_F(CatalogueTest, OnAFileSystemThatBecomesFullTheRunGoesOnWithoutIt) {
  std::string whyNot;
  const auto small = MountedFileSystem::mount("tmpfs", MiB, whyNot);
  if (!small) GTEST_SKIP() << whyNot;
  path = small->file("catalogue.sqlite");
  Catalogue catalogue = started();
  catalogue.prove(clip);
  ASSERT_FALSE(catalogue.problem()) << *catalogue.problem();
  std::vector<FileOfRecord> files(20'000);
  for (std::size_t index = 0; index < files.size(); ++index) {
    files[index].path = std::to_string(index) + std::string(100, 'x');
  }
  catalogue.begin(files);
  expectUseless(std::move(catalogue), "full");
  const Catalogue again = Catalogue::openForReading(path);
  EXPECT_EQ(recordIn(State::proved), recordOf(again, raid, "clip.mov")) << again.problem().value_or("");
  EXPECT_EQ(FileRecord{}, recordOf(again, raid, files.front().path));
}
