#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>

#include "platform/Error.h"
#include "platform/SerialQueue.h"

namespace platform {

// The process's only queue for output, labelled "log". All output is printed by tasks on this queue, so lines never mix and
// come out in the order in which they were queued. Made at first use, never destroyed.
SerialQueue& logQueue();

// Writes the text to standard output. To be called on the log queue only.
void printOnLogQueue(const std::string& text);

// Writes all of the text to a descriptor, and waits for a slow reader. Gives up silently if the descriptor takes no more (the
// reader is gone, the device is full): the exit status still reports the outcome.
void writeText(int descriptor, std::string_view text);

// Queues the text for standard output and returns at once.
void queueText(std::string text);

// Prints the text after everything queued earlier, and returns when it has been printed.
void printTextAndWait(const std::string& text);

// Like queueText and printTextAndWait, for a format of {fmt}.
template <typename... Arguments>
void queueLine(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  queueText(fmt::format(format, std::forward<Arguments>(arguments)...));
}
template <typename... Arguments>
void printAndWait(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  printTextAndWait(fmt::format(format, std::forward<Arguments>(arguments)...));
}

// The system log: prints one line on standard error, after everything queued earlier, and returns when it has been printed.
// Control characters (a path may hold them) are shown as "?", so that it stays one line. Not to be called on the log queue.
void systemLog(const std::string& message);

// "DOMAIN CODE: DESCRIPTION", with the path in place of a missing description.
std::string description(const Error& error);

}  // namespace platform
