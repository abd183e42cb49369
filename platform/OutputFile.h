#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "platform/FileDescriptor.h"
#include "platform/FileIdentity.h"

namespace platform {

// A destination while it is written, from start to end, past the file cache. Move only, used by one thread at a time.
//
// Some bytes can't go past the cache: an end of the file that does not fill a block, or all bytes where the file system
// refuses (when transfers past the cache are switched on, or at the first write). After every write these are pushed to the
// device and dropped from the cache. A file whose file system refused is synced before it is closed.
class OutputFile {
 public:
  // Creates the file. None when this fails, also when anything stands at the path, even a link that leads nowhere.
  //   shared   files that the caller has just created: one that stands at the path is opened again
  static std::optional<OutputFile> createEmpty(const std::string& path, const std::set<FileIdentity>& shared = {});

  OutputFile(OutputFile&&) = default;
  OutputFile& operator=(OutputFile&&) = delete;
  ~OutputFile();

  // Writes the bytes after those written earlier, with one system call for what goes past the cache and one for the rest.
  // Returns the number of bytes that the file took, which may be less than `length` on a full device; the rest is not tried
  // again. Returns a negative value when a call failed, also if the file took a first piece and only the last piece failed.
  //   bytes   page-aligned, `length` bytes, the caller's
  int64_t write(const std::byte* bytes, std::size_t length);

  // The stamp that the file had when it was created or, on a file system without times of creation, when writing ended.
  [[nodiscard]] const FileStamp& stamp() const { return _stamp; }
  // The identity of the open file.
  [[nodiscard]] const FileIdentity& identity() const { return _identity; }

  // Ends the writing. False when some of the bytes did not reach the device: the file then counts as not written.
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
  int64_t _dropped = 0;      // all pages before this offset were dropped from the cache
  bool _direct = false;      // the next aligned write goes past the cache
  bool _cachedRoad = false;  // the file system refused: everything goes through the cache
};

}  // namespace platform
