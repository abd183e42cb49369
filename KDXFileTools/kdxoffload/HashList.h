#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/HashFormat.h"

namespace kdxoffload {

// An ASC Media Hash List 2.0: what was read of a folder's files at one time, and what came of it. A plain value. Paths are relative
// to the folder that the list is about, with "/" between names. Times are nanoseconds since 1970, UTC.
struct HashList {
  enum class Action : uint8_t {
    none,      // of folders
    original,  // the first digest of this format
    verified,  // equal to the one before
    failed,    // not equal
  };
  struct Hash {
    HashFormat format = HashFormat::xxh64;
    std::string value{};  // see hashValueFrom
    Action action = Action::none;
    std::optional<int64_t> hashed{};  // when it was read
    bool operator==(const Hash&) const = default;
  };
  using Hashes = std::vector<Hash>;

  struct Creator {
    int64_t created = 0;
    std::string host{};
    std::string tool{};
    std::string toolVersion{};
    bool operator==(const Creator&) const = default;
  };
  enum class Process : uint8_t { transfer, inPlace, flatten };
  // Of all that is in a folder; of its names and their order too.
  struct FolderHashes {
    Hashes content{};
    Hashes structure{};
    bool operator==(const FolderHashes&) const = default;
  };
  struct File {
    std::string path{};
    std::optional<uint64_t> size{};  // bytes
    std::optional<int64_t> created{};
    std::optional<int64_t> modified{};
    Hashes hashes{};
    bool operator==(const File&) const = default;
  };
  struct Folder {
    std::string path{};
    std::optional<int64_t> modified{};
    FolderHashes hashes{};
    bool operator==(const Folder&) const = default;
  };
  // A list of a folder further down, which has a history of its own.
  struct Reference {
    std::string path{};
    std::string c4{};
    bool operator==(const Reference&) const = default;
  };

  Creator creator{};
  Process process = Process::transfer;
  std::optional<FolderHashes> root{};
  std::vector<std::string> ignored{};  // see IgnorePatterns
  std::vector<File> files{};
  std::vector<Folder> folders{};
  std::vector<Reference> references{};
  bool operator==(const HashList&) const = default;
};

}  // namespace kdxoffload
