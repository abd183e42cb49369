#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kdxoffload {

// Text on its way to a descriptor. A thread of its own writes it, so that a reader that stops reading holds up nothing else. A
// reader that has gone away is no failure: the text then counts as written. Any thread may use it.
class OutputStream {
 public:
  // The most that may wait for a reader. It is more than the lines of a hundred thousand files, so that a slow reader misses
  // none.
  static constexpr std::size_t usuallyWaitingAtMost = std::size_t{32} << 20;  // bytes

  // The descriptor is the caller's, and open as long as the process lives: a text that nobody reads is on its way that long.
  explicit OutputStream(int descriptor, std::size_t waitingAtMost = usuallyWaitingAtMost);
  // Does not wait for text that has not been written.
  ~OutputStream();
  OutputStream(const OutputStream&) = delete;
  OutputStream& operator=(const OutputStream&) = delete;

  // Queues the text and returns at once. Texts never mix. When too much is waiting already, drops the text, counts it and
  // returns false.
  bool write(std::string text);
  // For text that the next one makes obsolete: queues it unless more than a screenful is waiting. False when it is dropped,
  // which is not counted.
  bool writeUnlessWaiting(std::string text);
  // For the text at the end, which must not be missing: queues it however much is waiting.
  void writeAlways(std::string text);
  // The same, after everything that was queued in the other stream until now, for streams that go to the same place. Waits
  // only a few seconds for a reader of the other stream that has stopped reading. The other stream must not wait for this one.
  void writeAlwaysAfter(const OutputStream& other, std::string text);

  // How many texts were dropped because too much was waiting.
  [[nodiscard]] uint64_t dropped() const;

  // Waits until all that was queued is out, for at most so long. False when something is not.
  bool finish(double seconds);

 private:
  struct State;
  [[nodiscard]] uint64_t queuedUntilNow() const;
  std::shared_ptr<State> _state;
};

}  // namespace kdxoffload
