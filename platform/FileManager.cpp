#include "platform/FileManager.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/FileDescriptor.h"
#include "platform/FileURL.h"

namespace platform {

namespace {

std::optional<FileIdentity> identity(int result, const struct stat& facts) {
  if (result != 0) return std::nullopt;
  return FileIdentity{.device = facts.st_dev, .inode = facts.st_ino};
}

bool lacksNoReplace(int code) {
  return code == EINVAL || code == ENOSYS || code == ENOTSUP;
}

// For file systems without a rename that replaces nothing: a link never replaces anything either. Returns 0 or errno;
// none where the file system has no links.
std::optional<int> moveWithLink(const char* from, const char* to) {
  if (::link(from, to) != 0) {
    const int code = errno;
    const bool lacksLinks = code == EPERM || code == EMLINK || lacksNoReplace(code);
    return lacksLinks ? std::nullopt : std::optional(code);
  }
  return ::unlink(from) == 0 ? 0 : errno;
}

// For file systems without links too: as close as can be had. Returns 0 or errno.
int moveWithCheck(const char* from, const char* to) {
  if (fileExistsAtPath(to)) return EEXIST;
  return ::rename(from, to) == 0 ? 0 : errno;
}

int syncDirectoryOf(const std::string& path) {
  const std::string directory = FileURL(path).deletingLastPathComponent().path();
  const FileDescriptor descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor.isOpen()) return -1;
  const int result = ::fsync(descriptor.get());
  const bool directoriesAreNotSynced = result != 0 && (errno == EINVAL || errno == ENOTSUP);
  return directoriesAreNotSynced ? 0 : result;
}

}  // namespace

std::optional<FileIdentity> identityOfFile(const std::string& path) {
  struct stat facts = {};
  const int result = ::stat(path.c_str(), &facts);
  return identity(result, facts);
}

std::optional<FileIdentity> identityOfItem(const std::string& path) {
  struct stat facts = {};
  const int result = ::lstat(path.c_str(), &facts);
  return identity(result, facts);
}

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

bool moveItem(const std::string& from, const std::string& to, ErrorPlace error) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  int code = errno;
  if (lacksNoReplace(code)) {
    const std::optional<int> linked = moveWithLink(from.c_str(), to.c_str());
    code = linked ? *linked : moveWithCheck(from.c_str(), to.c_str());
  }
  return code == 0 || fail(error, posixError("rename", from, code));
}

int makeDataPermanent(const std::string& path) {
  const FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!descriptor.isOpen()) return errno == ENOENT ? 0 : -1;
  return ::fdatasync(descriptor.get());
}

int fullSync(const std::string& path) {
  const FileDescriptor descriptor(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!descriptor.isOpen()) {
    const int result = ::fsync(STDIN_FILENO);
    return result == 0 ? -1 : result;
  }
  const int result = ::fsync(descriptor.get());
  return result == 0 ? syncDirectoryOf(path) : result;
}

}  // namespace platform
