#include "TrafficLog.h"

#include <fnmatch.h>

#include <algorithm>

namespace faultyfs {

namespace {

constexpr std::uint64_t blockSize = 4096;

// Paths without any delivery are left out.
void mergeDeliveries(Counters& sum, const Counters& other) {
  if (other.mostDeliveries == 0) {
    return;
  }
  sum.leastDeliveries =
      sum.mostDeliveries == 0 ? other.leastDeliveries : std::min(sum.leastDeliveries, other.leastDeliveries);
  sum.mostDeliveries = std::max(sum.mostDeliveries, other.mostDeliveries);
}

void merge(Counters& sum, const Counters& other) {
  for (const auto member : counterFields) {
    if (member != &Counters::leastDeliveries && member != &Counters::mostDeliveries) {
      sum.*member += other.*member;
    }
  }
  mergeDeliveries(sum, other);
}

}  // namespace

void TrafficLog::add(const std::string& path, std::uint64_t Counters::*counter, std::uint64_t amount) {
  const std::lock_guard lock(_mutex);
  _entries[path].counters.*counter += amount;
}

void TrafficLog::addDelivery(const std::string& path, std::uint64_t offset, std::uint64_t size) {
  if (size == 0) {
    return;
  }
  const std::lock_guard lock(_mutex);
  Entry& entry = _entries[path];
  entry.counters.bytesRead += size;
  const std::uint64_t last = (offset + size - 1) / blockSize;
  if (entry.deliveries.size() <= last) {
    entry.deliveries.resize(last + 1);
  }
  for (std::uint64_t block = offset / blockSize; block <= last; ++block) {
    ++entry.deliveries[block];
  }
}

Counters TrafficLog::summary(const Entry& entry) {
  Counters counters = entry.counters;
  if (!entry.deliveries.empty()) {
    const auto [least, most] = std::ranges::minmax(entry.deliveries);
    counters.leastDeliveries = least;
    counters.mostDeliveries = most;
  }
  return counters;
}

Counters TrafficLog::of(const std::string& path) const {
  const std::lock_guard lock(_mutex);
  const auto found = _entries.find(path);
  return found == _entries.end() ? Counters{} : summary(found->second);
}

Counters TrafficLog::ofMatching(const std::string& pattern) const {
  const std::lock_guard lock(_mutex);
  Counters sum;
  for (const auto& [path, entry] : _entries) {
    if (::fnmatch(pattern.c_str(), path.c_str(), 0) == 0) {
      merge(sum, summary(entry));
    }
  }
  return sum;
}

void TrafficLog::reset() {
  const std::lock_guard lock(_mutex);
  _entries.clear();
}

}  // namespace faultyfs
