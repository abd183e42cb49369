#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/FileManager.h"

// What can be said of a folder before anything is done with it. Nothing here writes.
namespace platform {

// Absolute and without links; none when nothing stands there or the way can't be gone.
std::optional<std::string> realPathOf(const std::string& path);

// True when the folder's names can be read and what they stand for reached.
bool canListFolder(const std::string& path);

// True when entries can be made in the folder, as far as can be known without making one.
bool canMakeEntriesIn(const std::string& path);

// True when somebody has the folder's lock (Folder::lock), this process included.
bool isFolderLocked(const std::string& path);

// The folders that the folder is in, up to the root. Where a part of a file system can be reached in more places than one
// (a bind mount), those above each of them.
std::vector<FileIdentity> foldersAbove(const std::string& path);

}  // namespace platform
