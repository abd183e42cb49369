#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "InodeTable.h"
#include "Protocol.h"

namespace faultyfs {

// A half-open range of bytes.
struct ByteRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

// What is known of a kernel request when its treatment is decided.
struct Request {
  Operation operation = Operation::Read;
  std::string path;
  std::string otherPath;   // the new name of a rename or link, otherwise empty
  ByteRange range;         // of a read or write
  int flags = 0;           // of the descriptor, or of the rename
  std::uint64_t size = 0;  // of the file which a write is about to change, bytes
};

// How to treat a request. By default it passes through.
struct Verdict {
  int error = 0;                       // errno to answer with, 0 to go on
  std::uint64_t limit = unlimited;     // the most bytes to move
  std::vector<ByteRange> lost;         // bytes of a write to acknowledge but not to store
  std::vector<std::uint64_t> delays;   // faults which delay the answer
  std::chrono::milliseconds delay{0};  // for how long
  std::int64_t sizeLie = 0;            // to be added to the reported size, bytes
  bool bypassCache = false;
  bool numberByReference = false;  // report a number which the file loses when the kernel forgets it
  bool numberByName = false;       // report a number which the file loses with its name
  bool ignoreCase = false;
  std::chrono::milliseconds timeGrain{0};  // report times rounded down to multiples of it; 0: unchanged
};

// All faults in force. Any thread may use it. Only delay() waits, and it waits without a lock.
class FaultBook {
 public:
  // Returns the number by which the fault is known from then on.
  std::uint64_t add(Fault fault);

  // Ends one fault, or all of them. Requests that it delays go on at once.
  void remove(std::uint64_t number);
  void clear();

  // How many requests (or passes) the fault has affected so far, also after its end.
  std::uint64_t timesFired(std::uint64_t number) const;

  // Waits until a fault has affected `count` requests; false if `patience` runs out before.
  bool waitUntilFired(std::uint64_t number, std::uint64_t count, std::chrono::milliseconds patience) const;

  // Decides on a request, and counts it for every fault that it meets.
  Verdict judge(const Request& request);

  // Whether the faults that limit space allow a file of `size` bytes to grow to `newSize` bytes.
  bool hasSpaceFor(const std::string& path, std::uint64_t size, std::uint64_t newSize) const;

  // Delays the calling thread as the verdict says, or until the fault is removed.
  void delay(const Verdict& verdict) const;

  // Inverts the bits of `data` that are due. `data` are the bytes of the file `id` from `offset` on.
  void flipBits(Operation operation, const std::string& path, FileId id, std::uint64_t offset, std::span<char> data);

  // For a new file: its passes are counted from 1, even if its inode number was in use earlier.
  void startAfresh(FileId id);

  // Ends all delays, now and in future.
  void shutDown();

 private:
  struct Rule {
    std::uint64_t number = 0;
    Fault fault;
    std::uint64_t met = 0;  // requests so far that the fault could have affected
    std::map<FileId, std::uint64_t> passes;
  };

  static bool concerns(const Fault& fault, const Request& request);
  static void apply(const Rule& rule, const Request& request, Verdict& verdict);
  void countFiring(const Rule& rule);

  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  std::list<Rule> _rules;
  std::map<std::uint64_t, std::uint64_t> _fired;
  std::uint64_t _lastNumber = 0;
  bool _shutDown = false;
};

}  // namespace faultyfs
