#include "KDXFileTools/kdxoffload/OutputStream.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Log.h"
#include "platform/Mutex.h"
#include "platform/Process.h"

namespace kdxoffload {

namespace {

using Clock = std::chrono::steady_clock;

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
  platform::Mutex lock{};
  std::condition_variable changed{};
  std::deque<Text> waiting KDX_GUARDED_BY(lock){};
  std::size_t bytesWaiting KDX_GUARDED_BY(lock) = 0;  // with the text that is being written
  uint64_t queued KDX_GUARDED_BY(lock) = 0;           // texts, since the beginning
  uint64_t written KDX_GUARDED_BY(lock) = 0;
  uint64_t dropped KDX_GUARDED_BY(lock) = 0;
  bool isAbandoned KDX_GUARDED_BY(lock) = false;

  void queue(Text text) KDX_REQUIRES(lock) {
    bytesWaiting += text.bytes.size();
    ++queued;
    waiting.push_back(std::move(text));
    changed.notify_all();
  }

  // False when fewer texts are out by then.
  bool waitFor(uint64_t texts, Clock::time_point latest) {
    platform::MutexLock locked(lock);
    while (written < texts && locked.waitUntil(changed, latest)) {
    }
    return written >= texts;
  }

  void writeOut(const Text& text) const {
    if (text.after) text.after->stream->waitFor(text.after->texts, Clock::now() + patienceWithOthers);
    platform::writeText(descriptor, text.bytes);
  }

  void writeAllThatComes() {
    platform::MutexLock locked(lock);
    while (true) {
      while (!isAbandoned && waiting.empty()) locked.wait(changed);
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
    platform::endProcessForLackOf("a thread");
  }
}

OutputStream::~OutputStream() {
  const platform::MutexLock locked(_state->lock);
  _state->isAbandoned = true;
  _state->changed.notify_all();
}

bool OutputStream::write(std::string text) {
  const platform::MutexLock locked(_state->lock);
  if (_state->bytesWaiting != 0 && _state->bytesWaiting + text.size() > _state->waitingAtMost) {
    ++_state->dropped;
    return false;
  }
  _state->queue({.bytes = std::move(text)});
  return true;
}

bool OutputStream::writeUnlessWaiting(std::string text) {
  const platform::MutexLock locked(_state->lock);
  if (_state->bytesWaiting > screenful) return false;
  _state->queue({.bytes = std::move(text)});
  return true;
}

void OutputStream::writeAlways(std::string text) {
  const platform::MutexLock locked(_state->lock);
  _state->queue({.bytes = std::move(text)});
}

void OutputStream::writeAlwaysAfter(const OutputStream& other, std::string text) {
  State::Place place{.stream = other._state, .texts = other.queuedUntilNow()};
  const platform::MutexLock locked(_state->lock);
  _state->queue({.bytes = std::move(text), .after = std::move(place)});
}

uint64_t OutputStream::dropped() const {
  const platform::MutexLock locked(_state->lock);
  return _state->dropped;
}

bool OutputStream::finish(double seconds) {
  const std::chrono::duration<double> atMost(seconds);
  return _state->waitFor(queuedUntilNow(), Clock::now() + std::chrono::duration_cast<Clock::duration>(atMost));
}

uint64_t OutputStream::queuedUntilNow() const {
  const platform::MutexLock locked(_state->lock);
  return _state->queued;
}

}  // namespace kdxoffload
