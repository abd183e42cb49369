#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/FileDescriptor.h"

// What is done to files by name.
namespace platform {

// Tells files apart whatever their names: two names with the same identity are the same file.
struct FileIdentity {
  uint64_t device = 0;
  uint64_t inode = 0;
  auto operator<=>(const FileIdentity&) const = default;
};

// Many of them, each taking as little memory as it can.
class FileIdentities {
 public:
  void insert(const FileIdentity& identity) { _identities.push_back(identity); }
  // To be called behind the last insertion and before the first question.
  void seal();
  [[nodiscard]] bool contains(const FileIdentity& identity) const;

 private:
  std::vector<FileIdentity> _identities;  // in order once sealed
};

// Identity of the file at the path, through symbolic links; none when there is none.
std::optional<FileIdentity> identityOfFile(const std::string& path);

// Holds on to a file so that its identity stays what it is: some file systems number a file anew once it was forgotten.
class PinnedFile {
 public:
  explicit PinnedFile(const std::string& path);
  // None when there is no such file.
  [[nodiscard]] const std::optional<FileIdentity>& identity() const { return _identity; }

 private:
  FileDescriptor _file;
  std::optional<FileIdentity> _identity;
};

// Tells a file from one that was put in its place later under the same name, also when that one got the same inode: by the
// time of its creation where the file system keeps it, else by its inode.
struct FileStamp {
  uint64_t device = 0;
  uint64_t created = 0;  // nanoseconds; the inode where the time of creation is not known
  bool operator==(const FileStamp&) const = default;
};

// Stamp of an open file, and of what stands at a path itself (not through links); none when it can't be told.
std::optional<FileStamp> stampOfFile(int descriptor);
std::optional<FileStamp> stampOfItem(const std::string& path);

// Identity of an open file; none when it can't be told.
std::optional<FileIdentity> identityOfOpenFile(int descriptor);

// Identity of what stands at the path itself, be it a symbolic link; none when nothing does.
std::optional<FileIdentity> identityOfItem(const std::string& path);

// True when the name is taken: by a file, a directory, a symbolic link wherever it leads.
bool fileExistsAtPath(const std::string& path);

// Size in bytes of the file at the path, through symbolic links; none when it can't be told.
std::optional<uint64_t> sizeOfFile(const std::string& path);

// Removes a file or a symbolic link, never a directory. On failure false and a POSIXErrorDomain error.
bool removeItem(const std::string& path, ErrorPlace error);

// Renames within one file system. What stands at the new name is never replaced, not even when it appears at the last
// moment: that is a POSIXErrorDomain error with the code EEXIST, as other failures have theirs.
bool moveItem(const std::string& from, const std::string& to, ErrorPlace error);

// Makes the data of the file at the path permanent, and what is needed to read it back, under whatever name it has.
// Returns what the failed call returned, else 0. Where no file stands at the path nothing is to be done, which is 0
// too.
int makeDataPermanent(const std::string& path);

// The same for every file of the file system that the file at the path is on.
int makeFileSystemPermanent(const std::string& path);

// True when makeFileSystemPermanent reaches the device for the file system of the file at the path. Servers of file systems
// in user space are not asked: there each file has to be made permanent by itself.
bool canMakeFileSystemPermanent(const std::string& path);

// Makes the file at the path permanent, and its name with it: a full sync of the file, then one of its directory, which
// is passed over where the file system knows no such thing. A failed sync is not tried again: the system has already
// forgotten what it could not write. Returns what the failed call returned, else 0. When the file can't be opened for
// writing descriptor 0 is synced in its place, which callers rely on for the value that they print; since that proves
// nothing, success there is a failure too.
int fullSync(const std::string& path);

// What fullSync does when there is no file at all: syncs descriptor 0. Returns what the call returned.
int fullSyncOfNothing();

}  // namespace platform
