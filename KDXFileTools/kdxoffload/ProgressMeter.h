#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>

#include "KDXFileTools/kdxoffload/Events.h"

namespace kdxoffload {

// How far an offload is and how long it will still take, from what its jobs tell. Times are seconds of any one clock, given
// by the caller. Used by one thread.
class ProgressMeter {
 public:
  // What is to be done: bytes to copy, and bytes to read back or compare.
  void expect(uint64_t bytesToCopy, uint64_t bytesToRead);

  void startJob(uint64_t job, uint64_t bytes, bool copies, bool reads);
  // Bytes in the phase so far; less than before changes nothing.
  void move(uint64_t job, JobPhase phase, uint64_t bytesInPhase);
  // `isDone`: all its bytes are; otherwise it goes back to where it began, to be done again or never.
  void endJob(uint64_t job, bool isDone);

  // To be called a few times a second: from what happened between two calls the rates are measured.
  void tick(double seconds);

  // From 0 to 1, never less than before. 1 only after `finish`.
  [[nodiscard]] double share();
  void finish() { _isFinished = true; }

  [[nodiscard]] double bytesPerSecond() const;  // of both phases together, lately
  // None until there is something to measure.
  [[nodiscard]] std::optional<double> secondsLeft() const;

 private:
  struct Phase {
    double expected = 0;  // bytes
    double done = 0;      // bytes, those of running jobs too
    double doneAtTick = 0;
    double bytes = 0;  // of lately
    double seconds = 0;
    [[nodiscard]] std::optional<double> rate() const;
  };
  struct Running {
    uint64_t bytes = 0;
    bool reads = false;
    JobPhase phase = JobPhase::copying;
    double copied = 0;
    double read = 0;
  };
  void measure(Phase& phase, double seconds, double share);

  Phase _copying;
  Phase _reading;
  std::map<uint64_t, Running> _running;
  std::optional<double> _lastTick;
  double _share = 0;
  bool _isFinished = false;
};

}  // namespace kdxoffload
