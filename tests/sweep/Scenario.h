#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/ScratchDirectory.h"
#include "tests/sweep/SupervisedRun.h"

// A call that always fails, on the card and in the folders: the file system lacks something.
struct Lack {
  std::string call;
  int error = 0;
  std::string where{};  // empty: in all of these
};

// One way to use the tool that the sweep goes through.
struct Scenario {
  std::string name;
  bool isSequence = false;
  std::vector<std::string> options{};
  bool replacesFiles = false;  // there are other files at the final names, and old temporary files
  std::vector<Lack> lacks{};
  std::size_t clipSize = MiB + 17;  // two read buffers, and a tail that is not a whole block
};

// Runs with default options, -k, -n and -f, of a clip and of a sequence, and of a clip too small for threads.
std::vector<Scenario> plainScenarios();
// Runs on file systems that lack something, so that the tool works around it.
std::vector<Scenario> lackingScenarios();
