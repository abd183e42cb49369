#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

// Runs of the built program for whole cards, in a scratch folder with a card to be filled and a catalogue of its own.
class CardOffload : public testing::Test {
 protected:
  CardOffload();

  [[nodiscard]] std::string path(const std::string& name) const { return scratch.path() / name; }

  // A card with clips, a sequence, small files, odd names, an empty folder and a link that leads out of it.
  void fillCard() const;

  // Relative paths are relative to the scratch folder.
  [[nodiscard]] ToolStart start(std::vector<std::string> arguments) const;
  [[nodiscard]] ToolRun offload(std::vector<std::string> arguments) const {
    return runTool(start(std::move(arguments)));
  }

  // Name, mode and time of change of everything below a folder, and what the files and links hold.
  [[nodiscard]] std::vector<std::string> everythingIn(const std::string& folder) const;

  static void waitForFile(const std::string& file);
  // Until the workers of a run that was killed are gone.
  void waitForLock(const std::string& folder) const;

  const ScratchDirectory scratch;
};

// Names of files, or lines of everythingIn, without those of the manifests of a destination. Fails the test where anything else than
// manifests is among them.
std::vector<std::string> withoutManifests(const std::vector<std::string>& names);

// The line that stands last on standard output: the verdict.
std::string lastLine(const ToolRun& run);
