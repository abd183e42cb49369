#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "KDXFileTools/kdxoffload/FolderCursor.h"
#include "tests/support/ScratchDirectory.h"

using kdxoffload::Entry;
using kdxoffload::EntryIndex;
using kdxoffload::FolderCursor;
using platform::Folder;

namespace {

// A chain of folders, each with a folder "beside" in it: more than a cursor keeps open.
class FolderCursorInChain : public testing::Test {
 protected:
  static constexpr EntryIndex depth = 150;

  FolderCursorInChain() {
    std::string path;
    for (EntryIndex level = 0; level < depth; ++level) {
      path += "/d";
      std::ignore = root().makeFolders(path + "/beside", nullptr);
      _entries.push_back({.parent = level == 0 ? Entry::root : level - 1, .name = "d"});
    }
    for (EntryIndex level = 0; level < depth; ++level) _entries.push_back({.parent = level, .name = "beside"});
  }

  static EntryIndex beside(EntryIndex level) { return depth + level; }
  [[nodiscard]] const Folder& root() const { return _root; }
  [[nodiscard]] const std::vector<Entry>& entries() const { return _entries; }
  [[nodiscard]] std::filesystem::path pathOf(EntryIndex level) const {
    std::filesystem::path path = _scratch.path();
    for (EntryIndex above = 0; above <= level; ++above) path /= "d";
    return path;
  }
  [[nodiscard]] std::filesystem::path top() const { return _scratch.path(); }

 private:
  ScratchDirectory _scratch{quickFolder()};
  Folder _root = *Folder::open(_scratch.path(), nullptr);
  std::vector<Entry> _entries;
};

// The file that the folder is, by its path.
bool leadsTo(const Folder* folder, const std::filesystem::path& path) {
  return folder != nullptr && folder->facts(nullptr)->identity == platform::identityOfFile(path);
}

}  // namespace

TEST_F(FolderCursorInChain, EveryFolderIsFoundOnTheWayDownAndOnTheWayUp) {
  FolderCursor cursor(root(), entries());
  EXPECT_TRUE(leadsTo(cursor.at(depth - 1, nullptr), pathOf(depth - 1)));
  for (EntryIndex level = depth; level-- > 0;) {
    EXPECT_TRUE(leadsTo(cursor.at(beside(level), nullptr), pathOf(level) / "beside")) << level;
  }
  EXPECT_TRUE(leadsTo(cursor.at(Entry::root, nullptr), top()));
}

TEST_F(FolderCursorInChain, AFolderThatWasMovedMeanwhileLeadsNowhereElse) {
  FolderCursor cursor(root(), entries());
  ASSERT_NE(nullptr, cursor.at(depth - 1, nullptr));
  std::filesystem::rename(pathOf(40), top() / "moved");
  EXPECT_TRUE(leadsTo(cursor.at(beside(20), nullptr), pathOf(20) / "beside"));
}

TEST_F(FolderCursorInChain, AFolderThatIsGoneIsAnErrorAndTheNextOneIsFound) {
  FolderCursor cursor(root(), entries());
  std::filesystem::remove(pathOf(3) / "beside");
  std::optional<platform::Error> error;
  EXPECT_EQ(nullptr, cursor.at(beside(3), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(ENOENT, error->code);
  EXPECT_TRUE(leadsTo(cursor.at(beside(2), nullptr), pathOf(2) / "beside"));
}

TEST_F(FolderCursorInChain, ALinkInPlaceOfAFolderIsNotFollowed) {
  FolderCursor cursor(root(), entries());
  std::filesystem::remove(pathOf(3) / "beside");
  std::filesystem::create_directory_symlink(top(), pathOf(3) / "beside");
  EXPECT_EQ(nullptr, cursor.at(beside(3), nullptr));
}
