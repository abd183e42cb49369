#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/JobOrder.h"
#include "platform/Folder.h"

namespace kdxoffload {

// Does orders, in a process of its own: a job of the first program may end it. Reaches everything through descriptors of
// the folders, which it hands to the jobs as paths, so that no link at a destination is followed and no path is too long.
// Used by one thread.
class JobWorker {
 public:
  explicit JobWorker(WorkerSetup setup);

  // May end the process instead of returning. Failures are in the result; a failed order may have done a part.
  JobResult perform(const JobOrder& order);

 private:
  // The folders of an order, open.
  struct Places {
    platform::Folder card;
    std::vector<platform::Folder> destinations{};  // those of the order, in their order
  };

  WorkerSetup _setup;
  std::optional<platform::Folder> _card;
  std::vector<std::optional<platform::Folder>> _destinations;
};

}  // namespace kdxoffload
