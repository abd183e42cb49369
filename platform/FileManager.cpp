#include "platform/FileManager.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <tuple>

#include "platform/Error.h"
#include "platform/FileDescriptor.h"
#include "platform/FileURL.h"

namespace platform {

namespace {

// For file systems without a rename that replaces nothing: a link never replaces anything either. Returns 0 or errno. None
// where no link could be made: file systems without links give many different errors.
std::optional<int> moveWithLink(const PinnedFile& item, const std::string& from, const std::string& to) {
  if (::link(from.c_str(), to.c_str()) != 0) return errno == EEXIST ? std::optional(EEXIST) : std::nullopt;
  // A file may have another number under another name, so the check uses the old name, which the file still has.
  const std::optional<bool> isLinked = item.standsAt(from);
  if (isLinked == true) return ::unlink(from.c_str()) == 0 ? 0 : errno;
  // Another file has come to the old name, before or after the link was made.
  if (isLinked == false && item.standsAt(to) == true) return 0;
  std::ignore = ::unlink(to.c_str());
  return ESTALE;
}

// Returns 0 or errno.
int renameWithoutReplacing(const std::string& from, const std::string& to) {
  return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0 ? 0 : errno;
}

// The best that is possible without help from the file system. Takes a name only if it is known to be free. Returns 0 or
// errno.
int renameWithCheck(const std::string& from, const std::string& to) {
  struct stat facts = {};
  if (::lstat(to.c_str(), &facts) == 0) return EEXIST;
  if (errno != ENOENT) return errno;
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

// For another file that was renamed, because it came to the old name between the check and the rename.
void giveBack(const std::string& to, const std::string& from) {
  if (isRefused(renameWithoutReplacing(to, from))) std::ignore = renameWithCheck(to, from);
}

// Returns 0 or errno.
int move(const PinnedFile& item, const std::string& from, const std::string& to) {
  int code = renameWithoutReplacing(from, to);
  if (isRefused(code)) {
    if (const std::optional<int> linked = moveWithLink(item, from, to)) return *linked;
    code = renameWithCheck(from, to);
  }
  if (code != 0 || item.standsAt(to) == true) return code;
  giveBack(to, from);
  return ESTALE;
}

// For a directory that may be written but not read: syncs its whole file system, or else all file systems.
int syncFileSystemOf(int file) {
  if (::syncfs(file) == 0) return 0;
  if (!isRefused(errno)) return -1;
  ::sync();
  return 0;
}

// `file` is an open file in the directory.
int syncDirectoryOf(const std::string& path, int file) {
  const std::string directory = FileURL(path).deletingLastPathComponent().path();
  const char* const name = directory.empty() ? "." : directory.c_str();
  const FileDescriptor descriptor(::open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor.isOpen()) return errno == EACCES ? syncFileSystemOf(file) : -1;
  const int result = ::fsync(descriptor.get());
  // This file system does not sync directories: the name is permanent already, or will be at a time of its choice.
  return result != 0 && (errno == EINVAL || errno == ENOTSUP) ? 0 : result;
}

}  // namespace

bool fileExistsAtPath(const std::string& path) {
  return identityOfItem(path).has_value();
}

std::optional<uint64_t> sizeOfFile(const std::string& path) {
  struct stat facts = {};
  if (::stat(path.c_str(), &facts) != 0) return std::nullopt;
  return static_cast<uint64_t>(facts.st_size);
}

bool removeItem(const std::string& path, ErrorPlace error) {
  if (::unlink(path.c_str()) == 0) return true;
  const int code = errno;
  return fail(error, posixError("unlink", path, code));
}

void removeRegularFile(const std::string& path) {
  struct stat facts = {};
  if (::lstat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode)) std::ignore = ::unlink(path.c_str());
}

bool moveItem(const PinnedFile& item, const std::string& from, const std::string& to, ErrorPlace error) {
  const int code = move(item, from, to);
  return code == 0 || fail(error, posixError("rename", from, code));
}

int makeDataPermanent(const std::string& path) {
  const FileDescriptor descriptor = openUnlessPipe(path, O_RDONLY);
  if (!descriptor.isOpen()) return errno == ENOENT ? 0 : -1;
  return ::fdatasync(descriptor.get());
}

std::optional<int> makeFileSystemPermanent(const std::string& path) {
  struct statfs facts = {};
  if (::statfs(path.c_str(), &facts) != 0 || facts.f_type == FUSE_SUPER_MAGIC) return std::nullopt;
  const FileDescriptor descriptor = openUnlessPipe(path, O_RDONLY);
  if (!descriptor.isOpen()) return errno == ENOENT ? 0 : -1;
  const int result = ::syncfs(descriptor.get());
  if (result != 0) return isRefused(errno) ? std::nullopt : std::optional(result);
  // Some file systems write everything to the device but leave it in the device's cache. The sync of a file empties that.
  return ::fdatasync(descriptor.get());
}

int fullSyncOfNothing() {
  return ::fsync(STDIN_FILENO);
}

int fullSync(const std::string& path) {
  const FileDescriptor descriptor = openUnlessPipe(path, O_WRONLY);
  if (!descriptor.isOpen()) {
    const int result = fullSyncOfNothing();
    return result == 0 ? -1 : result;
  }
  const int result = ::fsync(descriptor.get());
  return result == 0 ? syncDirectoryOf(path, descriptor.get()) : result;
}

}  // namespace platform
