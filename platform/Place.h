#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/FileManager.h"

// What can be found out about a folder before it is used. Nothing here writes.
namespace platform {

// The path, absolute and without links; none when nothing stands there, or when the path can't be followed.
std::optional<std::string> realPathOf(const std::string& path);

// True when the folder's names can be read and used.
bool canListFolder(const std::string& path);

// True when entries can be made in the folder, as far as this is known without making one.
bool canMakeEntriesIn(const std::string& path);

// True when a process, also this one, has the folder's lock (Folder::lock).
bool isFolderLocked(const std::string& path);

// The folders that the folder is in, up to the root. Where a part of a file system can be reached in several places (a bind
// mount), the folders above each of these places.
std::vector<FileIdentity> foldersAbove(const std::string& path);

}  // namespace platform
