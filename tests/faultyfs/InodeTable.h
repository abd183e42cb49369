#pragma once

#include <sys/stat.h>

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "FileDescriptor.h"

namespace faultyfs {

// Identifies a file of the backing folder, whatever its names.
struct FileId {
  dev_t device = 0;
  ino_t inode = 0;
  auto operator<=>(const FileId&) const = default;
};

inline FileId fileIdOf(const struct stat& attributes) {
  return {attributes.st_dev, attributes.st_ino};
}

// A file or folder of the backing folder that the kernel knows by a number.
struct Inode {
  std::uint64_t number = 0;
  FileId id;
  FileDescriptor handle;  // opened with O_PATH, so it keeps the inode number from being reused
  std::uint64_t lookups = 0;
  std::shared_ptr<const Inode> parent;  // none at the mount root
  std::string name;                     // by which it was last seen
};

// A path that opens the file itself, whatever its names.
inline std::string handlePath(const Inode& inode) {
  return "/proc/self/fd/" + std::to_string(inode.handle.get());
}

using InodePointer = std::shared_ptr<Inode>;

// All inodes that the kernel refers to. Hard links share one inode, as on any local file system, and so their cached pages,
// too. Any thread may use it.
class InodeTable {
 public:
  // `root` is the opened backing folder, known to the kernel by `rootNumber`.
  InodeTable(FileDescriptor root, std::uint64_t rootNumber);

  // Throws std::out_of_range for a number that was never given or is forgotten.
  InodePointer find(std::uint64_t number) const;

  // Counts one more reference of the kernel to the file behind `handle` (O_PATH), seen as `name` in `parent`.
  InodePointer lookUp(FileDescriptor handle, FileId id, const InodePointer& parent, const std::string& name);

  // The file has another name now. Files that the kernel does not know are ignored.
  void rename(FileId id, const InodePointer& parent, const std::string& name);

  // The kernel gives up `count` references.
  void forget(std::uint64_t number, std::uint64_t count);

  // The path relative to the mount root by which the file was last seen; "." for the root itself.
  std::string pathOf(const Inode& inode) const;

  // The path that `name` in the folder `parent` has or would have.
  std::string pathOf(const Inode& parent, const std::string& name) const;

 private:
  mutable std::mutex _mutex;
  std::map<std::uint64_t, InodePointer> _byNumber;
  std::map<FileId, InodePointer> _byId;
  std::uint64_t _lastNumber;
};

}  // namespace faultyfs
