#include "tests/sweep/Scenario.h"

#include <cerrno>
#include <utility>

namespace {

void addBothJobs(std::vector<Scenario>& scenarios, const Scenario& scenario) {
  for (const bool isSequence : {false, true}) {
    Scenario& added = scenarios.emplace_back(scenario);
    added.name = (isSequence ? "sequence" : "clip") + scenario.name;
    added.isSequence = isSequence;
  }
}

}  // namespace

std::vector<Scenario> plainScenarios() {
  std::vector<Scenario> scenarios;
  addBothJobs(scenarios, {.name = ""});
  addBothJobs(scenarios, {.name = " -k", .options = {"-k"}});
  addBothJobs(scenarios, {.name = " -n", .options = {"-n"}});
  addBothJobs(scenarios, {.name = " -f", .options = {"-f"}, .replacesFiles = true});
  scenarios.push_back({.name = "small clip", .clipSize = 5001});
  return scenarios;
}

std::vector<Scenario> lackingScenarios() {
  const Lack noReplace{.call = "renameat2", .error = EINVAL};
  std::vector<Scenario> scenarios;
  addBothJobs(scenarios, {.name = " without O_DIRECT", .lacks = {{.call = "fcntl", .error = EINVAL}}});
  addBothJobs(scenarios, {.name = " -n without RENAME_NOREPLACE", .options = {"-n"}, .lacks = {noReplace}});
  addBothJobs(scenarios, {.name = " -n -f without RENAME_NOREPLACE",
                          .options = {"-n", "-f"},
                          .replacesFiles = true,
                          .lacks = {noReplace}});
  addBothJobs(scenarios, {.name = " -n without links",
                          .options = {"-n"},
                          .lacks = {noReplace, {.call = "link", .error = EPERM}, {.call = "linkat", .error = EPERM}}});
  addBothJobs(scenarios, {.name = " -n to folders that can't be read",
                          .options = {"-n"},
                          .lacks = {{.call = "openat", .error = EACCES, .where = "a"},
                                    {.call = "openat", .error = EACCES, .where = "b"}}});
  return scenarios;
}
