#include "KDXFileTools/kdxoffload/SequenceFinder.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <span>
#include <tuple>

#include "KDXFileTools/kdxdispatchcopy/KDXFileSequence.h"

namespace kdxoffload {

namespace {

constexpr std::size_t fewestFrames = 3;
constexpr std::size_t mostDigits = 10;  // those of the largest number of a frame
constexpr std::string_view digitsOfNumbers = "0123456789";

// A file that may be a frame, and what its name says.
struct Candidate {
  FrameName name{};
  EntryIndex index = 0;
};

// Files with the same group differ in their numbers alone.
auto groupOf(const Candidate& candidate) {
  return std::tuple(candidate.name.prefix, candidate.name.postfix, candidate.name.digits.size());
}

using Candidates = std::span<const Candidate>;

// Without the extension; one of digits alone is a number, and a dot in front begins a hidden file's name.
std::string_view stemOf(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return name;
  const std::string_view extension = name.substr(dot + 1);
  const bool isNumber = extension.find_first_not_of(digitsOfNumbers) == std::string_view::npos;
  return isNumber && !extension.empty() ? name : name.substr(0, dot);
}

// "%" begins a directive in an identifier; two of them stand for one.
std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) result += c == '%' ? std::string("%%") : std::string(1, c);
  return result;
}

std::string patternOf(const FrameName& name) {
  return fmt::format("{}{}{}", name.prefix, std::string(name.digits.size(), '#'), name.postfix);
}

std::string identifierOf(Candidates frames) {
  const FrameName& first = frames.front().name;
  return fmt::format("{}{}-{}.{}{}", escaped(first.prefix), first.digits, frames.back().name.digits,
                     std::string(first.digits.size(), '#'), escaped(first.postfix));
}

std::string_view nameOf(const Listing& card, const Candidate& candidate) {
  return card.entries[candidate.index].name;
}

// The parser has the last word: names may hold what it takes for a part of the range.
bool givesBackTheNames(const Listing& card, const std::string& identifier, Candidates frames) {
  // As the job will see it: with a folder in front.
  const auto sequence = KDXFileSequence::initWithIdentifier('/' + identifier);
  if (!sequence || sequence->startFrame() != frames.front().name.number ||
      sequence->endFrameInclusive() != frames.back().name.number) {
    return false;
  }
  return std::ranges::all_of(frames, [&](const Candidate& frame) {
    const std::optional<std::string> path = sequence->filenameForFrameNumber(frame.name.number);
    return path && std::string_view(*path).substr(1) == nameOf(card, frame);
  });
}

std::vector<Candidate> candidatesIn(const Listing& card, EntryIndex first, EntryIndex end) {
  std::vector<Candidate> candidates;
  for (EntryIndex index = first; index < end; ++index) {
    const Entry& entry = card.entries[index];
    if (entry.facts.kind != platform::ItemKind::file) continue;
    const std::optional<FrameName> name = frameNameOf(entry.name);
    if (name) candidates.push_back({.name = *name, .index = index});
  }
  std::ranges::sort(candidates, {}, [](const Candidate& candidate) {
    return std::tuple_cat(groupOf(candidate), std::tuple(candidate.name.number));
  });
  return candidates;
}

// Calls take(part) for each longest part whose neighbours belong together.
template <typename Together, typename Take>
void forEachRun(Candidates candidates, Together together, Take take) {
  while (!candidates.empty()) {
    std::size_t length = 1;
    while (length < candidates.size() && together(candidates[length - 1], candidates[length])) ++length;
    take(candidates.first(length));
    candidates = candidates.subspan(length);
  }
}

std::string shownRange(const Candidate& before, const Candidate& after) {
  const std::size_t width = before.name.digits.size();
  std::string first = fmt::format("{:0{}}", before.name.number + 1, width);
  if (after.name.number - before.name.number == 2) return first;
  return fmt::format("{}-{:0{}}", first, after.name.number - 1, width);
}

// What is missing in a group; empty where nothing is.
std::string shownGaps(Candidates group) {
  constexpr std::size_t mostShown = 8;
  std::string shown;
  std::size_t gaps = 0;
  for (std::size_t position = 1; position < group.size(); ++position) {
    if (group[position].name.number - group[position - 1].name.number == 1) continue;
    if (++gaps > mostShown) continue;
    shown += (shown.empty() ? "" : ", ") + shownRange(group[position - 1], group[position]);
  }
  if (gaps > mostShown) shown += fmt::format(" and {} more gaps", gaps - mostShown);
  return shown;
}

std::optional<std::string> warningOf(const Listing& card, Candidates group, const FrameChoice& choice) {
  const auto frames =
      std::ranges::count_if(group, [&](const Candidate& file) { return choice.isSmallEnough(file.index); });
  if (static_cast<std::size_t>(frames) < fewestFrames) return std::nullopt;
  const std::string gaps = shownGaps(group);
  if (gaps.empty()) return std::nullopt;
  const std::string folder = card.folderOf(group.front().index);
  return fmt::format("frames are missing in {}{}{}: {}", folder, folder.empty() ? "" : "/",
                     patternOf(group.front().name), gaps);
}

void addSequences(const Listing& card, Candidates group, const FrameChoice& choice, FoundSequences& found) {
  const auto fits = [&](const Candidate& file) {
    return choice.isSmallEnough(file.index) && choice.canBeFrame(file.index);
  };
  const auto isNext = [&](const Candidate& one, const Candidate& next) {
    return next.name.number - one.name.number == 1 && fits(one) && fits(next) &&
           choice.isSameWork(one.index, next.index);
  };
  forEachRun(group, isNext, [&](Candidates frames) {
    if (frames.size() < fewestFrames) return;
    FoundSequence sequence{.identifier = identifierOf(frames)};
    if (!givesBackTheNames(card, sequence.identifier, frames)) return;
    for (const Candidate& frame : frames) sequence.frames.push_back(frame.index);
    found.sequences.push_back(std::move(sequence));
  });
}

}  // namespace

std::optional<FrameName> frameNameOf(std::string_view name) {
  const std::string_view stem = stemOf(name);
  const std::size_t last = stem.find_last_of(digitsOfNumbers);
  if (last == std::string_view::npos) return std::nullopt;
  const std::size_t before = stem.find_last_not_of(digitsOfNumbers, last);
  const std::size_t first = before == std::string_view::npos ? 0 : before + 1;
  const std::string_view digits = stem.substr(first, last + 1 - first);
  if (digits.size() > mostDigits) return std::nullopt;
  uint64_t number = 0;
  for (const char digit : digits) number = number * 10 + static_cast<uint64_t>(digit - '0');
  if (number > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) return std::nullopt;
  return FrameName{.prefix = name.substr(0, first),
                   .digits = digits,
                   .postfix = name.substr(last + 1),
                   .number = static_cast<uint32_t>(number)};
}

FoundSequences findSequences(const Listing& card, EntryIndex first, EntryIndex end, const FrameChoice& choice) {
  FoundSequences found;
  const std::vector<Candidate> candidates = candidatesIn(card, first, end);
  const auto isOneGroup = [](const Candidate& one, const Candidate& next) { return groupOf(one) == groupOf(next); };
  forEachRun(candidates, isOneGroup, [&](Candidates group) {
    if (group.size() < fewestFrames) return;
    if (std::optional<std::string> warning = warningOf(card, group, choice)) {
      found.warnings.push_back(std::move(*warning));
    }
    addSequences(card, group, choice, found);
  });
  return found;
}

}  // namespace kdxoffload
