#include "KDXFileTools/kdxdispatchcopy/ProgressClock.h"

bool ProgressClock::isDue(Clock::time_point now) {
  if (now - _lastReport <= _interval) return false;
  _lastReport = now;
  return true;
}
