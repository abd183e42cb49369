#include "KDXFileTools/kdxoffload/TerminalDisplay.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "KDXFileTools/kdxoffload/MessageLines.h"
#include "KDXFileTools/kdxoffload/ResultLines.h"
#include "KDXFileTools/kdxoffload/ShownName.h"
#include "KDXFileTools/kdxoffload/StateLines.h"

namespace kdxoffload {

namespace {

constexpr std::string_view eraseToEndOfLine = "\x1b[K";
constexpr std::string_view eraseBelow = "\x1b[J";
constexpr std::size_t mostRunningLines = 4;
constexpr std::size_t shortestBar = 8;
constexpr std::size_t longestBar = 50;

std::string shownPart(const RunningJob& job) {
  if (job.bytes == 0 || job.phase == JobPhase::flushing) return "";
  return shownShare(static_cast<double>(job.bytesInPhase) / static_cast<double>(job.bytes));
}

std::string runningLine(const RunningJob& job, std::size_t columns) {
  const std::string before = fmt::format("{:<12}  {:>5}  ", shownPhase(job.phase), shownPart(job));
  const std::size_t room = columns > before.size() ? columns - before.size() : 0;
  return before + cutInTheMiddle(shownName(job.path), room);
}

std::string freeRoomLine(const Progress::Destination& destination, std::size_t columns) {
  const std::string behind = fmt::format(": {} free", shownBytes(destination.freeBytes));
  const std::size_t room = columns > behind.size() ? columns - behind.size() : 0;
  return cutInTheMiddle(shownName(destination.path), room) + behind;
}

std::string totalsLine(const Progress& progress) {
  return fmt::format("{} of {} files, {} of {}, {}", shownCount(progress.filesDone), shownCount(progress.files),
                     shownBytes(progress.bytesDone), shownBytes(progress.bytes), shownFailures(progress.failures));
}

std::string bar(double share, std::size_t length) {
  const auto done =
      std::min(length, static_cast<std::size_t>(std::clamp(share, 0.0, 1.0) * static_cast<double>(length)));
  return fmt::format("[{}{}]", std::string(done, '#'), std::string(length - done, '-'));
}

}  // namespace

TerminalDisplay::TerminalDisplay(OutputStream& results, OutputStream& messages, Look look)
    : _results(results), _messages(messages), _look(std::move(look)) {}

void TerminalDisplay::take(const Event& event) {
  if (_isFinished) return;
  _running.take(event);
  if (std::holds_alternative<Stopping>(event)) _isStopping = true;
  if (const std::string lines = messageLines(event, _look.quiet); !lines.empty()) sayAbove(lines);
  if (const auto* file = std::get_if<FileEnded>(&event); file != nullptr && file->outcome == FileOutcome::failed) {
    _lastFailure = fmt::format("failed: {}: {}", shownName(file->path), shownText(file->reason));
  }
  if (const auto* looking = std::get_if<Looking>(&event)) {
    _looking = looking->text;
    redraw();
  }
  if (const auto* progress = std::get_if<Progress>(&event)) {
    _looking.clear();
    _progress = *progress;
    _share = std::max(_share, progress->share);
    if (progress->isAsked) sayAbove(stateReport(*progress, _running));
    redraw();
  }
  if (const auto* finished = std::get_if<Finished>(&event)) takeEnd(*finished);
}

void TerminalDisplay::redraw() {
  if (_look.quiet) return;
  const platform::TerminalSize size = _look.size();
  const std::vector<Line> lines = linesAt(size);
  // A drawing that a slow terminal would show too late is left out; what stands there is then still the one before.
  if (!_messages.writeUnlessWaiting(toTheTop(size.columns) + drawing(lines))) return;
  _drawn.clear();
  for (const Line& line : lines) _drawn.push_back(columnsOf(line.text));
}

void TerminalDisplay::sayAbove(const std::string& lines) {
  const platform::TerminalSize size = _look.size();
  const bool isDrawn = !_drawn.empty();
  std::string text = toTheTop(size.columns);
  if (isDrawn) text += eraseBelow;
  if (!_messages.write(text + lines)) return;
  _drawn.clear();
  if (isDrawn) redraw();
}

void TerminalDisplay::takeEnd(const Finished& finished) {
  _isFinished = true;
  std::string last = toTheTop(_look.size().columns);
  if (!_drawn.empty()) last += eraseBelow;
  if (_isStopping) last += howToGoOn();
  _messages.writeAlways(last);
  const ResultLook look{.quiet = _look.quiet, .colours = _look.resultColours};
  _results.writeAlwaysAfter(_messages, resultLines(finished.verdict, look));
}

// The bar and the totals come first where there are few rows; one is left for the cursor, and the last column stays empty,
// since terminals differ in what happens behind it.
std::vector<TerminalDisplay::Line> TerminalDisplay::linesAt(platform::TerminalSize size) const {
  const std::size_t columns = size.columns > 1 ? size.columns - 1 : 1;
  if (size.rows < 2) return {};
  if (!_progress) return runningLines(columns, 1);
  std::size_t room = size.rows - 1;
  const Line barOfAll{.text = cutInTheMiddle(barLine(columns), columns), .colour = Colour::good};
  if (room == 1) return {barOfAll};
  const Line totals{.text = cutInTheMiddle(totalsLine(*_progress), columns),
                    .colour = _progress->failures == 0 ? Colour::none : Colour::bad};
  room -= 2;
  std::vector<Line> lastFailure;
  if (!_lastFailure.empty() && room > 0) {
    lastFailure.push_back({.text = cutInTheMiddle(_lastFailure, columns), .colour = Colour::bad});
    --room;
  }
  const std::size_t forRunning = std::min(mostRunningLines, std::max<std::size_t>(room / 2, room > 0 ? 1 : 0));
  std::vector<Line> lines = runningLines(columns, forRunning);
  const std::vector<Line> destinations = destinationLines(columns, room - lines.size());
  lines.push_back(barOfAll);
  lines.push_back(totals);
  lines.insert(lines.end(), lastFailure.begin(), lastFailure.end());
  lines.insert(lines.end(), destinations.begin(), destinations.end());
  return lines;
}

std::vector<TerminalDisplay::Line> TerminalDisplay::runningLines(std::size_t columns, std::size_t atMost) const {
  if (!_looking.empty()) return {{.text = cutInTheMiddle(_looking, columns)}};
  std::vector<Line> lines;
  const std::size_t count = _running.all().size();
  for (const auto& [number, job] : _running.all()) {
    if (lines.size() == atMost) break;
    const bool isLast = lines.size() + 1 == atMost && count > atMost && atMost > 1;
    const std::string text = isLast ? fmt::format("and {} more", count - lines.size()) : runningLine(job, columns);
    lines.push_back({.text = cutInTheMiddle(text, columns)});
  }
  return lines;
}

std::vector<TerminalDisplay::Line> TerminalDisplay::destinationLines(std::size_t columns, std::size_t atMost) const {
  std::vector<Line> lines;
  const std::vector<Progress::Destination>& destinations = _progress->destinations;
  for (const Progress::Destination& destination : destinations) {
    if (lines.size() == atMost) break;
    const bool isLast = lines.size() + 1 == atMost && destinations.size() > atMost;
    const std::string text = isLast ? fmt::format("and {} more destinations", destinations.size() - lines.size())
                                    : freeRoomLine(destination, columns);
    lines.push_back({.text = cutInTheMiddle(text, columns), .colour = Colour::faint});
  }
  return lines;
}

// What is beside the bar gives way to it, the rate first.
std::string TerminalDisplay::barLine(std::size_t columns) const {
  const std::string share = fmt::format("  {}", shownShare(_share));
  const std::string left =
      _progress->secondsLeft ? fmt::format("  {} left", shownDuration(*_progress->secondsLeft)) : std::string();
  const auto bytesPerSecond = static_cast<uint64_t>(std::clamp(_progress->bytesPerSecond, 0.0, 1e15));
  const std::string rate = bytesPerSecond == 0 ? "" : fmt::format("  {}/s", shownBytes(bytesPerSecond));
  for (const std::string& beside : {fmt::format("{}{}{}", share, rate, left), share + left, share}) {
    const std::size_t taken = beside.size() + 2;  // with the brackets
    if (columns < taken + shortestBar) continue;
    return bar(_share, std::min(longestBar, columns - taken)) + beside;
  }
  return shownShare(_share);
}

std::string TerminalDisplay::drawing(const std::vector<Line>& lines) const {
  constexpr std::string_view plain = "\x1b[0m";
  constexpr std::array<std::string_view, 4> colours{"", "\x1b[32m", "\x1b[31m", "\x1b[2m"};  // by Colour
  std::string drawn;
  for (const Line& line : lines) {
    const std::string_view colour = _look.colours ? colours.at(static_cast<std::size_t>(line.colour)) : "";
    drawn += fmt::format("{}{}{}{}\n", colour, line.text, colour.empty() ? "" : plain, eraseToEndOfLine);
  }
  return drawn + std::string(eraseBelow);
}

// From below the drawn lines to the beginning of the first. A terminal that has become narrower has broken those that no longer
// fit.
std::string TerminalDisplay::toTheTop(std::size_t columns) const {
  std::size_t rows = 0;
  for (const std::size_t width : _drawn) rows += width <= columns ? 1 : (width + columns - 1) / columns;
  return rows == 0 ? "" : fmt::format("\r\x1b[{}A", rows);
}

}  // namespace kdxoffload
