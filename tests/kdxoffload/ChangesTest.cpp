#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/Changes.h"

using kdxoffload::Changes;
using kdxoffload::changesOfCard;
using kdxoffload::Entry;
using kdxoffload::EntryIndex;
using kdxoffload::Listing;
using platform::ItemKind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using Sentences = std::vector<std::string>;

// day1/ with a clip and a link in it, and a note beside.
Listing card() {
  Listing listing;
  listing.entries = {
      {.name = "day1", .facts = {.kind = ItemKind::folder, .mode = 0755, .size = 4096, .modified = 1}},
      {.name = "note.txt", .facts = {.kind = ItemKind::file, .mode = 0644, .size = 10, .modified = 2}},
      {.parent = 0, .name = "clip.mov", .facts = {.kind = ItemKind::file, .mode = 0644, .size = 1000, .modified = 3}},
      {.parent = 0, .name = "latest", .facts = {.kind = ItemKind::link, .mode = 0777, .size = 8, .modified = 4}},
      {.parent = 0, .name = "pipe", .facts = {.kind = ItemKind::other, .mode = 0644, .modified = 5}}};
  listing.linkTargets = {{3, "clip.mov"}};
  return listing;
}

Sentences changesTo(const Listing& after) {
  return changesOfCard(card(), after).sentences();
}

}  // namespace

TEST(Changes, OfACardThatIsTheSameThereAreNone) {
  EXPECT_THAT(changesTo(card()), IsEmpty());
  EXPECT_TRUE(changesOfCard({}, {}).empty());
}

TEST(Changes, AreNoneInWhatReadingChangesOrAFileSystemMakesUp) {
  Listing after = card();
  after.entries[0].facts.size = 8192;
  after.entries[3].facts.modified = 9;
  after.entries[4].facts.modified = 9;
  for (Entry& entry : after.entries) entry.facts.identity = {.device = 1, .inode = 99};
  EXPECT_THAT(changesTo(after), IsEmpty());
}

TEST(Changes, ASizeATimeAModeOrAKindIsAChange) {
  for (const auto change :
       {+[](Entry& entry) { ++entry.facts.size; }, +[](Entry& entry) { ++entry.facts.modified; },
        +[](Entry& entry) { entry.facts.mode = 0600; }, +[](Entry& entry) { entry.facts.kind = ItemKind::other; }}) {
    Listing after = card();
    change(after.entries[2]);
    EXPECT_THAT(changesTo(after), ElementsAre("day1/clip.mov changed on the card meanwhile."));
  }
}

TEST(Changes, AFolderInWhichSomethingWasDoneIsAChange) {
  Listing after = card();
  ++after.entries[0].facts.modified;
  EXPECT_THAT(changesTo(after), ElementsAre("day1 changed on the card meanwhile."));
}

TEST(Changes, ALinkThatLeadsElsewhereIsAChange) {
  Listing after = card();
  after.linkTargets[3] = "note.txt";
  EXPECT_THAT(changesTo(after), ElementsAre("day1/latest changed on the card meanwhile."));
}

TEST(Changes, WhatCameAndWhatWentIsNamed) {
  Listing after = card();
  after.entries.erase(after.entries.begin() + 1);
  for (Entry& entry : after.entries) {
    if (entry.parent != Entry::root) entry.parent = 0;
  }
  after.linkTargets = {{2, "clip.mov"}};
  after.entries.push_back({.parent = 0, .name = "new\n.mov", .facts = {.kind = ItemKind::file}});
  EXPECT_THAT(changesTo(after),
              ElementsAre("note.txt is not on the card any more.", "day1/new\n.mov came to the card meanwhile."));
}

TEST(Changes, AFolderThatWentTookWhatWasInIt) {
  Listing after = card();
  after.entries.erase(after.entries.begin() + 2, after.entries.end());
  after.entries.erase(after.entries.begin());
  after.linkTargets.clear();
  EXPECT_EQ(4U, changesTo(after).size());
}

TEST(Changes, AFolderThatIsMovedIsGoneAndAnotherCame) {
  Listing after = card();
  after.entries[0].name = "day2";
  EXPECT_EQ(8U, changesTo(after).size());
}

TEST(Changes, ACardThatIsGoneIsOneChange) {
  EXPECT_THAT(changesTo({}), ElementsAre(HasSubstr("Nothing is on the card any more")));
}

TEST(Changes, WhatCanNotBeListedAnyMoreIsAChange) {
  Listing after = card();
  after.unlisted.push_back({.path = "day1", .error = 5, .isFolder = true});
  EXPECT_THAT(changesTo(after), ElementsAre("day1 on the card can't be listed any more."));
  Listing before = after;
  EXPECT_TRUE(changesOfCard(before, after).empty());
}

TEST(Changes, WhatIsLeftOutMayNotComeOrGoEither) {
  Listing excluding = card();
  excluding.excluded = {"thumbs"};
  EXPECT_THAT(changesTo(excluding), ElementsAre(HasSubstr("thumbs came to the card meanwhile")));
  EXPECT_THAT(changesOfCard(excluding, card()).sentences(), ElementsAre(HasSubstr("thumbs")));
  EXPECT_TRUE(changesOfCard(excluding, excluding).empty());
}

TEST(Changes, OfVeryManyTheFirstAreNamedAndTheOthersCounted) {
  Changes changes;
  for (int number = 0; number < 1101; ++number) changes.add(std::to_string(number));
  EXPECT_EQ(101U, changes.sentences().size());
  EXPECT_EQ("0", changes.sentences().front());
  EXPECT_EQ("1,001 more changes.", changes.sentences().back());
}
