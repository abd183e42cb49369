#include "platform/FileManager.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
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

// For file systems without links too: as close as can be had. Returns 0 or errno. Only a name that is known to be free is
// taken.
int moveWithCheck(const char* from, const char* to) {
  struct stat facts = {};
  if (::lstat(to, &facts) == 0) return EEXIST;
  if (errno != ENOENT) return errno;
  return ::rename(from, to) == 0 ? 0 : errno;
}

bool isUnsupported(int code) {
  return code == EINVAL || code == ENOTSUP;
}

// `file` is open in the directory.
int syncDirectoryOf(const std::string& path, int file) {
  const std::string directory = FileURL(path).deletingLastPathComponent().path();
  const char* const name = directory.empty() ? "." : directory.c_str();
  const FileDescriptor descriptor(::open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // A directory that may be written but not read is synced with its whole file system.
  if (!descriptor.isOpen()) return errno == EACCES ? ::syncfs(file) : -1;
  const int result = ::fsync(descriptor.get());
  return result != 0 && isUnsupported(errno) ? 0 : result;
}

std::optional<FileStamp> stamp(int directory, const char* path, int flags) {
  struct statx facts = {};
  if (::statx(directory, path, flags | AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &facts) != 0) return std::nullopt;
  FileStamp found{.device = ::makedev(facts.stx_dev_major, facts.stx_dev_minor)};
  if ((facts.stx_mask & STATX_BTIME) != 0) {
    constexpr uint64_t nanosecondsPerSecond = 1'000'000'000;
    found.created = static_cast<uint64_t>(facts.stx_btime.tv_sec) * nanosecondsPerSecond + facts.stx_btime.tv_nsec;
  } else {
    found.created = facts.stx_ino;
  }
  return found;
}

}  // namespace

void FileIdentities::seal() {
  std::ranges::sort(_identities);
}

bool FileIdentities::contains(const FileIdentity& identity) const {
  return std::ranges::binary_search(_identities, identity);
}

std::optional<FileIdentity> identityOfFile(const std::string& path) {
  struct stat facts = {};
  const int result = ::stat(path.c_str(), &facts);
  return identity(result, facts);
}

std::optional<FileIdentity> identityOfOpenFile(int descriptor) {
  struct stat facts = {};
  const int result = ::fstat(descriptor, &facts);
  return identity(result, facts);
}

std::optional<FileIdentity> identityOfItem(const std::string& path) {
  struct stat facts = {};
  const int result = ::lstat(path.c_str(), &facts);
  return identity(result, facts);
}

PinnedFile::PinnedFile(const std::string& path) {
  _file = FileDescriptor(::open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!_file.isOpen()) return;
  // Beyond the standard descriptors: which file gets a closed standard input's number is no matter of this one.
  constexpr int behindStandardDescriptors = 3;
  if (_file.get() < behindStandardDescriptors) {
    _file = FileDescriptor(::fcntl(_file.get(), F_DUPFD_CLOEXEC, behindStandardDescriptors));
  }
  _identity = identityOfOpenFile(_file.get());
}

std::optional<FileStamp> stampOfFile(int descriptor) {
  return stamp(descriptor, "", AT_EMPTY_PATH);
}

std::optional<FileStamp> stampOfItem(const std::string& path) {
  return stamp(AT_FDCWD, path.c_str(), 0);
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
  const FileDescriptor descriptor = openUnlessPipe(path, O_RDONLY);
  if (!descriptor.isOpen()) return errno == ENOENT ? 0 : -1;
  return ::fdatasync(descriptor.get());
}

int makeFileSystemPermanent(const std::string& path) {
  const FileDescriptor descriptor = openUnlessPipe(path, O_RDONLY);
  if (!descriptor.isOpen()) return errno == ENOENT ? 0 : -1;
  const int result = ::syncfs(descriptor.get());
  // There are file systems that give everything to the device and leave it in the device's cache, which the sync of a file
  // empties.
  return result == 0 ? ::fdatasync(descriptor.get()) : result;
}

bool canMakeFileSystemPermanent(const std::string& path) {
  struct statfs facts = {};
  return ::statfs(path.c_str(), &facts) == 0 && facts.f_type != FUSE_SUPER_MAGIC;
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
