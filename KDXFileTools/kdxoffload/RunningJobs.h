#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "KDXFileTools/kdxoffload/Events.h"

namespace kdxoffload {

struct RunningJob {
  std::string path{};  // relative to the card, as it is on disk; of a sequence: folder and identifier
  uint64_t frames = 1;
  uint64_t bytes = 0;  // of the file, or of all frames
  JobPhase phase = JobPhase::copying;
  uint64_t bytesInPhase = 0;
};

// The jobs that have begun and not ended, from the events. A plain value.
class RunningJobs {
 public:
  void take(const Event& event);

  // By number: the job that has been running longest is first.
  [[nodiscard]] const std::map<uint64_t, RunningJob>& all() const { return _jobs; }
  // Null for a job that is not running.
  [[nodiscard]] const RunningJob* find(uint64_t job) const;

 private:
  std::map<uint64_t, RunningJob> _jobs;
};

// "copying", "reading back", "flushing".
std::string_view shownPhase(JobPhase phase);

}  // namespace kdxoffload
