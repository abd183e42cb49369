#include "KDXFileTools/kdxoffload/RunningJobs.h"

namespace kdxoffload {

void RunningJobs::take(const Event& event) {
  if (const auto* started = std::get_if<JobStarted>(&event)) {
    _jobs[started->job] = {.path = started->path, .frames = started->frames, .bytes = started->bytes};
    return;
  }
  if (const auto* ended = std::get_if<JobEnded>(&event)) {
    _jobs.erase(ended->job);
    return;
  }
  if (const auto* changed = std::get_if<JobPhaseChanged>(&event)) {
    const auto job = _jobs.find(changed->job);
    if (job == _jobs.end()) return;
    job->second.phase = changed->phase;
    job->second.bytesInPhase = 0;
    return;
  }
  const auto* progressed = std::get_if<JobProgressed>(&event);
  if (progressed == nullptr) return;
  const auto job = _jobs.find(progressed->job);
  if (job == _jobs.end()) return;
  job->second.phase = progressed->phase;
  job->second.bytesInPhase = progressed->bytes;
}

const RunningJob* RunningJobs::find(uint64_t job) const {
  const auto found = _jobs.find(job);
  return found == _jobs.end() ? nullptr : &found->second;
}

std::string_view shownPhase(JobPhase phase) {
  switch (phase) {
    case JobPhase::copying:
      return "copying";
    case JobPhase::readingBack:
      return "reading back";
    case JobPhase::flushing:
      return "flushing";
  }
  return "";
}

}  // namespace kdxoffload
