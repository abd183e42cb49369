#pragma once

#include <condition_variable>
#include <cstddef>
#include <limits>
#include <memory>

// The buffers of one reading call: at most two at a time, one for reading into while the other is worked on. All calls of
// the process share their memory, so that reading back many files at once does not multiply it. Each call always gets at
// least one buffer. It gets a second one while fewer than 50 MiB (or five buffers) are in use or reserved for calls that
// have none.
class ReadBuffers : public std::enable_shared_from_this<ReadBuffers> {
 public:
  //   bufferSize    bytes
  //   largestRead   bytes of a buffer that will be filled at most, if that is known
  static std::shared_ptr<ReadBuffers> make(std::size_t bufferSize, std::size_t largestRead = unknown);
  ~ReadBuffers();
  ReadBuffers(const ReadBuffers&) = delete;
  ReadBuffers& operator=(const ReadBuffers&) = delete;

  [[nodiscard]] std::size_t bufferSize() const { return _bufferSize; }

  // Waits, without a time limit, for the next buffer. It is page-aligned, and is given back when the last copy of the
  // pointer is destroyed, on any thread. To be called by one thread. A thread that holds a buffer must not wait for the
  // buffers of another call.
  std::shared_ptr<std::byte> next();

 private:
  static constexpr std::size_t unknown = std::numeric_limits<std::size_t>::max();

  ReadBuffers(std::size_t bufferSize, std::size_t largestRead);

  const std::size_t _bufferSize;
  const std::size_t _largestRead;
  std::size_t _held = 0;               // guarded by the lock of the shared memory
  std::condition_variable _givenBack;  // one of this call's own buffers
};
