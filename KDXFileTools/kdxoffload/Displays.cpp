#include "KDXFileTools/kdxoffload/Displays.h"

#include "KDXFileTools/kdxoffload/JsonDisplay.h"
#include "KDXFileTools/kdxoffload/LogDisplay.h"
#include "KDXFileTools/kdxoffload/TerminalDisplay.h"

namespace kdxoffload {

std::unique_ptr<Listener> makeDisplay(const CommandLine& line, OutputStream& results, OutputStream& messages,
                                      DisplayTargets targets) {
  if (line.json) return std::make_unique<JsonDisplay>(results, messages);
  if (!platform::isTerminalWithCursor(targets.messages)) {
    return std::make_unique<LogDisplay>(results, messages, line.quiet);
  }
  const bool colours = platform::coloursAreWanted();
  const TerminalDisplay::Look look{.colours = colours,
                                   .quiet = line.quiet,
                                   .resultColours = colours && platform::isTerminalWithCursor(targets.results),
                                   .size = [targets] { return platform::terminalSize(targets.messages); }};
  return std::make_unique<TerminalDisplay>(results, messages, look);
}

}  // namespace kdxoffload
