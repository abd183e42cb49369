#include "KDXFileTools/kdxdispatchcopy/CopyLines.h"

#include "platform/Log.h"

void queueSpeedLine(std::string_view what, uint64_t bytes, ProgressClock::Clock::time_point start) {
  constexpr double megabytesPerByte = 0.000001;
  const double seconds = std::chrono::duration<double>(ProgressClock::Clock::now() - start).count();
  platform::queueLine("INFO: {} speed {} bytes in {:.5f} sec ({:.1f} MB/sec)\n", what, bytes, seconds,
                      static_cast<double>(bytes) / seconds * megabytesPerByte);
}

void queueCompletedLine(const platform::FileURL& temporaryURL, SizeCheck sizeCheck) {
  platform::queueLine("Copy completed successfully for destination file{} ({})\n",
                      sizeCheck == SizeCheck::made ? " with file size check" : "",
                      temporaryURL.deletingPathExtension().path());
}
