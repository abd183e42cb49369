#pragma once

#include <memory>
#include <string>

namespace kdxoffload {

// Text on its way to a descriptor. Written by a thread of its own, so that a reader that stops reading holds nobody up.
class OutputStream {
 public:
  // The descriptor is the caller's.
  explicit OutputStream(int descriptor);
  // Leaves what is not out yet to itself.
  ~OutputStream();
  OutputStream(const OutputStream&) = delete;
  OutputStream& operator=(const OutputStream&) = delete;

  // Queues the text, which is never split by another one's, and returns at once.
  void write(std::string text);
  // Queues the text unless more than a screenful is waiting already: for what the next text makes obsolete.
  void writeUnlessWaiting(std::string text);
  // Waits until all is out, for at most so long. False when something is not.
  bool finish(double seconds);

 private:
  struct State;
  std::shared_ptr<State> _state;
};

}  // namespace kdxoffload
