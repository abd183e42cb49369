#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileDescriptor.h"

// Which file a name stands for.
namespace platform {

// Two names with the same identity are the same file. Names with different identities may be the same file too: some file
// systems give a file another inode number under another name, or after they have forgotten it.
struct FileIdentity {
  uint64_t device = 0;
  uint64_t inode = 0;
  auto operator<=>(const FileIdentity&) const = default;
};

// A set of many identities that takes little memory.
class FileIdentities {
 public:
  void insert(const FileIdentity& identity) { _identities.push_back(identity); }
  // To be called after the last insert and before the first contains.
  void seal();
  [[nodiscard]] bool contains(const FileIdentity& identity) const;

 private:
  std::vector<FileIdentity> _identities;  // sorted once sealed
};

// Identity of the file at the path, through symbolic links; none when there is no file.
std::optional<FileIdentity> identityOfFile(const std::string& path);

// Identity of an open file; none when it can't be found out.
std::optional<FileIdentity> identityOfOpenFile(int descriptor);

// Identity of what stands at the path itself, even if it is a symbolic link; none when nothing does.
std::optional<FileIdentity> identityOfItem(const std::string& path);

// What is known of a file at one moment, to recognise it later: even if its inode number has changed, or if another file has
// got this number. A job keeps a stamp of each file that it wrote.
struct FileStamp {
  // A stamp with a time of creation has this in place of a size.
  static constexpr uint32_t ofCreation = UINT32_MAX;

  uint64_t number = 0;    // the time of creation in nanoseconds since 1970, or the inode where no such time is kept
  uint32_t modified = 0;  // nanoseconds since 1970, the lowest 32 bits: enough to see a difference
  uint32_t size = 0;      // bytes, the lowest 31 bits; or ofCreation

  [[nodiscard]] bool hasTimeOfCreation() const { return size == ofCreation; }

  // True when `found` seems to be this file: it has the same time of creation. On file systems without such a time: it has
  // the same size, and the same number or (because numbers may change) the same time of last change.
  [[nodiscard]] bool isOf(const FileStamp& found) const;
};

// Stamp of an open file, and of what stands at a path itself (not through links); none when it can't be found out.
std::optional<FileStamp> stampOfFile(int descriptor);
std::optional<FileStamp> stampOfItem(const std::string& path);

// Keeps a file open, so that it keeps its inode number while it has a name.
class PinnedFile {
 public:
  // The file at the path, through symbolic links.
  static PinnedFile ofFile(const std::string& path);
  // What stands at the path itself.
  static PinnedFile ofItem(const std::string& path);

  // None when nothing was there, or when it can't be found out.
  [[nodiscard]] std::optional<FileIdentity> identity() const;
  // As it is now. None when nothing was there; also when the file has lost its name and the file system finds files only by
  // name.
  [[nodiscard]] std::optional<FileStamp> stamp() const;
  // True when what stands at the path itself may be this file: it has the same identity, or the same size and time of last
  // change. Under another name or through another mount the same file may have another number.
  [[nodiscard]] bool mayBeItem(const std::string& path) const;
  // Whether the file stands at the path itself now; none when that can't be found out.
  [[nodiscard]] std::optional<bool> standsAt(const std::string& path) const;

 private:
  PinnedFile(const std::string& path, int flags);

  FileDescriptor _file;
};

}  // namespace platform
