#pragma once

#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/OutputStream.h"

namespace kdxoffload {

// For a person at a terminal: a few lines, redrawn in place at the terminal's width on `messages` (standard error), and the
// reasons and the verdict on `results` (standard output) at the end.
class TerminalDisplay final : public Listener {
 public:
  //   colours   not with NO_COLOR
  struct Look {
    bool colours = true;
    bool quiet = false;  // nothing but failures and the verdict
  };
  TerminalDisplay(OutputStream& results, OutputStream& messages, Look look);
  void take(const Event& event) override;

 private:
  OutputStream& _results;
  OutputStream& _messages;
  Look _look;
};

}  // namespace kdxoffload
