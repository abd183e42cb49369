#pragma once

#include <set>
#include <string>

#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/OutputStream.h"
#include "KDXFileTools/kdxoffload/RunningJobs.h"

namespace kdxoffload {

// For a program: prints only JSON objects on `results`, one a line, as docs/output.md describes them. The summary is always
// the last line. Lines are ASCII: all other characters are escaped, so that names are harmless on a terminal too.
class JsonDisplay final : public Listener {
 public:
  // The streams are the caller's.
  explicit JsonDisplay(OutputStream& results);
  // A state that was asked for goes to `messages` too, as text.
  JsonDisplay(OutputStream& results, OutputStream& messages);
  void take(const Event& event) override;

 private:
  void takeState(const Progress& progress);
  void takeEnd(const Finished& finished);

  OutputStream& _results;
  OutputStream* _messages = nullptr;
  RunningJobs _running;
  std::set<std::string> _warned;  // texts of the warnings so far
  double _nextStatus = 0;         // seconds since the start
  bool _isFinished = false;
};

}  // namespace kdxoffload
