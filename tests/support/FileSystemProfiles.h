#pragma once

#include <chrono>
#include <ostream>
#include <vector>

#include "tests/support/FaultyFileSystem.h"

// A kind of file system, described by how it differs from a local one. Errors are the errno values with which it refuses
// something; 0 where it does not refuse.
struct FileSystemProfile {
  // How long a file keeps its inode number.
  enum class Numbers { stable, untilForgotten, untilRenamed };

  const char* name = "";
  int renameFlags = 0;  // error of a rename with any flag
  int link = 0;
  int folderSync = 0;
  int direct = 0;                  // error of reads and writes past the cache
  bool isUncached = false;         // no page is kept in memory here: each read and write goes to the server
  bool tellsOfWritesLate = false;  // the failure of a write is reported at a sync, or when the file is closed
  Numbers numbers = Numbers::stable;
  bool ignoresCase = false;
  std::chrono::milliseconds timeGrain{0};  // 0: times as fine as those of the backing folder

  friend void PrintTo(const FileSystemProfile& profile, std::ostream* out) { *out << profile.name; }
};

// Kinds that not every machine can mount, as documented.
const std::vector<FileSystemProfile>& fileSystemProfiles();

// Those of them that have the trait.
std::vector<FileSystemProfile> profilesWith(bool (*trait)(const FileSystemProfile&));

// Makes the file system behave like the profile from now on, except for errors of writes, which the test sets itself.
void behaveAs(const FileSystemProfile& profile, FaultyFileSystem& server);
