#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "KDXFileTools/kdxoffload/Preflight.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ScratchDirectory.h"

using namespace kdxoffload;
using platform::NameFolding;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr uint64_t MB = 1'000'000;

// A folder at the top of a disk of its own, with plenty of room.
PlaceFacts folderOnDisk(const std::string& path, uint64_t disk) {
  return {.path = path,
          .realPath = path,
          .exists = true,
          .isFolder = true,
          .isReadable = true,
          .isWritable = true,
          .parentExists = true,
          .identity = {.device = disk, .inode = 2},
          .foldersAbove = {{.device = 1, .inode = 2}},
          .volume = {.device = disk, .disk = disk, .blockSize = 4096, .freeBytes = 1'000 * MB, .freeInodes = 1'000}};
}

PreflightFacts cardAndTwoDisks() {
  return {.card = folderOnDisk("/card", 10), .destinations = {folderOnDisk("/a", 11), folderOnDisk("/b", 12)}};
}

// One that is to be made in the folder.
PlaceFacts toBeMadeIn(const PlaceFacts& parent, const std::string& name) {
  PlaceFacts place = parent;
  place.path = place.realPath = parent.path + '/' + name;
  place.exists = place.isFolder = place.isReadable = false;
  place.foldersAbove.push_back(parent.identity);
  return place;
}

std::vector<std::string> refusalsOf(const PreflightFacts& facts) {
  return preflight(facts).refusals;
}

}  // namespace

TEST(Preflight, ACardAndDestinationsOnDisksOfTheirOwnAreFine) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.room = {{.bytes = 900 * MB, .inodes = 900}, {.bytes = 900 * MB, .inodes = 900}};
  const Preflight found = preflight(facts);
  EXPECT_THAT(found.refusals, IsEmpty());
  EXPECT_THAT(found.warnings, IsEmpty());
}

TEST(Preflight, ACardThatIsMissingNoFolderOrUnreadableIsRefused) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.card.isReadable = false;
  EXPECT_THAT(refusalsOf(facts), ElementsAre("the card can't be read: /card"));
  facts.card.isFolder = false;
  EXPECT_THAT(refusalsOf(facts), ElementsAre("the card is no folder: /card"));
  facts.card.exists = false;
  EXPECT_THAT(refusalsOf(facts), ElementsAre("there is no card at /card"));
}

TEST(Preflight, NeitherMayBeInsideTheOther) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.card.foldersAbove.push_back(facts.destinations[0].identity);
  EXPECT_THAT(refusalsOf(facts), ElementsAre("the card /card is inside the destination /a"));
  facts = cardAndTwoDisks();
  facts.destinations[1].foldersAbove.push_back(facts.card.identity);
  EXPECT_THAT(refusalsOf(facts), ElementsAre("the destination /b is inside the card /card"));
  facts = cardAndTwoDisks();
  facts.destinations[1].identity = facts.card.identity;
  EXPECT_THAT(refusalsOf(facts), ElementsAre("the destination /b is the card itself"));
  facts = cardAndTwoDisks();
  facts.destinations[1].foldersAbove.push_back(facts.destinations[0].identity);
  EXPECT_THAT(refusalsOf(facts), ElementsAre("the destination /b is inside the destination /a"));
}

TEST(Preflight, ADestinationToBeMadeOnTheCardIsInsideIt) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.destinations[0] = toBeMadeIn(facts.card, "new");
  EXPECT_THAT(refusalsOf(facts), ElementsAre("the destination /card/new is inside the card /card"));
}

TEST(Preflight, TheSameDestinationTwiceIsRefusedUnderAnyName) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.destinations[1].identity = facts.destinations[0].identity;
  EXPECT_THAT(refusalsOf(facts), ElementsAre("/a and /b are the same destination"));
}

TEST(Preflight, TwoToBeMadeInOneFolderAreTheSameByTheirNames) {
  const PlaceFacts disk = folderOnDisk("/a", 11);
  PreflightFacts facts = cardAndTwoDisks();
  facts.destinations = {toBeMadeIn(disk, "Day1"), toBeMadeIn(disk, "day1")};
  for (PlaceFacts& place : facts.destinations) place.volume.names = NameFolding::exact;
  EXPECT_THAT(refusalsOf(facts), IsEmpty());
  for (PlaceFacts& place : facts.destinations) place.volume.names = NameFolding::caseless;
  EXPECT_THAT(refusalsOf(facts), ElementsAre("/a/Day1 and /a/day1 may be one name there; make both folders first"));
  facts.destinations[1] = facts.destinations[0];
  EXPECT_THAT(refusalsOf(facts), ElementsAre("/a/Day1 and /a/Day1 are the same destination"));
}

TEST(Preflight, ADestinationThatCannotBeMadeOrWrittenIsRefused) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.destinations[0].isFolder = false;
  EXPECT_THAT(refusalsOf(facts), ElementsAre("the destination is no folder: /a"));
  facts = cardAndTwoDisks();
  facts.destinations[0].exists = facts.destinations[0].parentExists = false;
  EXPECT_THAT(refusalsOf(facts), ElementsAre("the folder that the destination /a is to be made in does not exist"));
  facts = cardAndTwoDisks();
  facts.destinations[0].isWritable = false;
  EXPECT_THAT(refusalsOf(facts), ElementsAre("the destination /a can't be written"));
  facts.destinations[0].volume.isReadOnly = true;
  EXPECT_THAT(refusalsOf(facts), ElementsAre("the file system of the destination /a is read-only"));
}

TEST(Preflight, RoomIsNeededForTheCopiesAndOnePercentMore) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.destinations[0].volume.freeBytes = 101 * MB;
  facts.room = {{.bytes = 100 * MB}, {.bytes = 100 * MB}};
  EXPECT_THAT(refusalsOf(facts), IsEmpty());
  facts.destinations[0].volume.freeBytes -= 1;
  EXPECT_THAT(refusalsOf(facts), ElementsAre(HasSubstr("too little room on /a: ")));
}

TEST(Preflight, FreeInodesAreNeeded) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.room = {{.inodes = 1'000}, {.inodes = 1'001}};
  EXPECT_THAT(refusalsOf(facts), ElementsAre(HasSubstr("too few files can be made on /b: ")));
}

TEST(Preflight, DestinationsOnOneFileSystemShareItsRoom) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.destinations[1].volume = facts.destinations[0].volume;
  facts.room = {{.bytes = 500 * MB}, {.bytes = 500 * MB}};
  EXPECT_THAT(refusalsOf(facts), ElementsAre(HasSubstr("too little room on /a and /b: ")));
}

TEST(Preflight, AFileSystemThatSaysNothingOfItsRoomIsNotJudgedByIt) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.destinations[0].volume = {.device = 11, .disk = 11};
  facts.room = {{.bytes = 5'000 * MB}, {}};
  EXPECT_THAT(refusalsOf(facts), IsEmpty());
}

TEST(Preflight, AFolderOfTheCardThatCannotBeReadIsRefusedUnlessAPartWillDo) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.unlisted = {{.path = "DCIM", .error = EACCES, .isFolder = true}};
  EXPECT_THAT(refusalsOf(facts), ElementsAre("a folder of the card can't be read: DCIM: Permission denied"));
  facts.partial = true;
  EXPECT_THAT(refusalsOf(facts), IsEmpty());
}

TEST(Preflight, ThousandsThatCannotBeReadAreNotThousandsOfLines) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.unlisted.assign(5'000, {.path = "x", .error = EIO});
  EXPECT_EQ(21U, refusalsOf(facts).size());
}

TEST(Preflight, ACatalogueOnTheCardIsRefused) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.catalogueFolders = {facts.destinations[0].identity};
  EXPECT_THAT(refusalsOf(facts), IsEmpty());
  facts.catalogueFolders = {facts.card.identity};
  EXPECT_THAT(refusalsOf(facts), ElementsAre(HasSubstr("the catalogue is on the card")));
}

TEST(Preflight, AnotherOffloadAtWorkOnADestinationIsRefused) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.destinations[1].isLockedByOther = true;
  EXPECT_THAT(refusalsOf(facts), ElementsAre("another offload is at work on the destination /b"));
}

TEST(Preflight, AllReasonsAreGivenAtOnce) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.destinations[0].isWritable = false;
  facts.destinations[1].isLockedByOther = true;
  EXPECT_EQ(2U, refusalsOf(facts).size());
}

TEST(Preflight, OneDiskForTwoThingsIsAWarning) {
  PreflightFacts facts = cardAndTwoDisks();
  facts.destinations[0].volume.isOnSystemDisk = true;
  facts.destinations[1].volume.disk = facts.card.volume.disk;
  EXPECT_THAT(preflight(facts).warnings,
              ElementsAre("the destination /a is on the system's disk", "the destination /b is on the card's disk"));
  facts = cardAndTwoDisks();
  facts.destinations[1].volume.disk = facts.destinations[0].volume.disk;
  const Preflight found = preflight(facts);
  EXPECT_THAT(found.warnings, ElementsAre("the destinations /a and /b are on one disk"));
  EXPECT_THAT(found.refusals, IsEmpty());
}

TEST(Preflight, DisksThatAreNotKnownAreNoWarning) {
  PreflightFacts facts = cardAndTwoDisks();
  for (PlaceFacts* place : {&facts.card, &facts.destinations[0], &facts.destinations[1]}) place->volume.disk = 0;
  EXPECT_THAT(preflight(facts).warnings, IsEmpty());
}

namespace {

class PlaceFactsOnDisk : public testing::Test {
 protected:
  [[nodiscard]] std::string path(const std::string& name) const { return _scratch.file(name); }
  [[nodiscard]] std::string folder(const std::string& name) const {
    std::filesystem::create_directories(path(name));
    return path(name);
  }

 private:
  ScratchDirectory _scratch;
};

bool isAbove(const PlaceFacts& folder, const PlaceFacts& place) {
  return std::ranges::find(place.foldersAbove, folder.identity) != place.foldersAbove.end();
}

}  // namespace

TEST_F(PlaceFactsOnDisk, AFolderIsSeenThroughLinksAndWithSlashesBehind) {
  const std::string card = folder("card");
  std::filesystem::create_directory_symlink(card, path("link"));
  const PlaceFacts direct = placeFacts(card);
  const PlaceFacts other = placeFacts(path("link") + "//");
  EXPECT_TRUE(direct.exists && direct.isFolder && direct.isReadable && direct.isWritable && direct.parentExists);
  EXPECT_FALSE(direct.isLockedByOther);
  EXPECT_EQ(direct.identity, other.identity);
  EXPECT_EQ(direct.realPath, other.realPath);
  EXPECT_FALSE(direct.volume.fileSystem.empty());
}

TEST_F(PlaceFactsOnDisk, FoldersAboveAreThoseOfThePlaceAndNotOfTheLink) {
  const PlaceFacts above = placeFacts(folder("real"));
  const PlaceFacts beside = placeFacts(folder("links"));
  std::filesystem::create_directory_symlink(folder("real/a/b"), path("links/b"));
  const PlaceFacts place = placeFacts(path("links/b"));
  EXPECT_TRUE(isAbove(above, place));
  EXPECT_TRUE(isAbove(placeFacts("/"), place));
  EXPECT_FALSE(isAbove(beside, place));
  EXPECT_FALSE(isAbove(place, place));
}

TEST_F(PlaceFactsOnDisk, OfAPlaceToBeMadeItsParentIsLookedAtAndNothingIsMade) {
  const PlaceFacts parent = placeFacts(folder("disk"));
  const PlaceFacts place = placeFacts(path("disk") + "/new/");
  EXPECT_FALSE(place.exists);
  EXPECT_TRUE(place.parentExists && place.isWritable);
  EXPECT_EQ(parent.realPath + "/new", place.realPath);
  EXPECT_EQ(parent.identity, place.identity);
  EXPECT_TRUE(isAbove(parent, place));
  EXPECT_EQ(parent.volume.device, place.volume.device);
  EXPECT_FALSE(std::filesystem::exists(path("disk") + "/new"));
}

TEST_F(PlaceFactsOnDisk, APlaceWithoutAParentAFileAndALinkToNowhereAreWhatTheyAre) {
  const PlaceFacts lost = placeFacts(folder("disk") + "/missing/new");
  EXPECT_FALSE(lost.exists || lost.parentExists);
  writeFile(path("file"), "");
  const PlaceFacts file = placeFacts(path("file"));
  EXPECT_TRUE(file.exists && !file.isFolder);
  std::filesystem::create_symlink("nowhere", path("link"));
  const PlaceFacts link = placeFacts(path("link"));
  EXPECT_TRUE(link.exists && !link.isFolder);
}

TEST_F(PlaceFactsOnDisk, TheFoldersOfACatalogueAreKnownThroughLinksAndBeforeTheyAreMade) {
  const auto card = platform::identityOfFile(folder("card")).value();
  std::filesystem::create_directory_symlink(folder("card/state"), path("link"));
  writeFile(path("card/other.sqlite"), "");
  std::filesystem::create_symlink(path("card/other.sqlite"), path("c.sqlite"));
  for (const char* catalogue : {"card/c.sqlite", "card/state/missing/c.sqlite", "link/c.sqlite", "c.sqlite"}) {
    EXPECT_THAT(foldersOfCatalogue(path("") + catalogue), testing::Contains(card)) << catalogue;
  }
  EXPECT_THAT(foldersOfCatalogue(path("elsewhere.sqlite")), testing::Not(testing::Contains(card)));
}

TEST_F(PlaceFactsOnDisk, ALockIsSeenAndNoneIsLeft) {
  const auto holder = platform::Folder::open(folder("disk"), nullptr);
  EXPECT_FALSE(placeFacts(path("disk")).isLockedByOther);
  ASSERT_TRUE(holder->lock(nullptr));
  EXPECT_TRUE(placeFacts(path("disk")).isLockedByOther);
}

TEST_F(PlaceFactsOnDisk, WhatThisUserMayNotDoIsKnown) {
  constexpr uid_t somebodyElse = 65534;
  const std::string closed = folder("closed");
  std::filesystem::permissions(std::filesystem::path(closed).parent_path(), std::filesystem::perms(0755));
  ASSERT_EQ(0, ::chmod(closed.c_str(), 0555));
  const int status = statusOfChild([&] {
    if (::geteuid() == 0 && ::setresuid(somebodyElse, somebodyElse, somebodyElse) != 0) ::_exit(1);
    const PlaceFacts facts = placeFacts(closed);
    if (!facts.isReadable || facts.isWritable) ::_exit(2);
    ::_exit(placeFacts(closed + "/new").isWritable ? 3 : 0);
  });
  EXPECT_EQ(0, status);
}

TEST_F(PlaceFactsOnDisk, ABindMountHidesNoFolderAbove) {
  const PlaceFacts destination = placeFacts(folder("destination"));
  const std::string card = folder("destination/deep/card");
  const std::string elsewhere = folder("elsewhere");
  if (::mount(card.c_str(), elsewhere.c_str(), nullptr, MS_BIND, nullptr) != 0) GTEST_SKIP() << "needs root to mount";
  const PlaceFacts seen = placeFacts(elsewhere);
  ASSERT_EQ(0, ::umount(elsewhere.c_str()));
  EXPECT_TRUE(isAbove(destination, seen));
  EXPECT_EQ(placeFacts(card).identity, seen.identity);
}
