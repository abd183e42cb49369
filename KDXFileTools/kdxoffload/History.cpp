#include "KDXFileTools/kdxoffload/History.h"

#include <fmt/format.h>

#include <array>
#include <ctime>

#include "KDXFileTools/kdxoffload/JsonText.h"
#include "KDXFileTools/kdxoffload/ShownName.h"

namespace kdxoffload {

namespace {

using nlohmann::ordered_json;

// "2026-11-22 21:40"; a number that no clock shows as it is.
std::string shownTime(int64_t seconds) {
  const std::time_t time = seconds;
  std::tm local{};
  constexpr std::size_t enough = 64;
  std::array<char, enough> text{};
  if (::localtime_r(&time, &local) == nullptr) return fmt::format("{}", seconds);
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &local);
  return {text.data(), length};
}

std::string howItEnded(const OffloadRecord& offload) {
  if (!offload.ended) return "It did not end: it was killed, or is at work.";
  return fmt::format("{} ({}, exit status {})", shownText(offload.verdict), shownTime(*offload.ended),
                     offload.exitStatus);
}

std::string textOf(const OffloadRecord& offload) {
  std::string text = fmt::format("{}  {}\n", shownTime(offload.started), shownName(offload.card));
  for (const std::string& destination : offload.destinations) text += fmt::format("  to {}\n", shownName(destination));
  return text + fmt::format("  {}\n", howItEnded(offload));
}

ordered_json objectOf(const OffloadRecord& offload) {
  ordered_json object{{"type", "offload"}, {"number", offload.number}};
  JsonText::addPath(object, offload.card, "card");
  object["destinations"] = ordered_json::array();
  for (const std::string& destination : offload.destinations) {
    ordered_json place = ordered_json::object();
    JsonText::addPath(place, destination);
    object["destinations"].push_back(place);
  }
  const bool hasEnded = offload.ended.has_value();
  object["started"] = offload.started;
  object["ended"] = hasEnded ? ordered_json(*offload.ended) : ordered_json(nullptr);
  object["exit_status"] = hasEnded ? ordered_json(offload.exitStatus) : ordered_json(nullptr);
  object["files"] = offload.files;
  object["proved"] = offload.proved;
  object["bytes"] = offload.bytes;
  object["text"] = hasEnded ? ordered_json(offload.verdict) : ordered_json(nullptr);
  return object;
}

}  // namespace

std::string historyText(std::span<const OffloadRecord> offloads) {
  std::string text;
  for (const OffloadRecord& offload : offloads) text += textOf(offload);
  return text.empty() ? "Nothing was offloaded yet.\n" : text;
}

std::string historyLines(std::span<const OffloadRecord> offloads) {
  std::string lines;
  for (const OffloadRecord& offload : offloads) lines += JsonText::lineOf(objectOf(offload));
  return lines;
}

}  // namespace kdxoffload
