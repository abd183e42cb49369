#include "KDXFileTools/kdxoffload/OutputStream.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Log.h"
#include "platform/Process.h"

namespace kdxoffload {

namespace {

constexpr std::size_t screenful = 4096;  // bytes
constexpr std::chrono::seconds patienceWithOthers{5};

}  // namespace

// Shared with the thread, which may outlive the stream: nobody can end a write that waits for its reader.
struct OutputStream::State {
  State(int output, std::size_t limit) : descriptor(output), waitingAtMost(limit) {}

  // Up to which text of another stream all has to be out first.
  struct Place {
    std::shared_ptr<State> stream{};
    uint64_t texts = 0;
  };
  struct Text {
    std::string bytes{};
    std::optional<Place> after{};
  };

  const int descriptor;
  const std::size_t waitingAtMost;
  std::mutex lock{};
  std::condition_variable changed{};
  std::deque<Text> waiting{};    // guarded by `lock`, as all below
  std::size_t bytesWaiting = 0;  // with the text that is being written
  uint64_t queued = 0;           // texts, since the beginning
  uint64_t written = 0;
  uint64_t dropped = 0;
  bool isAbandoned = false;

  // Called with `lock` held.
  void queue(Text text) {
    bytesWaiting += text.bytes.size();
    ++queued;
    waiting.push_back(std::move(text));
    changed.notify_all();
  }

  void waitFor(uint64_t texts, std::chrono::duration<double> atMost) {
    std::unique_lock locked(lock);
    changed.wait_for(locked, atMost, [&] { return written >= texts; });
  }

  void writeOut(const Text& text) const {
    if (text.after) text.after->stream->waitFor(text.after->texts, patienceWithOthers);
    platform::writeText(descriptor, text.bytes);
  }

  void writeAllThatComes() {
    std::unique_lock locked(lock);
    while (true) {
      changed.wait(locked, [&] { return isAbandoned || !waiting.empty(); });
      if (waiting.empty()) return;
      const Text next = std::move(waiting.front());
      waiting.pop_front();
      locked.unlock();
      writeOut(next);
      locked.lock();
      bytesWaiting -= next.bytes.size();
      ++written;
      changed.notify_all();
    }
  }
};

OutputStream::OutputStream(int descriptor, std::size_t waitingAtMost)
    : _state(std::make_shared<State>(descriptor, waitingAtMost)) {
  try {
    std::thread([state = _state] { state->writeAllThatComes(); }).detach();
  } catch (const std::system_error&) {
    platform::endProcessForLackOf("thread");
  }
}

OutputStream::~OutputStream() {
  const std::lock_guard locked(_state->lock);
  _state->isAbandoned = true;
  _state->changed.notify_all();
}

bool OutputStream::write(std::string text) {
  const std::lock_guard locked(_state->lock);
  if (_state->bytesWaiting != 0 && _state->bytesWaiting + text.size() > _state->waitingAtMost) {
    ++_state->dropped;
    return false;
  }
  _state->queue({.bytes = std::move(text)});
  return true;
}

bool OutputStream::writeUnlessWaiting(std::string text) {
  const std::lock_guard locked(_state->lock);
  if (_state->bytesWaiting > screenful) return false;
  _state->queue({.bytes = std::move(text)});
  return true;
}

void OutputStream::writeAlways(std::string text) {
  const std::lock_guard locked(_state->lock);
  _state->queue({.bytes = std::move(text)});
}

void OutputStream::writeAlwaysAfter(const OutputStream& other, std::string text) {
  State::Place place{.stream = other._state};
  {
    const std::lock_guard locked(other._state->lock);
    place.texts = other._state->queued;
  }
  const std::lock_guard locked(_state->lock);
  _state->queue({.bytes = std::move(text), .after = std::move(place)});
}

uint64_t OutputStream::dropped() const {
  const std::lock_guard locked(_state->lock);
  return _state->dropped;
}

bool OutputStream::finish(double seconds) {
  std::unique_lock locked(_state->lock);
  return _state->changed.wait_for(locked, std::chrono::duration<double>(seconds),
                                  [&] { return _state->written == _state->queued; });
}

}  // namespace kdxoffload
