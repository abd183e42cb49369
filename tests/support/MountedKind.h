#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/ScratchDirectory.h"

// A file system of one of the kinds that tests/kinds/mount knows, served by the real program or by the kernel, with its own
// disk, server and keys in a scratch folder. All of it is ended and removed when the test ends, passed or failed. Needs root.
class MountedKind {
 public:
  // Returns when the file system is mounted. Null if it can't be mounted here; `whyNot` then has the reason, for a visible
  // skip.
  static std::unique_ptr<MountedKind> mount(const std::string& kind, std::string& whyNot);
  ~MountedKind();
  MountedKind(const MountedKind&) = delete;
  MountedKind& operator=(const MountedKind&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return _mountPoint; }
  // The absolute path of a name in it. Makes the folders above the name.
  [[nodiscard]] std::string file(const std::string& name) const;
  // Where the bytes are stored: the disk below a kind that passes files on, otherwise the file system itself.
  [[nodiscard]] std::filesystem::path store() const;
  // Bytes that the device of the store has delivered to reads so far.
  [[nodiscard]] uint64_t bytesReadFromDevice() const;

 private:
  MountedKind();
  void start(const std::string& kind);
  // Waits until the file system is mounted (true), or until the program has ended or taken too long (false).
  bool isMountedInTime();
  [[nodiscard]] bool isMounted() const;
  [[nodiscard]] std::string lastWords() const;
  // Ends the server and whatever it started. A server whose file system was unmounted ends by itself, and first gets the time
  // to write everything.
  void endServer(bool endsByItself);

  ScratchDirectory _scratch;
  std::filesystem::path _mountPoint;
  pid_t _server = -1;  // leads a process group of its own
};
