#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Protocol.h"

namespace faultyfs {

// Counts the requests of every path, under the path that the file had when the request came. Any thread may use it.
class TrafficLog {
 public:
  void add(const std::string& path, std::uint64_t Counters::*counter, std::uint64_t amount = 1);

  // Notes that a read request was answered with `size` bytes from `offset` on.
  void addDelivery(const std::string& path, std::uint64_t offset, std::uint64_t size);

  // All zeros for a path that was never used.
  Counters of(const std::string& path) const;

  // The sum over all paths that match an fnmatch pattern. The numbers of deliveries are the smallest and the largest of all
  // these paths.
  Counters ofMatching(const std::string& pattern) const;

  void reset();

 private:
  struct Entry {
    Counters counters;
    std::vector<std::uint32_t> deliveries;  // per block
  };

  static Counters summary(const Entry& entry);

  mutable std::mutex _mutex;
  std::map<std::string, Entry> _entries;
};

}  // namespace faultyfs
