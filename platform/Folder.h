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

// An open folder. All below is reached through descriptors, so that no symbolic link is ever followed, paths may have any
// length, and a folder that is renamed meanwhile stays the one that was meant. Move only, any thread, one at a time.
//
// Paths are relative, with "/" between names, no matter how long; "" is the folder itself. A ".." is refused. Names are the
// last part of a path, without "/". Failures are POSIXErrorDomain errors; a link on the way is ELOOP.
class Folder {
 public:
  // Through links, as the user gave the path.
  static std::optional<Folder> open(const std::string& path, ErrorPlace error);

  [[nodiscard]] std::optional<Folder> openFolder(std::string_view path, ErrorPlace error) const;
  // The folder that this one is in at the moment, wherever that is.
  [[nodiscard]] std::optional<Folder> openParent(ErrorPlace error) const;
  // Makes those folders on the way that are missing, with mode 0777 less the umask.
  [[nodiscard]] std::optional<Folder> makeFolders(std::string_view path, ErrorPlace error) const;
  // Makes the one folder, unless it is there already.
  bool makeFolder(const std::string& name, ErrorPlace error) const;
  // A regular file, for reading; not waited for when it is a pipe.
  [[nodiscard]] FileDescriptor openFile(const std::string& name, ErrorPlace error) const;

  // Of all that stands in it, in no order, without "." and "..". None when they can't be read to the end.
  [[nodiscard]] std::optional<std::vector<std::string>> names(ErrorPlace error) const;
  // What stands there; absent when nothing does. None when that can't be told.
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

  // Makes the names in the folder permanent; passed over where the file system knows no such thing.
  bool sync(ErrorPlace error) const;
  // Makes everything on its file system permanent. False also where the device is not reached that way (canSyncFileSystem).
  bool syncFileSystem(ErrorPlace error) const;
  [[nodiscard]] bool canSyncFileSystem() const;

  // Takes the one lock of this folder for as long as the folder is open, here and in child processes that inherit it.
  // False when somebody else has it (EWOULDBLOCK) or there are no locks here (other codes).
  bool lock(ErrorPlace error) const;

  // A path that leads to this folder, and with "/" and a name behind it to what stands in it, for as long as it is open and
  // in this process alone. Short, and without the folder's name.
  [[nodiscard]] std::string path() const;
  [[nodiscard]] int descriptor() const { return _folder.get(); }

 private:
  explicit Folder(FileDescriptor folder) : _folder(std::move(folder)) {}
  FileDescriptor _folder;
};

// Makes the folder at the path, and its name permanent; the one above must be there. One that is there already is an error.
bool makeOneFolder(const std::string& path, ErrorPlace error);

// Of an open file or folder: sets mode and time of change. Not permanent before a sync.
bool setModeAndTime(int file, uint32_t mode, int64_t modified, ErrorPlace error);
// Makes all that the file holds permanent, with mode and time.
bool syncFile(int file, ErrorPlace error);
std::optional<ItemFacts> factsOfOpenFile(int file);
// A path that leads to the open file, in this process alone.
std::string pathOfDescriptor(int descriptor);

}  // namespace platform
