#include "KDXFileTools/kdxoffload/LogDisplay.h"

#include <fmt/format.h>

#include "KDXFileTools/kdxoffload/ShownName.h"

namespace kdxoffload {

LogDisplay::LogDisplay(OutputStream& results, OutputStream& messages, bool quiet)
    : _results(results), _messages(messages), _quiet(quiet) {}

void LogDisplay::take(const Event& event) {
  if (const auto* warned = std::get_if<Warned>(&event); warned != nullptr && !_quiet) {
    _messages.write(fmt::format("kdxoffload: warning: {}\n", shownText(warned->text)));
  }
  if (const auto* error = std::get_if<ErrorReported>(&event)) {
    _messages.write(fmt::format("kdxoffload: {}\n", shownText(error->text)));
  }
  const auto* finished = std::get_if<Finished>(&event);
  if (finished == nullptr) return;
  for (const NotProved& file : finished->verdict.notProved) {
    _results.write(fmt::format("{}: {} ({})\n", shownName(file.path), shownText(file.reason), file.status));
  }
  for (const std::string& remark : finished->verdict.remarks) _results.write(shownText(remark) + "\n");
  for (const std::string& change : finished->verdict.changes) _results.write(shownText(change) + "\n");
  _results.write(finished->verdict.line + "\n");
}

}  // namespace kdxoffload
