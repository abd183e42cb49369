#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tests/support/ScratchDirectory.h"

// A real file system of the test's own, mounted in a scratch folder and unmounted when the test ends. Needs root.
class MountedFileSystem {
 public:
  // "ext4" or "xfs" on a loop device of `size` bytes (xfs needs 300 MiB), "tmpfs" or "ramfs" in memory.
  // Null where it can't be mounted here; `whyNot` then says why, for a visible skip.
  // `options` as mount -o takes them, for those on a device.
  static std::unique_ptr<MountedFileSystem> mount(const std::string& type, std::size_t size, std::string& whyNot,
                                                  const std::string& options = "rw");
  // Makes a file of `size` bytes with an "ext4", "ext2" (no journal) or "xfs" in it, which mountImage takes; false and `whyNot` as above.
  static bool makeImage(const std::string& type, std::size_t size, const std::string& image, std::string& whyNot);
  // The same for a file that is there already: also for a copy of a mounted one, whose journal is
  // replayed or which is repaired.
  static std::unique_ptr<MountedFileSystem> mountImage(const std::string& type, const std::string& image,
                                                       std::string& whyNot, const std::string& options = "rw");
  ~MountedFileSystem();
  MountedFileSystem(const MountedFileSystem&) = delete;
  MountedFileSystem& operator=(const MountedFileSystem&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return _mountPoint; }
  // The absolute path of a name in it; the folders above it are made.
  [[nodiscard]] std::string file(const std::string& name) const;

  // Bytes that the loop device has delivered to reads so far; 0 for file systems in memory.
  [[nodiscard]] uint64_t bytesReadFromDevice() const;
  // Bytes of the file that are in the page cache now.
  [[nodiscard]] static uint64_t bytesInCache(const std::string& path);
  // Reads the whole file through the cache until all of it is cached: under load the system may take a page back at once.
  static void fillCache(const std::string& path);

 private:
  MountedFileSystem() = default;
  static std::unique_ptr<MountedFileSystem> makeMountPoint();
  bool mountOnLoopDevice(const std::string& type, const std::string& image, const std::string& options,
                         std::string& whyNot);

  ScratchDirectory _scratch;
  std::filesystem::path _mountPoint;
  std::string _loopDevice;  // "loop3"; empty in memory
};
