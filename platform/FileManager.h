#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/FileIdentity.h"

// What is done to files by name.
namespace platform {

// True when the name is taken: by a file, a directory, a symbolic link wherever it leads.
bool fileExistsAtPath(const std::string& path);

// Size in bytes of the file at the path, through symbolic links; none when it can't be told.
std::optional<uint64_t> sizeOfFile(const std::string& path);

// Removes a file or a symbolic link, never a directory. On failure false and a POSIXErrorDomain error.
bool removeItem(const std::string& path, ErrorPlace error);

// Removes a regular file and nothing else, so that another program which still writes it, or another name that it has, keeps
// what it holds. Says nothing when it can't.
void removeRegularFile(const std::string& path);

// Gives the pinned file that stands at `from` the name `to`, within one file system. What stands at the new name is never
// replaced, not even when it appears at the last moment: that is a POSIXErrorDomain error with the code EEXIST, as other
// failures have theirs. Another file that comes in between at `from` gets that name back, which is ESTALE.
bool moveItem(const PinnedFile& item, const std::string& from, const std::string& to, ErrorPlace error);

// Makes the data of the file at the path permanent, and what is needed to read it back, under whatever name it has.
// Returns what the failed call returned, else 0. Where no file stands at the path nothing is to be done, which is 0
// too.
int makeDataPermanent(const std::string& path);

// The same for every file of the file system that the file at the path is on. None where that is not to be had, and each
// file has to be made permanent by itself: the system refuses, or it does not ask the server of a file system in user space.
std::optional<int> makeFileSystemPermanent(const std::string& path);

// Makes the file at the path permanent, and its name with it: a full sync of the file, then one of its directory, which
// is passed over where the file system knows no such thing. A failed sync is not tried again: the system has already
// forgotten what it could not write. Returns what the failed call returned, else 0. When the file can't be opened for
// writing descriptor 0 is synced in its place, which callers rely on for the value that they print; since that proves
// nothing, success there is a failure too.
int fullSync(const std::string& path);

// What fullSync does when there is no file at all: syncs descriptor 0. Returns what the call returned.
int fullSyncOfNothing();

}  // namespace platform
