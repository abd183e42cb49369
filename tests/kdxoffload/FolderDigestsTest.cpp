#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/FolderDigests.h"
#include "digest/KDXDigestContext.h"
#include "tests/kdxoffload/TreeInMemory.h"
#include "tests/support/ScratchDirectory.h"

using kdxoffload::EntryIndex;
using kdxoffload::FileDigest;
using kdxoffload::FolderDigests;
using kdxoffload::Listing;

namespace {

using Found = std::vector<std::optional<FolderDigests>>;

FileDigest xxh64(const std::string& hex) {
  return FileDigest::fromText("XXHash64BE:" + hex).value();
}

FolderDigests pair(const std::string& content, const std::string& structure) {
  return {.content = xxh64(content), .structure = xxh64(structure)};
}

const std::string abcd = "0ea03b369a463d9d";  // of "abcd" and a newline
const std::string def = "7680e5f98f4a80fd";
const std::string sidecar = "3ab5a4166b9bde44";
const std::string nothing = "ef46db3751d8e999";

// Published: what all tools have to find for this tree.
const FolderDigests clips = pair("4c226b42e27d7af3", "906faa843d591a9f");
const FolderDigests root = pair("8d02114c32e28cbe", "f557f8ca8e5a88ef");

// A tree with digests, and what is to be left out of it.
class Tree {
 public:
  Tree& file(const std::string& path, const std::string& hex) {
    _tree.file(path);
    _digests[path] = hex;
    return *this;
  }
  TreeInMemory& tree() { return _tree; }
  Tree& ignore(const std::string& path) {
    _ignored.push_back(path);
    return *this;
  }
  Tree& unlisted(const std::string& path) {
    _unlisted.push_back({.path = path, .error = 13});
    return *this;
  }

  // Of the folder at the path, "" for the tree's own.
  [[nodiscard]] std::optional<FolderDigests> of(const std::string& path) const {
    Listing listing = _tree.listing();
    listing.unlisted = _unlisted;
    std::vector<FileDigest> digests(listing.entries.size());
    std::vector<bool> ignored(listing.entries.size());
    for (const auto& [file, hex] : _digests) digests[TreeInMemory::indexOf(listing, file)] = xxh64(hex);
    for (const auto& entry : _ignored) ignored[TreeInMemory::indexOf(listing, entry)] = true;
    const Found found = FolderDigests::of(listing, digests, ignored, KDXDigestAlgorithmXXHash64BE);
    EXPECT_EQ(listing.entries.size() + 1, found.size());
    return path.empty() ? found.back() : found[TreeInMemory::indexOf(listing, path)];
  }

 private:
  TreeInMemory _tree{1};
  std::map<std::string, std::string> _digests;
  std::vector<std::string> _ignored;
  std::vector<kdxoffload::Unlisted> _unlisted;
};

Tree card() {
  Tree tree;
  tree.file("Clips/A002C006_141024_R2EC.mov", abcd);
  tree.file("Clips/A002C007_141024_R2EC.mov", def);
  tree.file("Sidecar.txt", sidecar);
  return tree;
}

}  // namespace

TEST(FolderDigests, AgreeWithTheKnownOnes) {
  EXPECT_EQ(clips, card().of("Clips"));
  EXPECT_EQ(root, card().of(""));
}

TEST(FolderDigests, WhatIsNoFolderHasNone) {
  EXPECT_FALSE(card().of("Sidecar.txt"));
}

TEST(FolderDigests, AnEmptyFolderHasTheDigestOfNothing) {
  Tree tree;
  tree.tree().folder("empty");
  EXPECT_EQ(pair(nothing, nothing), tree.of("empty"));
  EXPECT_EQ(pair(nothing, nothing), Tree().of(""));
}

// Digests by the system's own program, put together by hand.
TEST(FolderDigests, AFolderOfOneFileIsAsTheSystemsProgramTells) {
  const ScratchDirectory scratch;
  const std::string raw("\x0e\xa0\x3b\x36\x9a\x46\x3d\x9d", 8);
  writeFile(scratch.file("content"), raw);
  const std::string content = digestByProgram("xxh64sum", scratch.file("content"));
  writeFile(scratch.file("named"), "clip.mov" + raw);
  std::string rawNamed;
  for (std::string hex = digestByProgram("xxh64sum", scratch.file("named")); !hex.empty(); hex.erase(0, 2)) {
    rawNamed += static_cast<char>(std::stoi(hex.substr(0, 2), nullptr, 16));
  }
  writeFile(scratch.file("structure"), rawNamed);
  EXPECT_EQ(pair(content, digestByProgram("xxh64sum", scratch.file("structure"))),
            Tree().file("clip.mov", abcd).of(""));
}

TEST(FolderDigests, ARenamedFileChangesTheStructureAlone) {
  const auto before = Tree().file("a", abcd).file("b", def).of("");
  const auto after = Tree().file("a", abcd).file("c", def).of("");
  EXPECT_EQ(before->content, after->content);
  EXPECT_NE(before->structure, after->structure);
}

TEST(FolderDigests, WhatIsIgnoredTakesNoPart) {
  Tree tree = card();
  tree.file("Clips/.DS_Store", "0000000000000001").ignore("Clips/.DS_Store");
  tree.tree().file("ascmhl/0001_card.mhl").folder("ascmhl/deep");
  tree.ignore("ascmhl");
  EXPECT_EQ(clips, tree.of("Clips"));
  EXPECT_EQ(root, tree.of(""));
  EXPECT_FALSE(tree.of("ascmhl"));
  EXPECT_FALSE(tree.of("ascmhl/deep"));
}

TEST(FolderDigests, LinksTakeNoPart) {
  Tree tree = card();
  tree.tree().link("Clips/latest", "A002C007_141024_R2EC.mov");
  EXPECT_EQ(clips, tree.of("Clips"));
  EXPECT_EQ(root, tree.of(""));
}

TEST(FolderDigests, AFileWithoutADigestLeavesNoneToTheFoldersAboveIt) {
  Tree tree = card();
  tree.file("other/file", abcd);
  tree.tree().file("Clips/deep/unread");
  EXPECT_FALSE(tree.of("Clips/deep"));
  EXPECT_FALSE(tree.of("Clips"));
  EXPECT_FALSE(tree.of(""));
  EXPECT_TRUE(tree.of("other"));
}

TEST(FolderDigests, ADigestOfAnotherAlgorithmIsNone) {
  const Listing listing = TreeInMemory(1).file("a").listing();
  const std::vector digests{FileDigest::fromText("MD5:d41d8cd98f00b204e9800998ecf8427e").value()};
  EXPECT_FALSE(FolderDigests::of(listing, digests, {false}, KDXDigestAlgorithmXXHash64BE).back());
  EXPECT_TRUE(FolderDigests::of(listing, digests, {false}, KDXDigestAlgorithmMD5).back());
}

TEST(FolderDigests, ANameThatXMLCannotHoldLeavesNone) {
  EXPECT_FALSE(card().file("Clips/a\x01", abcd).of("Clips"));
  EXPECT_FALSE(card().file("Clips/a\xff", abcd).of(""));
  EXPECT_FALSE(card().file("b\xff/a", abcd).of(""));
  EXPECT_TRUE(card().file("b\xff/a", abcd).of("b\xff"));
  EXPECT_TRUE(card().file("Clips/a\n", abcd).of(""));
}

TEST(FolderDigests, WhatIsNeitherFileNorFolderLeavesNone) {
  Tree tree = card();
  tree.tree().other("Clips/pipe");
  EXPECT_FALSE(tree.of("Clips"));
}

TEST(FolderDigests, WhatCouldNotBeListedLeavesNone) {
  Tree tree = card();
  tree.file("Clips 2/a", abcd).file("Clips/deep/a", abcd).unlisted("Clips/deep/gone");
  EXPECT_FALSE(tree.of("Clips/deep"));
  EXPECT_FALSE(tree.of("Clips"));
  EXPECT_FALSE(tree.of(""));
  EXPECT_TRUE(tree.of("Clips 2"));
}

TEST(FolderDigests, TenThousandFoldersInOneAnotherAreNoHarm) {
  Listing listing;
  constexpr EntryIndex depth = 10'000;
  for (EntryIndex index = 0; index < depth; ++index) {
    listing.entries.push_back({.parent = index == 0 ? kdxoffload::Entry::root : index - 1,
                               .name = "deeper",
                               .facts = {.kind = platform::ItemKind::folder}});
  }
  const Found found = FolderDigests::of(listing, std::vector<FileDigest>(depth), std::vector<bool>(depth),
                                        KDXDigestAlgorithmXXHash64BE);
  EXPECT_EQ(pair(nothing, nothing), found[depth - 1]);
  EXPECT_TRUE(found.back());
}

TEST(FolderDigests, AnUnknownAlgorithmHasNone) {
  EXPECT_FALSE(FolderDigests::of(Listing(), {}, {}, 3).back());
}
