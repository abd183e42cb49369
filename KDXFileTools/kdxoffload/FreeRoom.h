#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kdxoffload {

// How much room is left at the destinations, for displays. A thread of its own asks about once a second, so that a
// destination that does not answer holds nobody up. Used by one thread.
class FreeRoom {
 public:
  // Asks once before it returns, but waits at most a second for the answers.
  explicit FreeRoom(const std::vector<std::string>& paths);
  ~FreeRoom();
  FreeRoom(const FreeRoom&) = delete;
  FreeRoom& operator=(const FreeRoom&) = delete;

  // The last answer of each destination; 0 until there was one.
  [[nodiscard]] std::vector<uint64_t> bytes() const;

 private:
  struct State;
  std::shared_ptr<State> _state;
};

}  // namespace kdxoffload
