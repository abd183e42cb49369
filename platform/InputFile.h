#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/FileDescriptor.h"

namespace platform {

// The result of one read of a file.
struct ReadResult {
  int64_t length = 0;  // bytes, or -1 if the read failed
  int error = 0;       // errno value of the failure, else 0
  [[nodiscard]] bool failed() const { return error != 0; }
};

// A file that is read from start to end from the device, past the file cache, even if it was cached before. Nothing of it
// stays in the cache afterwards. Move only, used by one thread at a time.
//
// Where the file system refuses transfers past the cache (when they are switched on, or at the first read), the file is
// read through the cache: all its pages are dropped before the first read, and then, every 8 MiB, those already read.
class InputFile {
 public:
  // None when the file cannot be opened for reading.
  static std::optional<InputFile> open(const std::string& path);

  InputFile(InputFile&&) = default;
  InputFile& operator=(InputFile&&) = delete;
  ~InputFile();

  [[nodiscard]] int descriptor() const { return _file.get(); }

  // Bytes that the file had when it was opened; 0 if it is not a regular file.
  [[nodiscard]] std::size_t sizeWhenOpened() const { return static_cast<std::size_t>(_leastSize); }

  // Reads until the buffer is full, the file ends, or an error occurs. A short result always means the end of the file. An
  // error after some bytes is an error, and the content of the buffer must not be used. A file that ends before the size
  // that it had when it was opened gives EIO. A file whose dirty pages the device did not take gives the device's error.
  //   buffer   page-aligned, `size` bytes, the caller's. If the size is not a whole number of blocks, later reads may go
  //            through the cache.
  [[nodiscard]] ReadResult read(std::byte* buffer, std::size_t size);

 private:
  explicit InputFile(FileDescriptor file);
  void keepDeviceError(int code);
  [[nodiscard]] std::size_t untilExpectedEnd() const;
  ReadResult readSome(std::byte* buffer, std::size_t size);
  ReadResult readToAlignment(std::byte* buffer, std::size_t size);
  ReadResult readAtPosition(std::byte* buffer, std::size_t size);
  void startCachedRoad();
  void dropBehind();

  FileDescriptor _file;
  int64_t _alignment;      // bytes; 0 without transfers past the cache
  int64_t _leastSize = 0;  // bytes, see sizeWhenOpened
  int _deviceError = 0;    // errno of writing dirty pages to the device
  int64_t _position = 0;
  int64_t _dropped = 0;  // when reading through the cache: all pages before this offset were dropped
  bool _direct = false;
};

}  // namespace platform
