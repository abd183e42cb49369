#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "KDXFileTools/kdxoffload/ContinuedChains.h"
#include "KDXFileTools/kdxoffload/Lister.h"
#include "tests/kdxoffload/HistoryOnDisk.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string first = "0001_A001_2023-11-14_221320Z.mhl";

class ContinuedChains : public testing::Test {
 protected:
  static kdxoffload::HashList list(const std::string& path) {
    return HistoryOnDisk::listOf({HistoryOnDisk::file(path, HistoryOnDisk::abcd)});
  }
  // Paths on the card.
  [[nodiscard]] std::vector<std::string> continued() const {
    const auto card = platform::Folder::open(scratch.file("card"), nullptr).value();
    const auto destination = platform::Folder::open(scratch.file("a"), nullptr).value();
    const kdxoffload::Listing listing = kdxoffload::listTree(card, kdxoffload::ExcludePatterns(), {});
    std::vector<std::string> paths;
    const auto found =
        kdxoffload::continuedChains(card, listing, destination, kdxoffload::listDestination(destination, listing, {}));
    for (const kdxoffload::EntryIndex index : found) paths.push_back(listing.pathOf(index));
    return paths;
  }

  ScratchDirectory scratch;
  HistoryOnDisk onCard{scratch.path() / "card"};
  HistoryOnDisk there{scratch.path() / "a"};
};

}  // namespace

TEST_F(ContinuedChains, AChainThatBeginsWithTheCardsIsTheCardsFileKept) {
  onCard.add(first, list("clip.mov")).writeChain();
  there.add(first, list("clip.mov")).add("0002_A001_2023-11-15_221320Z.mhl", list("clip.mov")).writeChain();
  EXPECT_THAT(continued(), ElementsAre("ascmhl/ascmhl_chain.xml"));
}

TEST_F(ContinuedChains, OneFurtherDownIsFoundToo) {
  const auto fill = [](HistoryOnDisk history) { return history.add(first, list("clip.mov")); };
  fill(HistoryOnDisk(scratch.path() / "card/DAY1")).writeChain();
  fill(HistoryOnDisk(scratch.path() / "a/DAY1")).add("0002_x.mhl", list("b.mov")).writeChain();
  EXPECT_THAT(continued(), ElementsAre("DAY1/ascmhl/ascmhl_chain.xml"));
}

TEST_F(ContinuedChains, TheSameChainIsComparedLikeAnyFile) {
  onCard.add(first, list("clip.mov")).writeChain();
  there.add(first, list("clip.mov")).writeChain();
  EXPECT_THAT(continued(), IsEmpty());
}

TEST_F(ContinuedChains, OneThatBeginsOtherwiseIsAnotherFile) {
  onCard.add(first, list("clip.mov")).writeChain();
  there.add(first, list("another.mov")).add("0002_x.mhl", list("clip.mov")).writeChain();
  EXPECT_THAT(continued(), IsEmpty());
}

TEST_F(ContinuedChains, AShorterOneIsAnotherFile) {
  onCard.add(first, list("clip.mov")).add("0002_x.mhl", list("clip.mov")).writeChain();
  there.add(first, list("clip.mov")).writeChain();
  EXPECT_THAT(continued(), IsEmpty());
}

TEST_F(ContinuedChains, WhatIsNoChainIsAnotherFile) {
  onCard.add(first, list("clip.mov")).writeChain();
  writeFile(there.path("ascmhl_chain.xml"), "no chain");
  EXPECT_THAT(continued(), IsEmpty());
}
