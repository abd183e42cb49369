#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "KDXFileTools/kdxoffload/Lister.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ScratchDirectory.h"

using kdxoffload::DestinationListing;
using kdxoffload::Entry;
using kdxoffload::EntryIndex;
using kdxoffload::ExcludePatterns;
using kdxoffload::listDestination;
using kdxoffload::Listing;
using kdxoffload::listTree;
using platform::Folder;
using platform::ItemKind;
using testing::ElementsAre;

namespace {

// A card and a destination on a real file system.
class Lister : public testing::Test {
 protected:
  Lister() {
    std::filesystem::create_directory(cardPath());
    std::filesystem::create_directory(destinationPath());
  }
  // Trees that are too deep for the standard library.
  ~Lister() override { std::ignore = std::system(("rm -rf '" + cardPath() + "' '" + destinationPath() + "'").c_str()); }

  [[nodiscard]] std::string cardPath() const { return _scratch.path() / "card"; }
  [[nodiscard]] std::string destinationPath() const { return _scratch.path() / "destination"; }
  [[nodiscard]] std::string onCard(const std::string& name) const { return _scratch.file("card/" + name); }
  [[nodiscard]] std::string atDestination(const std::string& name) const {
    return _scratch.file("destination/" + name);
  }

  [[nodiscard]] Listing listCard(const std::vector<std::string>& excluded = {}) const {
    return listTree(*Folder::open(cardPath(), nullptr), ExcludePatterns(excluded), nullptr);
  }
  [[nodiscard]] DestinationListing listThere(const Listing& card) const {
    return listDestination(*Folder::open(destinationPath(), nullptr), card, nullptr);
  }
  void makeFoldersOnCard(const std::string& path) const {
    ASSERT_TRUE(Folder::open(cardPath(), nullptr)->makeFolders(path, nullptr));
  }

 private:
  ScratchDirectory _scratch{quickFolder()};
};

std::vector<std::string> pathsOf(const Listing& listing) {
  std::vector<std::string> paths;
  for (EntryIndex index = 0; index < listing.entries.size(); ++index) paths.push_back(listing.pathOf(index));
  return paths;
}

const Entry& entryAt(const Listing& listing, const std::string& path) {
  const std::vector<std::string> paths = pathsOf(listing);
  const auto found = std::ranges::find(paths, path);
  if (found == paths.end()) throw std::runtime_error("not listed: " + path);
  return listing.entries[static_cast<std::size_t>(found - paths.begin())];
}

std::string manyFolders(std::size_t depth, const std::string& name) {
  std::string path;
  for (std::size_t level = 0; level < depth; ++level) path += (level == 0 ? "" : "/") + name;
  return path;
}

}  // namespace

TEST_F(Lister, AnEmptyCardHasNoEntries) {
  const Listing listing = listCard();
  EXPECT_TRUE(listing.entries.empty());
  EXPECT_TRUE(listing.unlisted.empty());
}

TEST_F(Lister, EntriesOfAFolderStandTogetherAndBehindItInTheOrderOfTheirBytes) {
  writeFile(onCard("b/2.mov"), "");
  writeFile(onCard("b/1.mov"), "");
  writeFile(onCard("a/z/deep.wav"), "");
  writeFile(onCard("c.txt"), "");
  writeFile(onCard("B.txt"), "");
  EXPECT_THAT(pathsOf(listCard()),
              ElementsAre("B.txt", "a", "b", "c.txt", "a/z", "a/z/deep.wav", "b/1.mov", "b/2.mov"));
}

TEST_F(Lister, HiddenFilesAndEmptyFoldersBelongToTheCard) {
  writeFile(onCard(".hidden/.file"), "");
  std::filesystem::create_directory(onCard("empty"));
  EXPECT_THAT(pathsOf(listCard()), ElementsAre(".hidden", "empty", ".hidden/.file"));
}

TEST_F(Lister, SizeModeAndTimeToTheNanosecondAreKept) {
  writeFile(onCard("clip.mov"), "12345");
  ASSERT_EQ(0, ::chmod(onCard("clip.mov").c_str(), 0640));
  const timespec times[] = {{.tv_sec = 1, .tv_nsec = 0}, {.tv_sec = 1'700'000'000, .tv_nsec = 123'456'789}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, onCard("clip.mov").c_str(), times, 0));
  const Listing listing = listCard();
  const platform::ItemFacts& facts = entryAt(listing, "clip.mov").facts;
  EXPECT_EQ(ItemKind::file, facts.kind);
  EXPECT_EQ(5U, facts.size);
  EXPECT_EQ(0640U, facts.mode);
  EXPECT_EQ(1'700'000'000'123'456'789, facts.modified);
}

TEST_F(Lister, LinksThatLeadOutOrInACircleAreListedAndNotFollowed) {
  writeFile(atDestination("outside/secret.mov"), "");
  std::filesystem::create_directory(onCard("folder"));
  std::filesystem::create_directory_symlink(atDestination("outside"), onCard("out"));
  std::filesystem::create_directory_symlink("..", onCard("folder/circle"));
  std::filesystem::create_symlink("nowhere", onCard("broken"));
  const Listing listing = listCard();
  EXPECT_THAT(pathsOf(listing), ElementsAre("broken", "folder", "out", "folder/circle"));
  EXPECT_EQ(ItemKind::link, entryAt(listing, "folder/circle").facts.kind);
  EXPECT_EQ((std::map<EntryIndex, std::string>{{0, "nowhere"}, {2, atDestination("outside")}, {3, ".."}}),
            listing.linkTargets);
}

TEST_F(Lister, APipeAndASocketAreNeitherFilesNorOpened) {
  ASSERT_EQ(0, ::mkfifo(onCard("pipe").c_str(), 0600));
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  onCard("socket").copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
  ASSERT_EQ(0, ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  ::close(socket);
  const Listing listing = listCard();
  EXPECT_EQ(ItemKind::other, entryAt(listing, "pipe").facts.kind);
  EXPECT_EQ(ItemKind::other, entryAt(listing, "socket").facts.kind);
}

TEST_F(Lister, NamesAreTheBytesOnTheCard) {
  const std::vector<std::string> names = {
      "\x1b[2J", "-rf", "100%d.mov", "line\nbreak", "quote'\"", std::string(255, 'x'), "\xff\xfe.mov"};
  for (const std::string& name : names) writeFile(onCard(name), "");
  EXPECT_EQ(names, pathsOf(listCard()));
}

TEST_F(Lister, ATreeOfTenThousandFoldersOneInAnotherIsListedToItsEnd) {
  constexpr std::size_t depth = 10'000;
  makeFoldersOnCard(manyFolders(depth, "d"));
  const Listing listing = listCard();
  ASSERT_EQ(depth, listing.entries.size());
  EXPECT_EQ(depth - 2, listing.entries.back().parent);
  EXPECT_TRUE(listing.unlisted.empty());
}

TEST_F(Lister, WhatStandsBesideTheWayIntoADeepTreeIsListedOnTheWayBack) {
  constexpr std::size_t depth = 100;  // more than are open at a time
  for (std::size_t level = 1; level <= depth; ++level) makeFoldersOnCard(manyFolders(level, "d") + "/e/f");
  const Listing listing = listCard();
  EXPECT_EQ(3 * depth, listing.entries.size());
  EXPECT_TRUE(listing.unlisted.empty());
  EXPECT_EQ(manyFolders(1, "d") + "/e/f", listing.pathOf(static_cast<EntryIndex>(listing.entries.size() - 1)));
}

TEST_F(Lister, TenThousandFoldersInOneAreListed) {
  constexpr std::size_t width = 10'000;
  const auto root = Folder::open(cardPath(), nullptr);
  for (std::size_t number = 0; number < width; ++number) {
    ASSERT_TRUE(root->makeFolders(std::to_string(number), nullptr));
  }
  EXPECT_EQ(width, listCard().entries.size());
}

TEST_F(Lister, ADeepTreeNeedsFewOpenFolders) {
  makeFoldersOnCard(manyFolders(500, "d"));
  const int status = statusOfChild([&] {
    const rlimit few{.rlim_cur = 100, .rlim_max = 100};
    if (::setrlimit(RLIMIT_NOFILE, &few) != 0) ::_exit(1);
    ::_exit(listCard().entries.size() == 500 ? 0 : 2);
  });
  EXPECT_EQ(0, status);
}

TEST_F(Lister, AFolderThatCannotBeReadIsNamedAndTheRestIsListed) {
  constexpr uid_t somebodyElse = 65534;
  writeFile(onCard("a/hidden.mov"), "");
  writeFile(onCard("b/clip.mov"), "");
  ASSERT_EQ(0, ::chmod(onCard("a").c_str(), 0));
  std::filesystem::permissions(std::filesystem::path(cardPath()).parent_path(), std::filesystem::perms(0755));
  const int status = statusOfChild([&] {
    if (::geteuid() == 0 && ::setresuid(somebodyElse, somebodyElse, somebodyElse) != 0) ::_exit(1);
    const Listing listing = listCard();
    const bool isNamed = listing.unlisted.size() == 1 && listing.unlisted[0].path == "a" &&
                         listing.unlisted[0].error == EACCES && listing.unlisted[0].isFolder;
    if (!isNamed) ::_exit(2);
    ::_exit(pathsOf(listing) == std::vector<std::string>{"a", "b", "b/clip.mov"} ? 0 : 3);
  });
  ASSERT_EQ(0, ::chmod(onCard("a").c_str(), 0700));
  EXPECT_EQ(0, status);
}

TEST_F(Lister, WhatAPatternLeavesOutIsNamedOnceWithAllThatIsBelow) {
  writeFile(onCard("Thumbs/1.jpg"), "");
  writeFile(onCard("Thumbs/2.jpg"), "");
  writeFile(onCard("clip.mov"), "");
  const Listing listing = listCard({"Thumbs"});
  EXPECT_THAT(pathsOf(listing), ElementsAre("clip.mov"));
  EXPECT_THAT(listing.excluded, ElementsAre("Thumbs"));
}

TEST_F(Lister, AListingThatIsStoppedEndsEarly) {
  writeFile(onCard("a/clip.mov"), "");
  int questions = 0;
  const Listing listing =
      listTree(*Folder::open(cardPath(), nullptr), ExcludePatterns(), [&] { return ++questions == 2; });
  EXPECT_THAT(pathsOf(listing), ElementsAre("a"));
}

TEST_F(Lister, AtADestinationOnlyTheNamesOfTheCardAreLookedAt) {
  writeFile(onCard("a/clip.mov"), "12345");
  writeFile(onCard("new/clip.mov"), "1");
  writeFile(atDestination("a/clip.mov"), "123");
  writeFile(atDestination("a/other.mov"), "");
  const Listing card = listCard();
  ASSERT_THAT(pathsOf(card), ElementsAre("a", "new", "a/clip.mov", "new/clip.mov"));
  const DestinationListing there = listThere(card);
  ASSERT_EQ(4U, there.size());
  EXPECT_EQ(ItemKind::folder, there[0].kind);
  EXPECT_EQ(ItemKind::absent, there[1].kind);
  EXPECT_EQ(ItemKind::file, there[2].kind);
  EXPECT_EQ(3U, there[2].size);
  EXPECT_EQ(ItemKind::absent, there[3].kind);
}

TEST_F(Lister, WhatIsReachedThroughALinkAtADestinationDoesNotCount) {
  writeFile(onCard("a/b/clip.mov"), "");
  std::filesystem::create_directory_symlink(cardPath() + "/a", atDestination("a"));
  const DestinationListing there = listThere(listCard());
  EXPECT_EQ(ItemKind::link, there[0].kind);
  for (const std::size_t below : {1U, 2U}) {
    EXPECT_EQ(ItemKind::other, there[below].kind);
    EXPECT_EQ(platform::FileIdentity{}, there[below].identity);
  }
}

TEST_F(Lister, TheCardsOwnFileIsRecognisedAtADestination) {
  writeFile(onCard("clip.mov"), "");
  std::filesystem::create_hard_link(onCard("clip.mov"), atDestination("clip.mov"));
  const Listing card = listCard();
  EXPECT_EQ(card.entries[0].facts.identity, listThere(card)[0].identity);
}

TEST_F(Lister, ADeepTreeIsFoundAgainAtADestination) {
  const std::string path = manyFolders(2'000, "d");
  makeFoldersOnCard(path);
  ASSERT_TRUE(Folder::open(destinationPath(), nullptr)->makeFolders(path, nullptr));
  const DestinationListing there = listThere(listCard());
  EXPECT_TRUE(std::ranges::all_of(there, [](const auto& facts) { return facts.kind == ItemKind::folder; }));
}

TEST_F(Lister, TheTargetsOfLinksAreReadWhereBothHaveALink) {
  std::filesystem::create_directory(onCard("a"));
  std::filesystem::create_symlink("same", onCard("a/1"));
  std::filesystem::create_symlink("same", onCard("a/2"));
  std::filesystem::create_symlink("same", onCard("a/3"));
  std::filesystem::create_directory(atDestination("a"));
  std::filesystem::create_symlink("same", atDestination("a/1"));
  std::filesystem::create_symlink("another", atDestination("a/2"));
  const Listing card = listCard();
  const auto targets = kdxoffload::linkTargetsAt(*Folder::open(destinationPath(), nullptr), card, listThere(card));
  EXPECT_EQ((std::map<EntryIndex, std::string>{{1, "same"}, {2, "another"}}), targets);
}
