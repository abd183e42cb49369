#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>

#include "KDXFileTools/kdxoffload/Events.h"

namespace kdxoffload {

// How far an offload is, and how long it will still take, from what its jobs report. Times are seconds of one clock, given by
// the caller. Used by one thread.
class ProgressMeter {
 public:
  // Adds work: bytes to copy, and bytes to read back or compare.
  void expect(uint64_t bytesToCopy, uint64_t bytesToRead);

  void startJob(uint64_t job, uint64_t bytes, bool copies, bool reads);
  // Sets the bytes in the phase so far. A smaller number than before changes nothing.
  void move(uint64_t job, JobPhase phase, uint64_t bytesInPhase);
  //   isDone   all bytes of the job are done; otherwise its bytes no longer count as done
  void endJob(uint64_t job, bool isDone);

  // To be called a few times a second: the rates are measured between two calls.
  void tick(double seconds);

  // From 0 to 1, never smaller than before. 1 only after `finish`.
  [[nodiscard]] double share();
  void finish() { _isFinished = true; }

  [[nodiscard]] double bytesPerSecond() const;  // of both phases together, recently
  // None until there is something to measure.
  [[nodiscard]] std::optional<double> secondsLeft() const;

 private:
  struct Phase {
    double expected = 0;  // bytes
    double done = 0;      // bytes, including those of running jobs
    double doneAtTick = 0;
    double bytes = 0;  // recently
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
