#include "KDXFileTools/kdxoffload/ProgressMeter.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kdxoffload {

namespace {

// What was measured so long ago counts for half.
constexpr double halfLife = 30;  // seconds
// Less time than this tells nothing about a rate.
constexpr double leastMeasured = 0.5;  // seconds

constexpr double almostDone = 0.999;

}  // namespace

std::optional<double> ProgressMeter::Phase::rate() const {
  if (seconds < leastMeasured || bytes <= 0) return std::nullopt;
  return bytes / seconds;
}

void ProgressMeter::expect(uint64_t bytesToCopy, uint64_t bytesToRead) {
  _copying.expected += static_cast<double>(bytesToCopy);
  _reading.expected += static_cast<double>(bytesToRead);
}

void ProgressMeter::startJob(uint64_t job, uint64_t bytes, bool copies, bool reads) {
  const JobPhase first = copies ? JobPhase::copying : JobPhase::readingBack;
  _running[job] = {.bytes = bytes, .reads = reads, .phase = first};
}

void ProgressMeter::move(uint64_t job, JobPhase phase, uint64_t bytesInPhase) {
  const auto found = _running.find(job);
  if (found == _running.end()) return;
  Running& running = found->second;
  const auto whole = static_cast<double>(running.bytes);
  const double bytes = std::min(static_cast<double>(bytesInPhase), whole);
  const double copied = phase == JobPhase::copying ? bytes : whole;
  const double read = phase == JobPhase::readingBack ? bytes : phase == JobPhase::flushing && running.reads ? whole : 0;
  const bool copies = running.copied > 0 || running.phase == JobPhase::copying;
  running.phase = std::max(running.phase, phase);
  if (copies && copied > running.copied) _copying.done += copied - std::exchange(running.copied, copied);
  if (read > running.read) _reading.done += read - std::exchange(running.read, read);
}

void ProgressMeter::endJob(uint64_t job, bool isDone) {
  if (isDone) move(job, JobPhase::flushing, 0);
  const auto found = _running.find(job);
  if (found == _running.end()) return;
  if (!isDone) {
    for (Phase* phase : {&_copying, &_reading}) {
      const double lost = phase == &_copying ? found->second.copied : found->second.read;
      phase->done -= lost;
      phase->doneAtTick -= lost;
    }
  }
  _running.erase(found);
}

void ProgressMeter::measure(Phase& phase, double seconds, double share) {
  const double kept = std::exp2(-seconds / halfLife);
  phase.bytes = phase.bytes * kept + std::max(0.0, phase.done - phase.doneAtTick);
  phase.seconds = phase.seconds * kept + seconds * share;
  phase.doneAtTick = phase.done;
}

void ProgressMeter::tick(double seconds) {
  const double passed = _lastTick ? seconds - *_lastTick : 0;
  _lastTick = seconds;
  // Jobs in both phases at once share the time between them.
  const auto copying = static_cast<double>(
      std::ranges::count_if(_running, [](const auto& job) { return job.second.phase == JobPhase::copying; }));
  const auto all = static_cast<double>(_running.size());
  const bool copied = _copying.done > _copying.doneAtTick;
  const bool read = _reading.done > _reading.doneAtTick;
  if (all == 0 && !copied && !read) return;
  const double share = all > 0 ? copying / all : copied && read ? 0.5 : copied ? 1 : 0;
  measure(_copying, passed, share);
  measure(_reading, passed, 1 - share);
}

double ProgressMeter::share() {
  const double expected = _copying.expected + _reading.expected;
  const double reached = expected > 0 ? (_copying.done + _reading.done) / expected : 0;
  _share = _isFinished ? 1 : std::max(_share, std::min(reached, almostDone));
  return _share;
}

double ProgressMeter::bytesPerSecond() const {
  const double seconds = _copying.seconds + _reading.seconds;
  return seconds < leastMeasured ? 0 : (_copying.bytes + _reading.bytes) / seconds;
}

std::optional<double> ProgressMeter::secondsLeft() const {
  // A phase that has not been measured yet is taken to be as fast as the other one.
  const std::optional<double> copyRate = _copying.rate() ? _copying.rate() : _reading.rate();
  const std::optional<double> readRate = _reading.rate() ? _reading.rate() : copyRate;
  if (!copyRate || !readRate) return std::nullopt;
  return std::max(0.0, _copying.expected - _copying.done) / *copyRate +
         std::max(0.0, _reading.expected - _reading.done) / *readRate;
}

}  // namespace kdxoffload
