#pragma once

#include <condition_variable>
#include <cstddef>
#include <limits>
#include <memory>

// The buffers of one reading call: at most two at a time, one being read into while the other is worked on. All calls
// of the process share their memory, so that the number of files read back at once does not multiply it: each call can
// always come by one buffer, and by its second while fewer than 50 MiB (or five buffers) are in use or claimed.
class ReadBuffers : public std::enable_shared_from_this<ReadBuffers> {
 public:
  // `bufferSize` in bytes; `largestRead` is how many of them will be filled at most, as far as that is known.
  static std::shared_ptr<ReadBuffers> make(std::size_t bufferSize, std::size_t largestRead = unknown);
  ~ReadBuffers();
  ReadBuffers(const ReadBuffers&) = delete;
  ReadBuffers& operator=(const ReadBuffers&) = delete;

  [[nodiscard]] std::size_t bufferSize() const { return _bufferSize; }

  // Waits, without a time limit, for the next buffer: page-aligned, given back when the last copy of the pointer goes,
  // on any thread. To be called by one thread; the holder of a buffer must not wait for another call's buffers.
  std::shared_ptr<std::byte> next();

 private:
  static constexpr std::size_t unknown = std::numeric_limits<std::size_t>::max();

  ReadBuffers(std::size_t bufferSize, std::size_t largestRead);

  const std::size_t _bufferSize;
  const std::size_t _largestRead;
  std::size_t _held = 0;               // guarded by the lock of the shared memory
  std::condition_variable _givenBack;  // for this call alone, when it waits for one of its own
};
