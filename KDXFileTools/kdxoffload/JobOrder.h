#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/DestinationSet.h"
#include "KDXFileTools/kdxoffload/FileDigest.h"
#include "platform/Folder.h"

namespace kdxoffload {

// What a worker gets once, before its first job. All names here and below are the bytes on disk.
struct WorkerSetup {
  std::string card{};                       // absolute path
  std::vector<std::string> destinations{};  // absolute paths of existing folders
  uint32_t algorithm = 0;                   // a KDXDigestAlgorithm code
  bool readBack = true;
  std::string privateFolder{};  // name of the folder at the top of each destination where files with aliases are copied
  bool operator==(const WorkerSetup&) const = default;
};

enum class Task : uint8_t {
  copy,         // one file: copy, prove, name; then set mode and time
  sequence,     // the same of the frames of one folder
  compare,      // read the card's file and those at the destinations, write nothing but mode and time; sync
  makeFolders,  // make the folders, whose names are paths, as far as they are missing
  makeLinks,    // make the links of one folder, as far as they are missing
  keepFolders,  // set mode and time of the folders, deepest first, and sync them
  sync,   // make all that was done at the destinations permanent; where one file system can't be synced as a whole,
          // each of these files, whose names are paths, with its folder
  clean,  // remove temporary files and aliases of ours: `items` are paths; folders of aliases when they are empty
};

// A file, folder or link of an order.
struct OrderedItem {
  std::string name{};    // in the order's folder; a path from the top if the task says so
  std::string target{};  // of a link
  uint64_t size = 0;     // bytes, on the card
  int64_t modified = 0;
  uint32_t mode = 0;
  bool operator==(const OrderedItem&) const = default;
};

// One piece of work for a worker.
struct JobOrder {
  uint64_t number = 0;
  Task task = Task::copy;
  bool replaces = false;
  bool usesAlias = false;
  // False: a sync order follows before anything counts as proved. Files that a sync order does not reach are still flushed.
  bool flushes = true;
  std::string folder{};      // relative to the card and to every destination, "" is the top
  std::string identifier{};  // of a sequence, without the folder
  DestinationSet destinations{};
  std::vector<OrderedItem> items{};
  bool operator==(const JobOrder&) const = default;
};

// The result of one item at one destination, for tasks that report each item.
struct ItemResult {
  int status = 0;               // 0: as asked for
  platform::ItemFacts facts{};  // at the destination, afterwards
  std::string remark{};         // what could not be kept, in one sentence; may be empty
  bool operator==(const ItemResult& other) const {
    return status == other.status && remark == other.remark && facts.kind == other.facts.kind &&
           facts.mode == other.facts.mode && facts.size == other.facts.size && facts.modified == other.facts.modified &&
           facts.identity == other.facts.identity;
  }
};

// A worker's answer. A job of the first program that fails, or ends its process, has none: the coordinator then makes one from
// the status of the process.
struct JobResult {
  uint64_t number = 0;
  int status = 0;                     // of the job: only 0 says that everything was done
  std::string reason{};               // of a failure, as the worker knows it; may be empty
  std::vector<FileDigest> digests{};  // of the items of a comparison; copies print theirs
  std::vector<ItemResult> items{};    // for each item the results at all destinations of the order; or empty
  bool operator==(const JobResult&) const = default;
};

// Statuses of this program's own work, in addition to those of the jobs. They are above 128 + any signal.
namespace WorkStatus {

inline constexpr int differs = 200;        // the file at a destination differs from that of the card
inline constexpr int inTheWay = 201;       // something else has the name
inline constexpr int notKept = 202;        // mode or time could not be set or made permanent
inline constexpr int notReachable = 203;   // a folder on the way is missing, or is a link
inline constexpr int systemError = 204;    // any other call failed: the reason has it
inline constexpr int stalled = 205;        // killed because there was no input or output
inline constexpr int sourceChanged = 207;  // the card's file is not the one that was listed
inline constexpr int cardsOwnFile = 206;   // the file at the destination is the card's file itself

}  // namespace WorkStatus

}  // namespace kdxoffload
