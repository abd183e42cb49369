#include "KDXFileTools/kdxoffload/MessageLines.h"

#include <fmt/format.h>

#include "KDXFileTools/kdxoffload/ShownName.h"

namespace kdxoffload {

namespace {

// "3 folders", "1 folder".
std::string counted(uint64_t count, std::string_view one) {
  return fmt::format("{} {}{}", shownCount(count), one, count == 1 ? "" : "s");
}

std::string destinationsOf(const Planned& planned) {
  std::string names;
  for (const std::string& destination : planned.destinations) {
    names += (names.empty() ? "" : ", ") + shownName(destination);
  }
  return names;
}

std::string planLine(const Planned& planned) {
  std::string line =
      fmt::format("kdxoffload: {} to {}: {} ({}), {}, {}, {}", shownName(planned.card), destinationsOf(planned),
                  counted(planned.files, "file"), shownBytes(planned.bytes), counted(planned.folders, "folder"),
                  counted(planned.links, "link"), counted(planned.sequences, "sequence"));
  if (planned.filesDoneBefore != 0) line += fmt::format("; {} proved before", counted(planned.filesDoneBefore, "file"));
  if (!planned.readBack) line += "; nothing will be read back";
  return line + "\n";
}

// The sentence, and the path behind it unless it names the path itself.
std::string sentence(const std::string& text, const std::optional<std::string>& path) {
  if (!path || path->empty() || text.find(*path) != std::string::npos) return shownText(text);
  return fmt::format("{}: {}", shownText(text), shownName(*path));
}

}  // namespace

std::string messageLines(const Event& event, bool quiet) {
  if (const auto* error = std::get_if<ErrorReported>(&event)) {
    return fmt::format("kdxoffload: {}\n", sentence(error->text, error->path));
  }
  if (const auto* looking = std::get_if<Looking>(&event); looking != nullptr && looking->isAsked) {
    return fmt::format("kdxoffload: {}\n", looking->text);
  }
  if (quiet) return "";
  if (const auto* planned = std::get_if<Planned>(&event)) return planLine(*planned);
  if (const auto* warned = std::get_if<Warned>(&event)) {
    return fmt::format("kdxoffload: warning: {}\n", sentence(warned->text, warned->path));
  }
  if (std::holds_alternative<Stopping>(event))
    return "kdxoffload: stopping the running jobs; the same signal again ends at once\n";
  return "";
}

std::string howToGoOn() {
  return "kdxoffload: to go on, give the same command again; what is proved is not done again\n";
}

}  // namespace kdxoffload
