#include "KDXFileTools/kdxoffload/StateLines.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "KDXFileTools/kdxoffload/ShownName.h"

namespace kdxoffload {

namespace {

// A rate or a time that was measured wrongly must still be a number that can be shown.
uint64_t wholeNumber(double value) {
  constexpr double most = 9e15;
  return std::isfinite(value) ? static_cast<uint64_t>(std::clamp(value, 0.0, most)) : 0;
}

}  // namespace

std::string shownDuration(double seconds) {
  constexpr uint64_t minute = 60;
  constexpr uint64_t hour = 60 * minute;
  const uint64_t whole = wholeNumber(seconds);
  if (whole < minute) return fmt::format("{} s", whole);
  if (whole < hour) return fmt::format("{} min", whole / minute);
  return fmt::format("{} h {:02} min", whole / hour, whole % hour / minute);
}

std::string shownShare(double share) {
  constexpr double percent = 100;
  return fmt::format("{} %", wholeNumber(std::clamp(share, 0.0, 1.0) * percent));
}

std::string shownFailures(uint64_t failures) {
  if (failures == 0) return "no failures";
  return fmt::format("{} {}", shownCount(failures), failures == 1 ? "failure" : "failures");
}

std::string stateLine(const Progress& progress) {
  std::string line =
      fmt::format("{} of {} files, {} of {}, {}", shownCount(progress.filesDone), shownCount(progress.files),
                  shownBytes(progress.bytesDone), shownBytes(progress.bytes), shownShare(progress.share));
  if (progress.bytesPerSecond > 0) line += fmt::format(", {}/s", shownBytes(wholeNumber(progress.bytesPerSecond)));
  if (progress.secondsLeft) line += fmt::format(", {} left", shownDuration(*progress.secondsLeft));
  return line + ", " + shownFailures(progress.failures);
}

std::string stateReport(const Progress& progress, const RunningJobs& running) {
  std::string report = stateLine(progress) + "\n";
  for (const auto& [number, job] : running.all()) {
    report += fmt::format("  {}: {}\n", shownPhase(job.phase), shownName(job.path));
  }
  return report;
}

}  // namespace kdxoffload
