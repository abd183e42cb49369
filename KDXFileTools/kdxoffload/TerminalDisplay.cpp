#include "KDXFileTools/kdxoffload/TerminalDisplay.h"

#include "KDXFileTools/kdxoffload/LogDisplay.h"

namespace kdxoffload {

TerminalDisplay::TerminalDisplay(OutputStream& results, OutputStream& messages, Look look)
    : _results(results), _messages(messages), _look(look) {}

void TerminalDisplay::take(const Event& event) {
  LogDisplay(_results, _messages, _look.quiet).take(event);
}

}  // namespace kdxoffload
