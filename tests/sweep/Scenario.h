#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/ScratchDirectory.h"
#include "tests/sweep/SupervisedRun.h"

// A call that fails all along, on the card and in the folders: a file system that lacks something.
struct Lack {
  std::string call;
  int error = 0;
  std::string where{};  // empty: anywhere there
};

// One way to use the tool that the sweep goes through.
struct Scenario {
  std::string name;
  bool isSequence = false;
  std::vector<std::string> options{};
  bool replacesFiles = false;  // other files stand at the final names before, and an old temporary one beside each
  std::vector<Lack> lacks{};
  std::size_t clipSize = MiB + 17;  // of a clip: two read buffers, and a tail that is no whole block
};

// The runs with default options, -k, -n and -f, of a clip and of a sequence, and of a clip too small for threads.
std::vector<Scenario> plainScenarios();
// Runs on file systems that lack something, which take the roads around it.
std::vector<Scenario> lackingScenarios();
