#pragma once

#include <cstddef>
#include <memory>

// The buffers of one reading call: at most two at a time, one being read into while the other is worked on. All calls
// of the process share their memory, so that the number of files read back at once does not multiply it: each call can
// always come by one buffer, and by its second while fewer than 50 MiB (or five buffers) are in use or claimed.
class ReadBuffers : public std::enable_shared_from_this<ReadBuffers> {
 public:
  // `bufferSize` in bytes.
  static std::shared_ptr<ReadBuffers> make(std::size_t bufferSize);
  ~ReadBuffers();
  ReadBuffers(const ReadBuffers&) = delete;
  ReadBuffers& operator=(const ReadBuffers&) = delete;

  [[nodiscard]] std::size_t bufferSize() const { return _bufferSize; }

  // Waits, without a time limit, for the next buffer: page-aligned, given back when the last copy of the pointer goes,
  // on any thread. To be called by one thread; the holder of a buffer must not wait for another call's buffers.
  std::shared_ptr<std::byte> next();

 private:
  explicit ReadBuffers(std::size_t bufferSize);
  [[nodiscard]] bool mayTakeAnother() const;

  const std::size_t _bufferSize;
  std::size_t _held = 0;  // guarded by the lock of the shared memory
};
