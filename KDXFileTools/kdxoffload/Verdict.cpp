#include "KDXFileTools/kdxoffload/Verdict.h"

#include <fmt/format.h>

#include "KDXFileTools/kdxoffload/ExitStatus.h"

namespace kdxoffload {

Verdict verdictOf(const VerdictFacts& facts) {
  Verdict verdict;
  for (EntryIndex index = 0; index < facts.before.entries.size(); ++index) {
    const Entry& entry = facts.before.entries[index];
    if (entry.facts.kind != platform::ItemKind::file) continue;
    ++verdict.files;
    verdict.bytes += entry.facts.size;
    if (facts.results.isProvedEverywhere(index)) {
      ++verdict.proved;
      continue;
    }
    const auto failure = facts.results.failures.find(index);
    NotProved lacking{.path = facts.before.pathOf(index)};
    if (failure != facts.results.failures.end()) {
      lacking.status = failure->second.status;
      lacking.reason = failure->second.reason;
    }
    verdict.notProved.push_back(lacking);
  }
  verdict.isSafe = verdict.notProved.empty() && verdict.files != 0;
  verdict.exitStatus = verdict.isSafe ? ExitStatus::safe : ExitStatus::notProved;
  verdict.line = verdict.isSafe
                     ? fmt::format("SAFE TO ERASE: {} files ({}) are proved on {} destinations.",
                                   shownCount(verdict.files), shownBytes(verdict.bytes), facts.destinationPaths.size())
                     : fmt::format("DO NOT ERASE: {} of {} files are not proved.", shownCount(verdict.notProved.size()),
                                   shownCount(verdict.files));
  return verdict;
}

std::string shownBytes(uint64_t bytes) {
  return fmt::format("{} bytes", bytes);
}

std::string shownCount(uint64_t count) {
  return fmt::format("{}", count);
}

std::string reasonForStatus(int status) {
  return fmt::format("the job ended with status {}", status);
}

std::string adviceForStatus(int /*status*/) {
  return "";
}

std::string reasonForObstacle(Obstacle obstacle) {
  return fmt::format("obstacle {}", static_cast<int>(obstacle));
}

}  // namespace kdxoffload
