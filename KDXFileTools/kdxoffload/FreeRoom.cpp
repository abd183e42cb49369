#include "KDXFileTools/kdxoffload/FreeRoom.h"

#include <chrono>
#include <condition_variable>
#include <system_error>
#include <thread>

#include "platform/Mutex.h"
#include "platform/Process.h"
#include "platform/Volume.h"

namespace kdxoffload {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds betweenQuestions{1};
constexpr std::chrono::seconds patience{1};

}  // namespace

// Shared with the thread, which outlives the object where a destination does not answer.
struct FreeRoom::State {
  explicit State(const std::vector<std::string>& its) : paths(its), bytes(its.size()) {}

  const std::vector<std::string> paths;
  platform::Mutex lock{};
  std::condition_variable changed{};
  std::vector<uint64_t> bytes KDX_GUARDED_BY(lock);
  bool hasAnswers KDX_GUARDED_BY(lock) = false;
  bool isOver KDX_GUARDED_BY(lock) = false;

  void askUntilOver() {
    platform::MutexLock locked(lock);
    while (!isOver) {
      for (std::size_t position = 0; position < paths.size(); ++position) {
        locked.unlock();
        const uint64_t answer = platform::freeBytesOf(paths[position]);
        locked.lock();
        bytes[position] = answer;
      }
      hasAnswers = true;
      changed.notify_all();
      const Clock::time_point next = Clock::now() + betweenQuestions;
      while (!isOver && locked.waitUntil(changed, next)) {
      }
    }
  }
};

FreeRoom::FreeRoom(const std::vector<std::string>& paths) : _state(std::make_shared<State>(paths)) {
  try {
    std::thread([state = _state] { state->askUntilOver(); }).detach();
  } catch (const std::system_error&) {
    platform::endProcessForLackOf("a thread");
  }
  platform::MutexLock locked(_state->lock);
  const Clock::time_point latest = Clock::now() + patience;
  while (!_state->hasAnswers && locked.waitUntil(_state->changed, latest)) {
  }
}

FreeRoom::~FreeRoom() {
  const platform::MutexLock locked(_state->lock);
  _state->isOver = true;
  _state->changed.notify_all();
}

std::vector<uint64_t> FreeRoom::bytes() const {
  const platform::MutexLock locked(_state->lock);
  return _state->bytes;
}

}  // namespace kdxoffload
