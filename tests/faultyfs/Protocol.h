#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// The messages between the test program and the faulty file system, over their private socket. One message is one packet.
// Its fields are text, separated by NUL bytes, which no path can contain.
namespace faultyfs {

enum class Operation : int {
  Open,
  Create,
  Read,
  Write,
  Sync,
  Close,
  Rename,
  Link,
  Unlink,
  MakeFolder,
  ReportAttributes,
  LookUp,
};

enum class Effect : int {
  Fail,           // every request fails with `error`
  FailAt,         // requests that cover the byte at `offset` fail with `error`
  LimitTo,        // a request moves at most `length` bytes
  FlipBit,        // bit `bit` of the byte at `offset` is inverted; `from` and `times` count passes over this byte
  RunOutOfSpace,  // the file cannot grow beyond `length` bytes
  DropRange,      // writes into [offset, offset + length) are acknowledged and forgotten
  Tear,           // of a write that covers `offset` only the first `length` bytes are stored
  RefuseDirect,   // requests of a descriptor with O_DIRECT fail with `error`
  RefuseFlags,    // renames with flags fail with `error`
  RefuseFolders,  // syncs of folders fail with `error`
  Delay,          // the answer waits for `amount` milliseconds
  LieAboutSize,   // the reported size is off by `amount` bytes
  NumberAnew,     // the reported inode number changes once the kernel has forgotten the file
  NumberByName,   // the reported inode number is made from the path
  RoundTimes,     // the reported times are multiples of `amount` milliseconds
  IgnoreCase,     // the name stands for one that differs from it only in case
  BypassCache,    // the opened file does not use the page cache of the kernel
};

inline constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

// One fault, as it is requested. The effect decides which parameters count.
struct Fault {
  Operation operation = Operation::Read;
  Effect effect = Effect::Fail;
  std::string pattern;              // fnmatch pattern of the path relative to the mount root
  int error = 0;                    // errno
  std::uint64_t offset = 0;         // bytes
  std::uint64_t length = 0;         // bytes
  std::int64_t amount = 0;          // milliseconds or bytes
  int bit = 0;                      // 0 (lowest) to 7
  std::uint64_t from = 1;           // the first affected request (or pass), counted from 1
  std::uint64_t times = unlimited;  // how many requests (or passes) are affected
};

// What happens to the blocks in a volatile write cache when the power fails. Any other number loses some of them.
inline constexpr std::uint64_t losingAll = 0;
inline constexpr std::uint64_t losingNothing = std::numeric_limits<std::uint64_t>::max();

// The traffic of one path, as seen by the file system (reads that the page cache answers do not come here). Requests count
// when they arrive, whether they succeed or not; bytes count when they are delivered or acknowledged.
struct Counters {
  std::uint64_t opens = 0;
  std::uint64_t readRequests = 0;
  std::uint64_t directReadRequests = 0;  // on descriptors with O_DIRECT
  std::uint64_t bytesRead = 0;
  std::uint64_t writeRequests = 0;
  std::uint64_t directWriteRequests = 0;
  std::uint64_t bytesWritten = 0;
  std::uint64_t syncs = 0;
  std::uint64_t flushes = 0;
  std::uint64_t renames = 0;  // with this path as the old name
  std::uint64_t links = 0;    // with this path as the existing name
  std::uint64_t unlinks = 0;
  // The smallest and the largest number of deliveries of a 4 KiB block, over all blocks up to the last one that was ever
  // delivered. A request that delivers any byte of a block counts as a delivery.
  std::uint64_t leastDeliveries = 0;
  std::uint64_t mostDeliveries = 0;
};

inline constexpr std::array counterFields{
    &Counters::opens,           &Counters::readRequests,  &Counters::directReadRequests,
    &Counters::bytesRead,       &Counters::writeRequests, &Counters::directWriteRequests,
    &Counters::bytesWritten,    &Counters::syncs,         &Counters::flushes,
    &Counters::renames,         &Counters::links,         &Counters::unlinks,
    &Counters::leastDeliveries, &Counters::mostDeliveries};

using Fields = std::vector<std::string>;

inline std::string join(const Fields& fields) {
  std::string message;
  for (const std::string& field : fields) {
    message += field;
    message += '\0';
  }
  return message;
}

inline Fields split(std::string_view message) {
  Fields fields;
  for (std::size_t end = message.find('\0'); end != std::string_view::npos; end = message.find('\0')) {
    fields.emplace_back(message.substr(0, end));
    message.remove_prefix(end + 1);
  }
  return fields;
}

inline Fields toFields(const Fault& fault) {
  return {std::to_string(static_cast<int>(fault.operation)),
          std::to_string(static_cast<int>(fault.effect)),
          fault.pattern,
          std::to_string(fault.error),
          std::to_string(fault.offset),
          std::to_string(fault.length),
          std::to_string(fault.amount),
          std::to_string(fault.bit),
          std::to_string(fault.from),
          std::to_string(fault.times)};
}

// Throws std::exception if fields are missing or not numbers.
inline Fault faultFrom(std::span<const std::string> fields) {
  if (fields.size() != 10) {
    throw std::invalid_argument("a fault has ten fields");
  }
  Fault fault;
  fault.operation = static_cast<Operation>(std::stoi(fields[0]));
  fault.effect = static_cast<Effect>(std::stoi(fields[1]));
  fault.pattern = fields[2];
  fault.error = std::stoi(fields[3]);
  fault.offset = std::stoull(fields[4]);
  fault.length = std::stoull(fields[5]);
  fault.amount = std::stoll(fields[6]);
  fault.bit = std::stoi(fields[7]);
  fault.from = std::stoull(fields[8]);
  fault.times = std::stoull(fields[9]);
  return fault;
}

inline Fields toFields(const Counters& counters) {
  Fields fields;
  for (const auto member : counterFields) {
    fields.push_back(std::to_string(counters.*member));
  }
  return fields;
}

// Throws std::exception if fields are missing or not numbers.
inline Counters countersFrom(std::span<const std::string> fields) {
  if (fields.size() != counterFields.size()) {
    throw std::invalid_argument("unexpected number of counters");
  }
  Counters counters;
  for (std::size_t i = 0; i < counterFields.size(); ++i) {
    counters.*counterFields[i] = std::stoull(fields[i]);
  }
  return counters;
}

}  // namespace faultyfs
