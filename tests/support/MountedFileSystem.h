#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tests/support/ScratchDirectory.h"

// A real file system for one test, mounted in a scratch folder and unmounted when the test ends. Needs root.
class MountedFileSystem {
 public:
  // Null if it can't be mounted here.
  //   type      "ext4" or "xfs" on a loop device of `size` bytes (xfs needs 300 MiB), "tmpfs" or "ramfs" in memory
  //   whyNot    the reason if it can't be mounted, for a visible skip
  //   options   for types on a device, as mount -o takes them
  static std::unique_ptr<MountedFileSystem> mount(const std::string& type, std::size_t size, std::string& whyNot,
                                                  const std::string& options = "rw");
  // Makes a file of `size` bytes with an "ext4", "ext2" (no journal) or "xfs" in it, for mountImage. False if this fails;
  // `whyNot` as above.
  static bool makeImage(const std::string& type, std::size_t size, const std::string& image, std::string& whyNot);
  // Mounts an existing image. It may be a copy of the image of a mounted file system: then the journal is replayed, or the
  // file system is repaired.
  static std::unique_ptr<MountedFileSystem> mountImage(const std::string& type, const std::string& image,
                                                       std::string& whyNot, const std::string& options = "rw");
  ~MountedFileSystem();
  MountedFileSystem(const MountedFileSystem&) = delete;
  MountedFileSystem& operator=(const MountedFileSystem&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return _mountPoint; }
  // The absolute path of a name in it. Makes the folders above the name.
  [[nodiscard]] std::string file(const std::string& name) const;

  // Bytes that the loop device has delivered to reads so far; 0 for file systems in memory.
  [[nodiscard]] uint64_t bytesReadFromDevice() const;
  // Bytes of the file that are in the page cache.
  [[nodiscard]] static uint64_t bytesInCache(const std::string& path);
  // Reads the file through the cache until all of it is cached. One read may not be enough: under load the system may drop a
  // page at once.
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
