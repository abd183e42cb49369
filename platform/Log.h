#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>

#include "platform/Error.h"
#include "platform/SerialQueue.h"

namespace platform {

// The process's one queue for output, labelled "log": whatever is printed is printed by a task on it, so lines never
// mix and come out in the order in which they were queued. Made at first use, never destroyed.
SerialQueue& logQueue();

// Writes the text to standard output, as it is. To be called on the log queue only.
void printOnLogQueue(const std::string& text);

// Writes all of the text to a descriptor, waiting for a slow reader. A descriptor that takes no more (its reader is gone,
// the device full) is passed over: the exit status tells the outcome.
void writeText(int descriptor, std::string_view text);

// Queues the text for standard output and returns at once.
void queueText(std::string text);

// Prints the text once everything queued before is out, and returns when it is out itself.
void printTextAndWait(const std::string& text);

// As queueText and printTextAndWait, for a text made from a format of {fmt}.
template <typename... Arguments>
void queueLine(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  queueText(fmt::format(format, std::forward<Arguments>(arguments)...));
}
template <typename... Arguments>
void printAndWait(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  printTextAndWait(fmt::format(format, std::forward<Arguments>(arguments)...));
}

// The system log: one line on standard error, after everything queued before, out when the call returns. Control
// characters (a path may hold them) are shown as "?", so that it stays one line. Not to be called on the log queue.
void systemLog(const std::string& message);

// "DOMAIN CODE: DESCRIPTION", with the path instead where there is no description.
std::string description(const Error& error);

}  // namespace platform
