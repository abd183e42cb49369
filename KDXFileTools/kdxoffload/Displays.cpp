#include "KDXFileTools/kdxoffload/Displays.h"

#include <chrono>

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

int withDisplay(const CommandLine& line, const std::function<int(OutputStream& results, Listener& display)>& command) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::seconds longestWait{10};
  OutputStream results(platform::standardOutput);
  OutputStream messages(platform::standardError);
  const std::unique_ptr<Listener> display = makeDisplay(line, results, messages);
  const int status = command(results, *display);
  const auto latest = Clock::now() + longestWait;
  for (OutputStream* stream : {&results, &messages}) {
    stream->finish(std::chrono::duration<double>(latest - Clock::now()).count());
  }
  return status;
}

}  // namespace kdxoffload
