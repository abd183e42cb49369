#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.h"
#include "platform/FileDescriptor.h"
#include "platform/FileManager.h"

namespace platform {

enum class ItemKind : uint8_t { absent, file, folder, link, other };

// What stands at a name itself, not through a link.
struct ItemFacts {
  ItemKind kind = ItemKind::absent;
  uint32_t mode = 0;     // permission bits, with set-user-ID, set-group-ID and sticky
  uint64_t size = 0;     // bytes
  int64_t modified = 0;  // nanoseconds since 1970, UTC; the nearest that fits for times before 1677 and after 2262
  int64_t changed = 0;   // the same, of the last change of any kind (content, name, mode); nobody can set it
  FileIdentity identity{};
};

// An open folder. Everything below it is reached through descriptors. So no symbolic link is ever followed, paths may have
// any length, and a folder that is renamed meanwhile is still the right one. Move only; used by one thread at a time.
//
// Paths are relative, with "/" between names; "" is the folder itself. A ".." is refused. Names are the last part of a path,
// without "/". Failures are POSIXErrorDomain errors; a link on the way gives ELOOP.
class Folder {
 public:
  // Opens the folder at the path that the user gave, through links.
  static std::optional<Folder> open(const std::string& path, ErrorPlace error);

  [[nodiscard]] std::optional<Folder> openFolder(std::string_view path, ErrorPlace error) const;
  // The folder that this one is in now, wherever it may have been moved.
  [[nodiscard]] std::optional<Folder> openParent(ErrorPlace error) const;
  // Makes the missing folders of the path, with mode 0777 less the umask, and opens the last one.
  [[nodiscard]] std::optional<Folder> makeFolders(std::string_view path, ErrorPlace error) const;
  // Makes one folder, unless it exists.
  bool makeFolder(const std::string& name, ErrorPlace error) const;
  // Opens a regular file for reading. Does not wait for a pipe.
  [[nodiscard]] FileDescriptor openFile(const std::string& name, ErrorPlace error) const;

  // The names of everything in it, in no order, without "." and "..". None when they can't be read to the end.
  [[nodiscard]] std::optional<std::vector<std::string>> names(ErrorPlace error) const;
  // What stands at the name; absent when nothing does. None when that can't be found out.
  [[nodiscard]] std::optional<ItemFacts> factsOf(const std::string& name, ErrorPlace error) const;
  [[nodiscard]] std::optional<ItemFacts> facts(ErrorPlace error) const;  // its own
  [[nodiscard]] std::optional<std::string> linkTarget(const std::string& name, ErrorPlace error) const;

  bool makeLink(const std::string& name, const std::string& target, ErrorPlace error) const;
  // As platform::moveItem: never replaces anything.
  bool moveItem(const std::string& name, const Folder& to, const std::string& newName, ErrorPlace error) const;
  // A file or link, never a folder.
  bool removeItem(const std::string& name, ErrorPlace error) const;
  // An empty folder.
  bool removeFolder(const std::string& name, ErrorPlace error) const;

  bool setModeAndTime(uint32_t mode, int64_t modified, ErrorPlace error) const;  // its own
  bool setLinkTime(const std::string& name, int64_t modified, ErrorPlace error) const;

  // Makes the names in the folder permanent. True also where the file system can't sync folders.
  bool sync(ErrorPlace error) const;
  // Makes everything on its file system permanent. False also where this would not reach the device (canSyncFileSystem).
  bool syncFileSystem(ErrorPlace error) const;
  [[nodiscard]] bool canSyncFileSystem() const;

  // Takes the one lock of this folder, and keeps it as long as the folder is open, here or in child processes that inherit
  // it. False when another process has the lock (EWOULDBLOCK), or when the file system has no locks (other codes).
  bool lock(ErrorPlace error) const;

  // A path that leads to this folder and, with "/" and a name added, to what is in it. Short, without the folder's name, and
  // valid only in this process while the folder is open.
  [[nodiscard]] std::string path() const;
  [[nodiscard]] int descriptor() const { return _folder.get(); }

 private:
  explicit Folder(FileDescriptor folder) : _folder(std::move(folder)) {}
  FileDescriptor _folder;
};

// Makes the folder at the path, and makes its name permanent. The folder above must exist. It is an error if the folder
// exists already.
bool makeOneFolder(const std::string& path, ErrorPlace error);

// Sets mode and time of change of an open file or folder. They are not permanent before a sync.
bool setModeAndTime(int file, uint32_t mode, int64_t modified, ErrorPlace error);
// Makes the whole content of the file permanent, with mode and time.
bool syncFile(int file, ErrorPlace error);
std::optional<ItemFacts> factsOfOpenFile(int file);
// A path that leads to the open file, in this process only.
std::string pathOfDescriptor(int descriptor);

}  // namespace platform
