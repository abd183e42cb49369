#pragma once

#include <chrono>

// Decides when the next progress line is due: when more than the interval has passed since the last line, or since the
// clock was made. Earlier reports are dropped, not delayed. Used by one thread or queue at a time.
class ProgressClock {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ProgressClock(double intervalSeconds, Clock::time_point start = Clock::now())
      : _interval(intervalSeconds), _lastReport(start) {}

  // True when a report is due now. It then counts as made.
  bool isDue(Clock::time_point now = Clock::now());

 private:
  std::chrono::duration<double> _interval;
  Clock::time_point _lastReport;
};

// Seconds between two progress lines, at least.
inline constexpr double progressInterval = 0.5;
