#pragma once

#include <chrono>
#include <ostream>
#include <vector>

#include "tests/support/FaultyFileSystem.h"

// A kind of file system by what tells it from a local one: errors are errno values with which it refuses something, 0 where
// it does not.
struct FileSystemProfile {
  // Until when a file keeps its inode number.
  enum class Numbers { stable, untilForgotten, untilRenamed };

  const char* name = "";
  int renameFlags = 0;  // of a rename with any flag
  int link = 0;
  int folderSync = 0;
  int direct = 0;                  // of reads and writes past the cache
  bool isUncached = false;         // no page is kept in memory here: each read and write goes to the server
  bool tellsOfWritesLate = false;  // what became of a write is told at a sync, or when the file is closed
  Numbers numbers = Numbers::stable;
  bool ignoresCase = false;
  std::chrono::milliseconds timeGrain{0};  // 0: as fine as the backing folder's

  friend void PrintTo(const FileSystemProfile& profile, std::ostream* out) { *out << profile.name; }
};

// Kinds that not every system can mount, as they are documented.
const std::vector<FileSystemProfile>& fileSystemProfiles();

// Those of them that have the trait.
std::vector<FileSystemProfile> profilesWith(bool (*trait)(const FileSystemProfile&));

// Makes the file system behave like that from now on. Errors of writes are left to the test.
void behaveAs(const FileSystemProfile& profile, FaultyFileSystem& server);
