#include "KDXFileTools/kdxoffload/Displays.h"

#include <cstdlib>

#include "KDXFileTools/kdxoffload/JsonDisplay.h"
#include "KDXFileTools/kdxoffload/LogDisplay.h"
#include "KDXFileTools/kdxoffload/TerminalDisplay.h"
#include "platform/Terminal.h"

namespace kdxoffload {

std::unique_ptr<Listener> makeDisplay(const CommandLine& line, OutputStream& results, OutputStream& messages) {
  if (line.json) return std::make_unique<JsonDisplay>(results);
  if (!platform::isTerminal(platform::standardError)) {
    return std::make_unique<LogDisplay>(results, messages, line.quiet);
  }
  const char* const noColour = std::getenv("NO_COLOR");
  const bool colours = noColour == nullptr || *noColour == '\0';
  return std::make_unique<TerminalDisplay>(results, messages,
                                           TerminalDisplay::Look{.colours = colours, .quiet = line.quiet});
}

}  // namespace kdxoffload
