#include "KDXFileTools/kdxoffload/Display.h"

#include "KDXFileTools/kdxoffload/JsonDisplay.h"
#include "KDXFileTools/kdxoffload/LogDisplay.h"
#include "KDXFileTools/kdxoffload/TerminalDisplay.h"
#include "platform/Terminal.h"

namespace kdxoffload {

std::unique_ptr<Listener> makeDisplay(OutputStream& results, OutputStream& messages, DisplayChoice choice) {
  if (choice.json) return std::make_unique<JsonDisplay>(results, messages);
  if (!platform::isTerminalWithCursor(choice.messagesDescriptor)) {
    return std::make_unique<LogDisplay>(results, messages, choice.quiet);
  }
  const bool colours = platform::coloursAreWanted();
  const TerminalDisplay::Look look{
      .colours = colours,
      .quiet = choice.quiet,
      .resultColours = colours && platform::isTerminalWithCursor(choice.resultsDescriptor),
      .size = [descriptor = choice.messagesDescriptor] { return platform::terminalSize(descriptor); }};
  return std::make_unique<TerminalDisplay>(results, messages, look);
}

}  // namespace kdxoffload
