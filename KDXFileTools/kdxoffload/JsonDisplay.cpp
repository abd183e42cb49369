#include "KDXFileTools/kdxoffload/JsonDisplay.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <string_view>

#include "KDXFileTools/kdxoffload/JsonText.h"
#include "KDXFileTools/kdxoffload/MessageLines.h"
#include "KDXFileTools/kdxoffload/StateLines.h"

namespace kdxoffload {

namespace {

using nlohmann::ordered_json;

constexpr double secondsBetweenStatuses = 1;

// To the millisecond: more digits were not measured.
double seconds(double measured) {
  constexpr double parts = 1000;
  return std::round(measured * parts) / parts;
}

// Null where there is nothing to say.
ordered_json textOrNull(const std::string& text) {
  return text.empty() ? ordered_json(nullptr) : ordered_json(text);
}

std::string_view nameOf(JobPhase phase) {
  switch (phase) {
    case JobPhase::copying:
      return "copying";
    case JobPhase::readingBack:
      return "reading-back";
    case JobPhase::flushing:
      return "flushing";
  }
  return "";
}

std::string_view nameOf(FileOutcome outcome) {
  switch (outcome) {
    case FileOutcome::proved:
      return "proved";
    case FileOutcome::alreadyProved:
      return "already-proved";
    case FileOutcome::adopted:
      return "adopted";
    case FileOutcome::failed:
      return "failed";
    case FileOutcome::excluded:
      return "excluded";
  }
  return "";
}

std::string_view nameOf(platform::ReadBack readBack) {
  switch (readBack) {
    case platform::ReadBack::device:
      return "device";
    case platform::ReadBack::clientCacheBypassed:
      return "client-cache-bypassed";
    case platform::ReadBack::unknown:
      break;
  }
  return "unknown";
}

ordered_json objectOf(const Planned& planned) {
  return {{"type", "plan"},
          {"files", planned.files},
          {"folders", planned.folders},
          {"links", planned.links},
          {"bytes", planned.bytes},
          {"sequences", planned.sequences},
          {"done_before", planned.filesDoneBefore}};
}

ordered_json objectOf(const FileEnded& file) {
  ordered_json object{{"type", "file"}};
  JsonText::addPath(object, file.path);
  object["size"] = file.size;
  object["digest"] = textOrNull(file.digest.text());
  object["outcome"] = nameOf(file.outcome);
  object["status"] = file.status;
  object["reason"] = textOrNull(file.reason);
  object["seconds"] = seconds(file.jobSeconds);
  return object;
}

ordered_json objectOfText(std::string_view type, const std::string& text, const std::optional<std::string>& path) {
  ordered_json object{{"type", type}, {"text", text}};
  if (path) JsonText::addPath(object, *path);
  return object;
}

ordered_json objectOf(const RunningJob& job) {
  ordered_json object = ordered_json::object();
  JsonText::addPath(object, job.path);
  object["phase"] = nameOf(job.phase);
  return object;
}

ordered_json objectOf(const Progress& progress, const RunningJobs& running) {
  ordered_json object{{"type", "status"},
                      {"seconds", seconds(progress.seconds)},
                      {"seconds_left", nullptr},
                      {"bytes_done", progress.bytesDone},
                      {"bytes", progress.bytes},
                      {"files_done", progress.filesDone},
                      {"files", progress.files},
                      {"failures", progress.failures},
                      {"running", ordered_json::array()}};
  if (progress.secondsLeft) object["seconds_left"] = seconds(*progress.secondsLeft);
  for (const auto& [number, job] : running.all()) object["running"].push_back(objectOf(job));
  return object;
}

ordered_json objectOf(const Finished::Destination& destination) {
  ordered_json object = ordered_json::object();
  JsonText::addPath(object, destination.path);
  object["file_system"] = destination.fileSystem;
  object["read_back"] = nameOf(destination.readBack);
  return object;
}

ordered_json objectOf(const NotProved& file) {
  ordered_json object = ordered_json::object();
  JsonText::addPath(object, file.path);
  object["status"] = file.status;
  object["reason"] = textOrNull(file.reason);
  return object;
}

ordered_json objectOf(const Finished& finished) {
  const Verdict& verdict = finished.verdict;
  ordered_json object{{"type", "summary"},
                      {"verdict", verdict.isSafe ? "safe" : "not-safe"},
                      {"exit_status", verdict.exitStatus},
                      {"files", verdict.files},
                      {"proved", verdict.proved},
                      {"bytes", verdict.bytes},
                      {"seconds", seconds(finished.seconds)},
                      {"destinations", ordered_json::array()},
                      {"not_proved", ordered_json::array()}};
  for (const Finished::Destination& destination : finished.destinations) {
    object["destinations"].push_back(objectOf(destination));
  }
  for (const NotProved& file : verdict.notProved) object["not_proved"].push_back(objectOf(file));
  return object;
}

ordered_json warningOf(const std::string& text) {
  return objectOfText("warning", text, std::nullopt);
}

}  // namespace

JsonDisplay::JsonDisplay(OutputStream& results) : _results(results) {}
JsonDisplay::JsonDisplay(OutputStream& results, OutputStream& messages) : _results(results), _messages(&messages) {}

void JsonDisplay::take(const Event& event) {
  if (_isFinished) return;
  _running.take(event);
  if (const auto* planned = std::get_if<Planned>(&event)) _results.write(JsonText::lineOf(objectOf(*planned)));
  if (const auto* looking = std::get_if<Looking>(&event);
      looking != nullptr && looking->isAsked && _messages != nullptr) {
    _messages->write(messageLines(event, true));
  }
  if (const auto* progress = std::get_if<Progress>(&event)) takeState(*progress);
  if (const auto* file = std::get_if<FileEnded>(&event)) _results.write(JsonText::lineOf(objectOf(*file)));
  if (const auto* warned = std::get_if<Warned>(&event)) {
    _warned.insert(warned->text);
    _results.write(JsonText::lineOf(objectOfText("warning", warned->text, warned->path)));
  }
  if (const auto* error = std::get_if<ErrorReported>(&event)) {
    _results.write(JsonText::lineOf(objectOfText("error", error->text, error->path)));
  }
  if (const auto* finished = std::get_if<Finished>(&event)) takeEnd(*finished);
}

void JsonDisplay::takeState(const Progress& progress) {
  if (progress.isAsked && _messages != nullptr) _messages->write(stateReport(progress, _running));
  if (!progress.isAsked && progress.seconds < _nextStatus) return;
  _nextStatus = progress.seconds + secondsBetweenStatuses;
  _results.writeUnlessWaiting(JsonText::lineOf(objectOf(progress, _running)));
}

void JsonDisplay::takeEnd(const Finished& finished) {
  _isFinished = true;
  std::string lines;
  for (const auto* texts : {&finished.verdict.changes, &finished.verdict.remarks}) {
    for (const std::string& text : *texts) {
      // Warnings are said again beside the verdict, for people; a program has read them.
      if (_warned.insert(text).second) lines += JsonText::lineOf(warningOf(text));
    }
  }
  if (const uint64_t dropped = _results.dropped(); dropped != 0) {
    lines += JsonText::lineOf(warningOf(fmt::format("{} lines were left out, since nobody read them", dropped)));
  }
  _results.writeAlways(lines + JsonText::lineOf(objectOf(finished)));
}

}  // namespace kdxoffload
