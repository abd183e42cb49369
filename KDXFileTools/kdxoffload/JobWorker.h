#pragma once

#include <optional>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/JobOrder.h"
#include "platform/Folder.h"

namespace kdxoffload {

// Does orders, in a process of its own: a job of the first program may end this process, and does so if it fails. Reaches
// everything through descriptors of folders, which it gives to the jobs as paths, so that no link at a destination is followed
// and no path is too long. Used by one thread.
class JobWorker {
 public:
  explicit JobWorker(WorkerSetup setup);

  // May end the process instead of returning. Failures are in the result. A failed order may be done in part.
  JobResult perform(const JobOrder& order);

 private:
  // A destination of the order at hand.
  struct Place {
    std::size_t position = 0;  // on the command line
    const platform::Folder* root = nullptr;
    platform::Folder folder;  // that of the order
  };

  // False, and a reason in the result, when one of them can't be reached.
  bool openPlaces(const JobOrder& order, JobResult& result);
  const platform::Folder* destination(std::size_t position, JobResult& result);

  void copy(const JobOrder& order, JobResult& result);
  void copyUnderAlias(const JobOrder& order, JobResult& result);
  void copySequence(const JobOrder& order, JobResult& result);
  void compare(const JobOrder& order, JobResult& result);
  void makeFolders(const JobOrder& order, JobResult& result);
  void makeLinks(const JobOrder& order, JobResult& result);
  void keepFolders(const JobOrder& order, JobResult& result);
  void sync(const JobOrder& order, JobResult& result);
  void clean(const JobOrder& order, JobResult& result);

  void failItemsAt(std::size_t place, const std::optional<platform::Error>& why, JobResult& result) const;
  // Syncs the file systems of the marked places. Where that fails, so has every item there.
  void syncWhere(const std::vector<bool>& places, JobResult& result) const;
  static bool isReachedBySync(const Place& place, const platform::Folder& folder);
  [[nodiscard]] bool mustFlush(const JobOrder& order) const;
  [[nodiscard]] bool isAsListed(const OrderedItem& item, JobResult& result) const;
  // Mode and time of the order's items at its destinations, and what is found there then.
  void keepFiles(const JobOrder& order, bool flush, JobResult& result) const;
  void moveFromAlias(const JobOrder& order, const std::string& alias, JobResult& result) const;

  WorkerSetup _setup;
  std::optional<platform::Folder> _card;
  std::vector<std::optional<platform::Folder>> _destinations;  // by position, opened when first needed
  std::optional<platform::Folder> _source;                     // that of the order at hand
  std::vector<Place> _places;                                  // the same
};

}  // namespace kdxoffload
