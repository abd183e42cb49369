#include "platform/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace platform {

namespace {

// Empty if it is not set.
std::string_view environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing here changes the environment
  return value == nullptr ? "" : value;
}

}  // namespace

bool isTerminal(int descriptor) {
  return ::isatty(descriptor) == 1;
}

bool isTerminalWithCursor(int descriptor) {
  const std::string_view kind = environment("TERM");
  return isTerminal(descriptor) && !kind.empty() && kind != "dumb";
}

TerminalSize terminalSize(int descriptor) {
  winsize size{};
  if (::ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) return {};
  return {.columns = size.ws_col, .rows = size.ws_row};
}

bool coloursAreWanted() {
  return environment("NO_COLOR").empty();
}

}  // namespace platform
