#include "platform/Place.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>

#include "platform/FileDescriptor.h"
#include "platform/Folder.h"
#include "platform/Mounts.h"

namespace platform {

namespace {

constexpr int pathOnly = O_PATH | O_DIRECTORY | O_CLOEXEC;

// Goes up from folders and collects the folders on the way.
class Climber {
 public:
  std::vector<FileIdentity> climb(FileDescriptor folder) {
    goUpFrom(std::move(folder));
    return {_above.begin(), _above.end()};
  }

 private:
  void goUpFrom(FileDescriptor folder) {
    std::optional<FileIdentity> own = identityOfOpenFile(folder.get());
    lookAtMountOf(folder.get());
    while (own) {
      FileDescriptor parent(::openat(folder.get(), "..", pathOnly));
      const std::optional<FileIdentity> above = parent.isOpen() ? identityOfOpenFile(parent.get()) : std::nullopt;
      const bool isSameMount = mountNumberOf(parent.get()) == mountNumberOf(folder.get());
      if (!above || (*above == *own && isSameMount)) return;
      _above.insert(*above);
      if (!isSameMount) lookAtMountOf(parent.get());
      folder = std::move(parent);
      own = above;
    }
  }

  // This mount may show only a part of its file system. The folders above that part are found in mounts that show more.
  void lookAtMountOf(int folder) {
    const Mount* mount = mountWithNumber(_mounts, mountNumberOf(folder));
    if (mount == nullptr || !_seen.insert(mount->number).second) return;
    for (const Mount& other : _mounts) {
      if (other.device == mount->device && other.number != mount->number) goToSamePlace(*mount, other);
    }
  }

  // Goes up from the root folder of one mount, reached through another mount.
  void goToSamePlace(const Mount& mount, const Mount& other) {
    const std::string above = other.root == "/" ? "" : other.root;
    if (mount.root != above && !mount.root.starts_with(above + "/")) return;
    const std::string path = other.mountPoint + '/' + mount.root.substr(above.size());
    FileDescriptor folder(::open(path.c_str(), pathOnly));
    // Something else may be mounted over it.
    if (folder.isOpen() && mountNumberOf(folder.get()) == other.number) goUpFrom(std::move(folder));
  }

  std::vector<Mount> _mounts = mounts();
  std::set<uint64_t> _seen;  // numbers of mounts
  std::set<FileIdentity> _above;
};

}  // namespace

std::optional<std::string> realPathOf(const std::string& path) {
  struct Free {
    void operator()(char* text) const { std::free(text); }
  };
  const std::unique_ptr<char, Free> found(::realpath(path.c_str(), nullptr));
  return found ? std::optional<std::string>(found.get()) : std::nullopt;
}

bool canListFolder(const std::string& path) {
  const FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder.isOpen() && ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

bool canMakeEntriesIn(const std::string& path) {
  return ::faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

bool isFolderLocked(const std::string& path) {
  const std::optional<Folder> folder = Folder::open(path, nullptr);
  std::optional<Error> error;
  return folder && !folder->lock(&error) && error && error->code == EWOULDBLOCK;
}

std::vector<FileIdentity> foldersAbove(const std::string& path) {
  FileDescriptor folder(::open(path.c_str(), pathOnly));
  if (!folder.isOpen()) return {};
  return Climber().climb(std::move(folder));
}

}  // namespace platform
