#pragma once

#include <set>
#include <string>

#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/OutputStream.h"
#include "KDXFileTools/kdxoffload/RunningJobs.h"

namespace kdxoffload {

// For a program: one JSON object a line on `results` and nothing else there, as docs/output.md writes them down; the summary
// is always the last, and nothing comes after it. Lines are ASCII: all other characters are escaped, so that a name is harmless
// on a terminal too.
class JsonDisplay final : public Listener {
 public:
  // The streams are the caller's.
  explicit JsonDisplay(OutputStream& results);
  // The state that somebody asks for goes to `messages` too, as text.
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
