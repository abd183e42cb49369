#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/NameClashes.h"
#include "tests/kdxoffload/TreeInMemory.h"

using namespace kdxoffload;
using platform::NameFolding;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::string> markedIn(const Listing& card, const std::vector<bool>& marked) {
  std::vector<std::string> paths;
  for (EntryIndex index = 0; index < card.entries.size(); ++index) {
    if (marked[index]) paths.push_back(card.pathOf(index));
  }
  return paths;
}

}  // namespace

TEST(NameClashes, NamesOfOneFolderThatDifferInCaseAloneClash) {
  const Listing card = TreeInMemory(1).file("a/clip.mov").file("a/Clip.MOV").file("b/clip.mov").file("c").listing();
  const NameClashes clashes = findNameClashes(card);
  EXPECT_THAT(markedIn(card, entriesOfOneName(card, clashes, NameFolding::caseless)),
              ElementsAre("a/Clip.MOV", "a/clip.mov"));
  EXPECT_THAT(markedIn(card, entriesOfOneName(card, clashes, NameFolding::exact)), IsEmpty());
}

TEST(NameClashes, FormsOfUnicodeClashOnlyWhereTheyAreOne) {
  const Listing card = TreeInMemory(1).file("caf\u00e9").file("cafe\u0301").listing();
  const NameClashes clashes = findNameClashes(card);
  EXPECT_EQ(2U, markedIn(card, entriesOfOneName(card, clashes, NameFolding::unicode)).size());
  EXPECT_THAT(markedIn(card, entriesOfOneName(card, clashes, NameFolding::caseless)), IsEmpty());
}

TEST(NameClashes, ADestinationShowsThatItTakesTwoNamesForOne) {
  const Listing card = TreeInMemory(1).file("A").file("a").file("B").file("b").file("C").file("D").listing();
  TreeInMemory there(2);
  there.file("A").sameAs("a", there, "A").file("B").file("b").file("C").sameAs("D", there, "C");
  EXPECT_THAT(markedIn(card, entriesTakenForOne(findNameClashes(card), there.underNamesOf(card))),
              ElementsAre("A", "a"));
}

TEST(NameClashes, FilesThatCouldGetOneTemporaryFileGetAliases) {
  const Listing card = TreeInMemory(1)
                           .file("A/x.mov")
                           .file("a/y.mov")
                           .file("b/clip.mov")
                           .file("b/CLIP.mov.kdxcopy")
                           .file("b/other.mov")
                           .file("c/\xff.mov")
                           .listing();
  EXPECT_THAT(markedIn(card, filesThatNeedAliases(card, findNameClashes(card))),
              ElementsAre("A/x.mov", "a/y.mov", "b/CLIP.mov.kdxcopy", "b/clip.mov", "c/\xff.mov"));
}
