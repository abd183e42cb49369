#include "KDXFileTools/kdxoffload/ResultLines.h"

#include <fmt/format.h>

#include <iterator>
#include <string_view>

#include "KDXFileTools/kdxoffload/ShownName.h"

namespace kdxoffload {

namespace {

std::string_view withoutFullStop(std::string_view sentence) {
  if (sentence.ends_with('.')) sentence.remove_suffix(1);
  return sentence;
}

std::string lineOf(const NotProved& file) {
  std::string line = fmt::format("{}: {}", shownName(file.path), shownText(withoutFullStop(file.reason)));
  if (file.status != 0) line += fmt::format(" (status {})", file.status);
  if (!file.advice.empty()) line += fmt::format(". {}", shownText(withoutFullStop(file.advice)));
  return line + ".\n";
}

std::string verdictLine(const Verdict& verdict, bool colours) {
  const std::string line = shownText(verdict.line);
  if (!colours) return line + "\n";
  constexpr std::string_view boldGreen = "\x1b[1;32m";
  constexpr std::string_view boldRed = "\x1b[1;31m";
  constexpr std::string_view plain = "\x1b[0m";
  return fmt::format("{}{}{}\n", verdict.isSafe ? boldGreen : boldRed, line, plain);
}

}  // namespace

std::string resultLines(const Verdict& verdict, ResultLook look) {
  std::string lines;
  for (const NotProved& file : verdict.notProved) lines += lineOf(file);
  for (const std::string& change : verdict.changes) lines += shownText(change) + "\n";
  if (!look.quiet) {
    for (const std::string& remark : verdict.remarks) lines += shownText(remark) + "\n";
  }
  return lines + verdictLine(verdict, look.colours);
}

}  // namespace kdxoffload
