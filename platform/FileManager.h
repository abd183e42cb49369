#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/FileIdentity.h"

// Operations on files by name.
namespace platform {

// True when the name is taken by anything: a file, a directory, or a symbolic link, even one that leads nowhere.
bool fileExistsAtPath(const std::string& path);

// Size in bytes of the file at the path, through symbolic links; none when it can't be found out.
std::optional<uint64_t> sizeOfFile(const std::string& path);

// Removes a file or a symbolic link, never a directory. On failure false and a POSIXErrorDomain error.
bool removeItem(const std::string& path, ErrorPlace error);

// Removes a regular file and nothing else. Another name of the file, or a program that still writes to it, keeps the bytes.
// Failures are ignored.
void removeRegularFile(const std::string& path);

// Gives the pinned file that stands at `from` the name `to`, within one file system. Never replaces a file at the new name.
// Only where the file system can neither rename nor link without replacing, one that appears at the last moment is not
// noticed. Failures are POSIXErrorDomain errors: EEXIST when the new name is taken, ESTALE
// when another file has come to `from` meanwhile, which then gets that name back.
bool moveItem(const PinnedFile& item, const std::string& from, const std::string& to, ErrorPlace error);

// Makes the data of the file at the path permanent, with what is needed to read it back, but not its name. Returns 0, or
// what the failed call returned. 0 also when there is no file at the path.
int makeDataPermanent(const std::string& path);

// The same for every file of the file system that the file at the path is on. None where that is not possible, because the
// system refuses, or because it would not ask the server of a file system in user space. Each file must then be made
// permanent by itself.
std::optional<int> makeFileSystemPermanent(const std::string& path);

// Makes the file at the path permanent, and its name: a full sync of the file, then of its directory, unless the file system
// can't sync directories. A failed sync is not tried again, because the system has already forgotten what it could not
// write. Returns 0, or what the failed call returned. When the file can't be opened for writing, descriptor 0 is synced
// instead: callers rely on the value that this gives them to print. Success there proves nothing, and is a failure too (-1).
int fullSync(const std::string& path);

// What fullSync does when there is no file: syncs descriptor 0. Returns what the call returned.
int fullSyncOfNothing();

}  // namespace platform
