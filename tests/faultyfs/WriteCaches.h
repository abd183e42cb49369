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

// Files that stand for devices with a volatile write cache: whatever was not flushed may be lost with the power. Of each
// a second copy is kept that only gets what is flushed. Safe to use from several threads.
class WriteCaches {
 public:
  // From now on `file` has such a cache; what it holds now is permanent. The copy is kept at `permanent`.
  // Throws std::system_error, as copyAfterPowerLoss() does.
  void add(const std::filesystem::path& file, const std::filesystem::path& permanent);

  // To be held while the file is changed and the change noted, so that a loss of power never comes in between.
  // Locks nothing for files without a cache.
  [[nodiscard]] std::unique_lock<std::mutex> steady(FileId id);
  // The range is in the cache now.
  void note(const std::unique_lock<std::mutex>& steady, FileId id, ByteRange range);

  // Makes what is in the cache permanent. Returns 0 or an errno.
  int flush(FileId id);

  // Writes to `target` what the file would hold if the power failed now.
  //   seed   of the blocks in the cache: with `losingAll` none is on the medium, with `losingNothing` all are, and with
  //          any other number some, the same for the same number
  void copyAfterPowerLoss(const std::filesystem::path& file, const std::filesystem::path& target, std::uint64_t seed);

 private:
  struct Cache {
    FileDescriptor file;
    FileDescriptor permanent;
    std::map<std::uint64_t, std::uint64_t> blocks;  // in the cache alone: number and how many bytes of it there are
  };

  std::mutex _mutex;
  std::map<FileId, Cache> _caches;
};

}  // namespace faultyfs
