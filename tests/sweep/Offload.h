#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/support/ScratchDirectory.h"
#include "tests/sweep/Scenario.h"
#include "tests/sweep/SupervisedRun.h"

// A card, two destination folders and the settings, in memory if possible.
class Offload {
 public:
  struct Copy {
    std::string name;       // the final name, below the root: "a/clip.mov"
    std::string temporary;  // the temporary name
    std::string bytes;      // the content that it must have
  };
  using Files = std::map<std::string, std::string>;  // contents, by name below the root

  explicit Offload(Scenario scenario);

  [[nodiscard]] const Scenario& scenario() const { return _scenario; }
  // In the order in which they get their final names.
  [[nodiscard]] const std::vector<Copy>& copies() const { return _copies; }
  [[nodiscard]] const Files& filesBefore() const { return _before; }
  [[nodiscard]] std::string path(const std::string& name) const { return _root.file(name); }
  [[nodiscard]] Files files() const;
  [[nodiscard]] std::vector<std::string> names() const { return namesBelow(_root.path()); }

  // Restores everything for the next run.
  void prepare() const;

  // Runs the tool. Calls that the scenario's file system lacks fail, and are not judged.
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
