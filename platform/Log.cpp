#include "platform/Log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

namespace platform {

SerialQueue& logQueue() {
  // Never destroyed: tasks of other threads may still print while the process ends.
  static auto* const queue = new SerialQueue("log");
  return *queue;
}

void printOnLogQueue(const std::string& text) {
  writeText(STDOUT_FILENO, text);
}

void writeText(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd reader{.fd = descriptor, .events = POLLOUT, .revents = 0};
      constexpr int withoutLimit = -1;
      std::ignore = ::poll(&reader, 1, withoutLimit);
    } else if (errno != EINTR) {
      return;
    }
  }
}

void queueText(std::string text) {
  logQueue().async([text = std::move(text)] { printOnLogQueue(text); });
}

void printTextAndWait(const std::string& text) {
  logQueue().sync([&] { printOnLogQueue(text); });
}

void systemLog(const std::string& message) {
  std::string line = "kdxdispatchcopy: " + message;
  std::ranges::replace_if(
      line, [](unsigned char c) { return c < ' ' || c == '\x7f'; }, '?');
  line += '\n';
  logQueue().sync([&] { writeText(STDERR_FILENO, line); });
}

std::string description(const Error& error) {
  const std::string text = error.description.value_or(error.path.value_or("(null)"));
  return fmt::format("{} {}: {}", error.domain, error.code, text);
}

}  // namespace platform
