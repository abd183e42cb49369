#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kdxoffload {

// Text on its way to a descriptor. Written by a thread of its own, so that a reader that stops reading holds nobody up. A
// reader that has gone away takes everything and is no failure. May be used by any thread.
class OutputStream {
 public:
  // What may wait for a reader. More than the lines of a hundred thousand files take, so that a reader that is only slow
  // misses none.
  static constexpr std::size_t usuallyWaitingAtMost = std::size_t{32} << 20;  // bytes

  // The descriptor is the caller's, and open as long as the process lives: a text that nobody reads is on its way that long.
  explicit OutputStream(int descriptor, std::size_t waitingAtMost = usuallyWaitingAtMost);
  // Leaves what is not out yet to itself.
  ~OutputStream();
  OutputStream(const OutputStream&) = delete;
  OutputStream& operator=(const OutputStream&) = delete;

  // Queues the text, which is never split by another one's, and returns at once. Drops it, counts it and returns false when
  // too much is waiting already.
  bool write(std::string text);
  // Queues the text unless more than a screenful is waiting already: for what the next text makes obsolete. False when it
  // is dropped, which is not counted.
  bool writeUnlessWaiting(std::string text);
  // Queues the text whatever is waiting: for the one at the end that must not be missing.
  void writeAlways(std::string text);
  // The same, and lets all that was queued in the other stream until now be out before, for where both go to the same
  // place. A reader of the other one that has stopped reading is waited for only a few seconds. No other may come to wait
  // for this one.
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
