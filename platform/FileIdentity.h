#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileDescriptor.h"

// Which file it is that stands under a name.
namespace platform {

// Tells files apart whatever their names: two names with the same identity are the same file. The reverse does not hold
// everywhere: some file systems give a file another number under another name, or when it was forgotten meanwhile.
struct FileIdentity {
  uint64_t device = 0;
  uint64_t inode = 0;
  auto operator<=>(const FileIdentity&) const = default;
};

// Many of them, each taking as little memory as it can.
class FileIdentities {
 public:
  void insert(const FileIdentity& identity) { _identities.push_back(identity); }
  // To be called after the last insertion and before the first question.
  void seal();
  [[nodiscard]] bool contains(const FileIdentity& identity) const;

 private:
  std::vector<FileIdentity> _identities;  // in order once sealed
};

// Identity of the file at the path, through symbolic links; none when there is none.
std::optional<FileIdentity> identityOfFile(const std::string& path);

// Identity of an open file; none when it can't be told.
std::optional<FileIdentity> identityOfOpenFile(int descriptor);

// Identity of what stands at the path itself, be it a symbolic link; none when nothing does.
std::optional<FileIdentity> identityOfItem(const std::string& path);

// What is known of a file at one moment, to recognise it later: also when it was given another number meanwhile, and
// another file from it that was given its number. A job keeps one for each file that it wrote.
struct FileStamp {
  // A stamp with a time of creation has this in place of a size.
  static constexpr uint32_t ofCreation = UINT32_MAX;

  uint64_t number = 0;    // the time of creation in nanoseconds since 1970 or, where that is not kept, the inode
  uint32_t modified = 0;  // nanoseconds since 1970; like the next the lowest bits, which is enough to see a difference
  uint32_t size = 0;      // bytes, the lowest 31 bits; or ofCreation

  [[nodiscard]] bool hasTimeOfCreation() const { return size == ofCreation; }

  // True when `found` is this file, as far as its file system tells: by the time of its creation; without one by its size
  // and its number or, since numbers may change, the time of its last change.
  [[nodiscard]] bool isOf(const FileStamp& found) const;
};

// Stamp of an open file, and of what stands at a path itself (not through links); none when it can't be told.
std::optional<FileStamp> stampOfFile(int descriptor);
std::optional<FileStamp> stampOfItem(const std::string& path);

// Holds on to a file, which therefore keeps its number while it has its name.
class PinnedFile {
 public:
  // The file at the path, through symbolic links; what stands at the path itself.
  static PinnedFile ofFile(const std::string& path);
  static PinnedFile ofItem(const std::string& path);

  // None when nothing was there, or it can't be told.
  [[nodiscard]] std::optional<FileIdentity> identity() const;
  // As it is now; none when nothing was there, or when the file has lost its name where only names are known.
  [[nodiscard]] std::optional<FileStamp> stamp() const;
  // True when what stands at the path itself may be this file: it is, or it has the same size and the same time of its last
  // change, as a file has that is reached under another name or through another mount, where it has another number.
  [[nodiscard]] bool mayBeItem(const std::string& path) const;
  // Whether the file stands at the path itself now; none when that can't be told.
  [[nodiscard]] std::optional<bool> standsAt(const std::string& path) const;

 private:
  PinnedFile(const std::string& path, int flags);

  FileDescriptor _file;
};

}  // namespace platform
