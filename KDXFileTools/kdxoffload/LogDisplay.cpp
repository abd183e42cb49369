#include "KDXFileTools/kdxoffload/LogDisplay.h"

#include <fmt/format.h>

#include <cmath>

#include "KDXFileTools/kdxoffload/MessageLines.h"
#include "KDXFileTools/kdxoffload/ResultLines.h"
#include "KDXFileTools/kdxoffload/ShownName.h"
#include "KDXFileTools/kdxoffload/StateLines.h"

namespace kdxoffload {

namespace {

constexpr double secondsBetweenStates = 30;

std::string lineOf(const FileEnded& file, bool readsBack) {
  const std::string name = shownName(file.path);
  const std::string facts = fmt::format("{}, {}, {:.1f} s", shownBytes(file.size), file.digest.text(), file.jobSeconds);
  switch (file.outcome) {
    case FileOutcome::proved:
      return fmt::format("{}: {} ({})\n", readsBack ? "proved" : "copied", name, facts);
    case FileOutcome::adopted:
      return fmt::format("stood there and is equal: {} ({})\n", name, facts);
    case FileOutcome::failed:
      return fmt::format("failed: {}: {}{}\n", name, shownText(file.reason),
                         file.status == 0 ? "" : fmt::format(" (status {})", file.status));
    case FileOutcome::excluded:
      return fmt::format("left out: {}\n", name);
    case FileOutcome::alreadyProved:
      break;
  }
  return "";
}

}  // namespace

LogDisplay::LogDisplay(OutputStream& results, OutputStream& messages, bool quiet)
    : _results(results), _messages(messages), _quiet(quiet), _nextState(secondsBetweenStates) {}

void LogDisplay::take(const Event& event) {
  if (const auto* ended = std::get_if<JobEnded>(&event)) takeOfJob(*ended);
  _running.take(event);
  if (const std::string lines = messageLines(event, _quiet); !lines.empty()) _messages.write(lines);
  if (const auto* planned = std::get_if<Planned>(&event)) _readsBack = planned->readBack;
  if (const auto* job = std::get_if<JobStarted>(&event); job != nullptr && job->frames > 1) {
    _sequences[job->job] = {.path = job->path, .frames = job->frames};
  }
  if (const auto* file = std::get_if<FileEnded>(&event)) takeOfFile(*file);
  if (const auto* progress = std::get_if<Progress>(&event)) takeState(*progress);
  if (std::holds_alternative<Stopping>(event)) _isStopping = true;
  if (const auto* finished = std::get_if<Finished>(&event)) takeEnd(*finished);
}

void LogDisplay::takeOfJob(const JobEnded& ended) {
  const RunningJob* job = _running.find(ended.job);
  if (job == nullptr || !ended.willBeTriedAgain) return;
  say(fmt::format("will be tried again: {} (status {})\n", shownName(job->path), ended.status));
  _sequences.erase(ended.job);
}

void LogDisplay::takeOfFile(const FileEnded& ended) {
  const auto sequence = ended.sequenceJob ? _sequences.find(*ended.sequenceJob) : _sequences.end();
  if (sequence == _sequences.end()) return say(lineOf(ended, _readsBack));
  takeOfFrame(sequence->second, ended);
  if (sequence->second.framesEnded == sequence->second.frames) _sequences.erase(sequence);
}

void LogDisplay::takeOfFrame(Sequence& sequence, const FileEnded& ended) {
  ++sequence.framesEnded;
  if (ended.outcome == FileOutcome::proved) {
    ++sequence.framesProved;
    sequence.bytesProved += ended.size;
    sequence.jobSeconds = ended.jobSeconds;
  } else {
    say(lineOf(ended, _readsBack));
  }
  if (sequence.framesEnded != sequence.frames || sequence.framesProved == 0) return;
  say(fmt::format("{}: {} ({} frames, {}, {:.1f} s)\n", _readsBack ? "proved" : "copied", shownName(sequence.path),
                  shownCount(sequence.framesProved), shownBytes(sequence.bytesProved), sequence.jobSeconds));
}

void LogDisplay::takeState(const Progress& progress) {
  if (progress.isAsked) {
    _messages.write(stateReport(progress, _running));
    return;
  }
  if (progress.seconds < _nextState) return;
  _nextState = (std::floor(progress.seconds / secondsBetweenStates) + 1) * secondsBetweenStates;
  say(fmt::format("after {}: {}\n", shownDuration(progress.seconds), stateLine(progress)));
}

void LogDisplay::takeEnd(const Finished& finished) {
  if (_messages.dropped() != 0) {
    _messages.writeAlways(fmt::format("{} lines were left out, since nobody read them\n", _messages.dropped()));
  }
  if (_isStopping) _messages.writeAlways(howToGoOn());
  _results.writeAlwaysAfter(_messages, resultLines(finished.verdict, {.quiet = _quiet, .colours = false}));
}

void LogDisplay::say(const std::string& line) {
  if (!_quiet && !line.empty()) _messages.write(line);
}

}  // namespace kdxoffload
