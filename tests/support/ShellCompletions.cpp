#include "tests/support/ShellCompletions.h"

#include <gtest/gtest.h>

#include "tests/support/ManualPage.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

std::vector<std::string> offersOfShell(const Shell& shell, const std::string& line, const std::string& folder) {
  const ScratchDirectory home;
  const std::string script = sourceTreePath(std::string("tests/completions/offers.") + shell.name);
  const ToolRun run = runTool(
      ToolStart{.wrapper = {shell.name, shell.configurationLess, script, sourceTreePath(shell.completions), line},
                .workingDirectory = folder,
                .environment = {{"HOME", home.path().string()}}});
  EXPECT_EQ(0, run.exitStatus) << line;
  EXPECT_EQ("", run.errors) << line;
  return run.lines();
}

std::vector<std::string> withoutDescriptions(std::vector<std::string> offers) {
  for (std::string& offer : offers) offer = offer.substr(0, offer.find('\t'));
  return offers;
}
