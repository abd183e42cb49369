#pragma once

#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/OutputStream.h"

namespace kdxoffload {

// For a log: a line for each file or sequence that ended and one line of overall state every 30 s on `messages`, the reasons
// and the verdict on `results`. No control characters.
class LogDisplay final : public Listener {
 public:
  LogDisplay(OutputStream& results, OutputStream& messages, bool quiet);
  void take(const Event& event) override;

 private:
  OutputStream& _results;
  OutputStream& _messages;
  bool _quiet;
};

}  // namespace kdxoffload
