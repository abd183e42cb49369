#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "platform/FileDescriptor.h"
#include "platform/FileIdentity.h"

namespace platform {

// A destination while it is written, from start to end and past the file cache. Move only, used by one thread at a
// time.
//
// What cannot go past the cache (the end of a file that does not fill a block; everything where the file system
// refuses, when transfers past the cache are switched on or at the first write) is pushed to the device and dropped
// from the cache behind every write, and a file that took that road is synced before it is closed.
class OutputFile {
 public:
  // Creates the file, of which nothing stands at the path: neither a file nor a link, wherever it leads. None when that can't
  // be done. A file that is one of `shared` is opened once more: the caller has just created it.
  static std::optional<OutputFile> createEmpty(const std::string& path, const std::set<FileIdentity>& shared = {});

  OutputFile(OutputFile&&) = default;
  OutputFile& operator=(OutputFile&&) = delete;
  ~OutputFile();

  // Writes the bytes behind those written before, with one call of the system for what goes past the cache and one for
  // the rest. Returns the number of bytes that the file took, which is short on a full device and is not made up for,
  // or a negative value when a call failed. That loudest result also stands for a last piece that
  // failed behind a first one that was taken.
  //   bytes   page-aligned, `length` bytes, the caller's
  int64_t write(const std::byte* bytes, std::size_t length);

  // As it was when it was created or, on a file system that keeps no times of creation, when its writing ended.
  [[nodiscard]] const FileStamp& stamp() const { return _stamp; }
  // While it is open.
  [[nodiscard]] const FileIdentity& identity() const { return _identity; }

  // Ends the writing. False when something that was written did not reach the device after all: the file is to be taken
  // as not written.
  bool close();

 private:
  OutputFile(FileDescriptor file, const FileIdentity& identity, const FileStamp& stamp);
  int64_t writeDirect(const std::byte* bytes, std::size_t length);
  int64_t writeThroughCache(const std::byte* bytes, std::size_t length);
  bool pushAndDrop(int64_t offset, int64_t length);

  FileDescriptor _file;
  FileIdentity _identity;
  FileStamp _stamp;
  int64_t _alignment;  // bytes; 0 without transfers past the cache
  int64_t _position = 0;
  int64_t _dropped = 0;      // everything written before this offset was dropped from the cache
  bool _direct = false;      // the next aligned write goes past the cache
  bool _cachedRoad = false;  // the file system refused: everything goes through the cache
};

}  // namespace platform
