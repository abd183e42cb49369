#include "KDXFileTools/kdxdispatchcopy/ProgressClock.h"

#include "platform/Log.h"

bool ProgressClock::isDue(Clock::time_point now) {
  if (now - _lastReport <= _interval) return false;
  _lastReport = now;
  return true;
}

void queueSpeedLine(std::string_view what, uint64_t bytes, ProgressClock::Clock::time_point start) {
  constexpr double megabytesPerByte = 0.000001;
  const double seconds = std::chrono::duration<double>(ProgressClock::Clock::now() - start).count();
  platform::queueLine("INFO: {} speed {} bytes in {:.5f} sec ({:.1f} MB/sec)\n", what, bytes, seconds,
                      static_cast<double>(bytes) / seconds * megabytesPerByte);
}
