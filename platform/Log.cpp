#include "platform/Log.h"

#include <cstdio>
#include <tuple>

namespace platform {

SerialQueue& logQueue() {
  // Never destroyed: tasks of other threads may still print while the process ends.
  static auto* const queue = new SerialQueue("log");
  return *queue;
}

void printOnLogQueue(const std::string& text) {
  std::ignore = std::fwrite(text.data(), 1, text.size(), stdout);
}

void queueText(std::string text) {
  logQueue().async([text = std::move(text)] { printOnLogQueue(text); });
}

void printTextAndWait(const std::string& text) {
  logQueue().sync([&] { printOnLogQueue(text); });
}

void systemLog(const std::string& message) {
  const std::string line = "kdxdispatchcopy: " + message + "\n";
  logQueue().sync([&] { std::ignore = std::fwrite(line.data(), 1, line.size(), stderr); });
}

std::string description(const Error& error) {
  const std::string text = error.description.value_or(error.path.value_or("(null)"));
  return fmt::format("{} {}: {}", error.domain, error.code, text);
}

}  // namespace platform
