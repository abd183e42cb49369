#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>

#include "FaultBook.h"
#include "FileDescriptor.h"
#include "InodeTable.h"
#include "Protocol.h"

namespace faultyfs {

// Files that stand for devices with a volatile write cache: what was not flushed may be lost with the power. Each has a
// second copy that gets only what is flushed. Any thread may use it.
class WriteCaches {
 public:
  // From now on `file` has such a cache. Its present content is permanent. The copy is kept at `permanent`.
  // Throws std::system_error, like copyAfterPowerLoss().
  void add(const std::filesystem::path& file, const std::filesystem::path& permanent);

  // A lock to hold while the file is changed and the change is noted, so that no loss of power comes in between.
  // Locks nothing for files without a cache.
  [[nodiscard]] std::unique_lock<std::mutex> steady(FileId id);
  // The range is in the cache now.
  void note(const std::unique_lock<std::mutex>& steady, FileId id, ByteRange range);

  // Makes the content of the cache permanent. Returns 0 or an errno.
  int flush(FileId id);

  // Writes to `target` what the file would hold if the power failed now.
  //   seed   of the blocks in the cache: with `losingAll` none is on the medium, with `losingNothing` all are, and with
  //          any other number some, the same for the same number
  void copyAfterPowerLoss(const std::filesystem::path& file, const std::filesystem::path& target, std::uint64_t seed);

 private:
  struct Cache {
    FileDescriptor file;
    FileDescriptor permanent;
    std::map<std::uint64_t, std::uint64_t> blocks;  // only in the cache: the number of a block, and its bytes
  };

  std::mutex _mutex;
  std::map<FileId, Cache> _caches;
};

}  // namespace faultyfs
