#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/support/ScratchDirectory.h"
#include "tests/sweep/Scenario.h"
#include "tests/sweep/SupervisedRun.h"

// A card, two folders for what is offloaded from it, and the settings, in memory where that can be.
class Offload {
 public:
  struct Copy {
    std::string name;       // the final name, below the root: "a/clip.mov"
    std::string temporary;  // the temporary one
    std::string bytes;      // what it has to hold
  };
  using Files = std::map<std::string, std::string>;  // bytes by names below the root

  explicit Offload(Scenario scenario);

  [[nodiscard]] const Scenario& scenario() const { return _scenario; }
  // In the order in which they get their final names.
  [[nodiscard]] const std::vector<Copy>& copies() const { return _copies; }
  [[nodiscard]] const Files& filesBefore() const { return _before; }
  [[nodiscard]] std::string path(const std::string& name) const { return _root.file(name); }
  [[nodiscard]] Files files() const;
  [[nodiscard]] std::vector<std::string> names() const { return namesBelow(_root.path()); }

  // Puts all of it back as the run is to find it.
  void prepare() const;

  // Runs the tool on what is there. Calls that the file system lacks fail without being judged.
  [[nodiscard]] SupervisedRun run(const std::function<Verdict(const SystemCall&)>& judge,
                                  const std::vector<std::string>& moreOptions = {}) const;

 private:
  void addCopies(const std::vector<std::string>& names);

  Scenario _scenario;
  ScratchDirectory _root;
  Files _before;
  std::vector<Copy> _copies;
  std::vector<std::string> _arguments;
};
