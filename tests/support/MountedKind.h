#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/ScratchDirectory.h"

// A file system of one of the kinds that tests/kinds/mount knows, served by the real program or by the kernel, with its own
// disk, server and keys in a scratch folder. All of it ends and goes when the test ends, whatever its outcome. Needs root.
class MountedKind {
 public:
  // Returns when the file system is there. Null where it can't be mounted here; `whyNot` then says why, for a visible skip.
  static std::unique_ptr<MountedKind> mount(const std::string& kind, std::string& whyNot);
  ~MountedKind();
  MountedKind(const MountedKind&) = delete;
  MountedKind& operator=(const MountedKind&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return _mountPoint; }
  // The absolute path of a name in it; the folders above it are made.
  [[nodiscard]] std::string file(const std::string& name) const;
  // Where the bytes come to lie: the disk below a kind that passes files on, else the file system itself.
  [[nodiscard]] std::filesystem::path store() const;
  // Bytes that the device of the store has delivered to reads so far.
  [[nodiscard]] uint64_t bytesReadFromDevice() const;

 private:
  MountedKind();
  void start(const std::string& kind);
  // Until the mount is there (true), or the program ended without it or took too long (false).
  bool isMountedInTime();
  [[nodiscard]] bool isMounted() const;
  [[nodiscard]] std::string lastWords() const;
  // Unmounted, a server ends once it has given everything away; another one, and whatever it started, is told to.
  void endServer(bool endsByItself);

  ScratchDirectory _scratch;
  std::filesystem::path _mountPoint;
  pid_t _server = -1;  // leads a process group of its own
};
