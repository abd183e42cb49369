#include "KDXFileTools/kdxoffload/WorkerOutput.h"

#include <algorithm>
#include <charconv>

namespace kdxoffload {

namespace {

// Takes the text off the start of the line; false, and nothing changed, when the line starts with something else.
bool takeText(std::string_view& line, std::string_view text) {
  if (!line.starts_with(text)) return false;
  line.remove_prefix(text.size());
  return true;
}

template <typename Number>
bool takeNumber(std::string_view& line, Number& number) {
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
  if (error != std::errc()) return false;
  line.remove_prefix(static_cast<std::size_t>(end - line.data()));
  return true;
}

// "268435456 bytes in 1.23456 sec (207.4 MB/sec)"
std::optional<double> secondsOfSpeed(std::string_view line) {
  uint64_t bytes = 0;
  double seconds = 0;
  const bool isSpeed = takeNumber(line, bytes) && takeText(line, " bytes in ") && takeNumber(line, seconds);
  return isSpeed ? std::optional(seconds) : std::nullopt;
}

bool isComplaint(std::string_view line) {
  constexpr std::string_view beginnings[] = {"ERROR", "Error: ", "failed to ", "write failed", "the expected filesize"};
  return std::ranges::any_of(beginnings, [line](std::string_view text) { return line.starts_with(text); });
}

}  // namespace

void WorkerOutput::startJob(std::size_t frames, std::size_t destinations) {
  *this = WorkerOutput();
  _frames = frames;
  _readers = destinations + 1;
}

void WorkerOutput::add(std::string_view bytes) {
  _partial += bytes;
  std::size_t start = 0;
  for (std::size_t end = 0; (end = _partial.find('\n', start)) != std::string::npos; start = end + 1) {
    takeLine(std::string_view(_partial).substr(start, end - start));
  }
  _partial.erase(0, start);
  // No line of a job is that long: what this is will never be one.
  constexpr std::size_t longestLine = std::size_t{64} << 10;
  if (_partial.size() > longestLine) _partial.clear();
}

uint64_t WorkerOutput::bytesInPhase() const {
  if (_phase == JobPhase::copying) return _bytesCopied;
  if (_phase == JobPhase::flushing || _bytesRead.size() < _readers) return 0;
  return std::ranges::min_element(_bytesRead, {}, [](const auto& reader) { return reader.second; })->second;
}

void WorkerOutput::takeLine(std::string_view line) {
  if (isComplaint(line)) _complaint = line;
  if (takeText(line, "hash ")) {
    if (const auto digest = FileDigest::fromText(line); digest && _digests.size() < _frames)
      _digests.push_back(*digest);
    return;
  }
  if (!takeText(line, "INFO: ")) return;
  if (takeText(line, "copied ")) {
    takeNumber(line, _bytesCopied);
  } else if (takeText(line, "copy speed ")) {
    _secondsCopying = secondsOfSpeed(line).value_or(0);
  } else if (takeText(line, "verification speed ")) {
    _secondsReadingBack = secondsOfSpeed(line).value_or(0);
  } else if (takeText(line, "verifying ")) {
    _phase = JobPhase::readingBack;
  } else if (takeText(line, "verified ")) {
    takeVerified(line);
  } else if (takeText(line, "moving ")) {
    _phase = JobPhase::flushing;
  }
}

// "4096 of 268435456 bytes of path /card"
void WorkerOutput::takeVerified(std::string_view line) {
  uint64_t bytes = 0;
  uint64_t total = 0;
  if (!takeNumber(line, bytes) || !takeText(line, " of ") || !takeNumber(line, total)) return;
  if (!takeText(line, " bytes of path ")) return;
  const auto reader =
      std::ranges::find(_bytesRead, line, [](const auto& known) { return std::string_view(known.first); });
  if (reader != _bytesRead.end()) {
    reader->second = bytes;
  } else if (_bytesRead.size() < _readers) {
    _bytesRead.emplace_back(line, bytes);
  }
}

}  // namespace kdxoffload
