#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/OutputStream.h"
#include "KDXFileTools/kdxoffload/RunningJobs.h"

namespace kdxoffload {

// For a log. On `messages`: a line for each file or sequence that ended, and a line of overall state every 30 s. On `results`:
// the reasons and the verdict. No control characters. Files that an earlier run proved have no line of their own.
class LogDisplay final : public Listener {
 public:
  // The streams are the caller's.
  //   quiet   only errors on `messages`; only failures and the verdict on `results`
  LogDisplay(OutputStream& results, OutputStream& messages, bool quiet);
  void take(const Event& event) override;

 private:
  // Frames of a sequence that have not ended yet.
  struct Sequence {
    std::string path{};
    uint64_t frames = 0;
    uint64_t framesEnded = 0;
    uint64_t framesProved = 0;
    uint64_t bytesProved = 0;
    double jobSeconds = 0;
  };

  void takeOfJob(const JobEnded& ended);
  void takeOfFile(const FileEnded& ended);
  void takeOfFrame(Sequence& sequence, const FileEnded& ended);
  void takeState(const Progress& progress);
  void takeEnd(const Finished& finished);
  void say(const std::string& line);

  OutputStream& _results;
  OutputStream& _messages;
  bool _quiet;
  bool _readsBack = true;
  bool _isStopping = false;
  double _nextState = 0;  // seconds since the start
  RunningJobs _running;
  std::map<uint64_t, Sequence> _sequences;  // by the number of the job
};

}  // namespace kdxoffload
