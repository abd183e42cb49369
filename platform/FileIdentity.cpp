#include "platform/FileIdentity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>

#include "platform/Error.h"

namespace platform {

namespace {

constexpr uint64_t nanosecondsPerSecond = 1'000'000'000;

std::optional<FileIdentity> identity(int result, const struct stat& facts) {
  if (result != 0) return std::nullopt;
  return FileIdentity{.device = facts.st_dev, .inode = facts.st_ino};
}

uint64_t nanoseconds(int64_t seconds, uint64_t fraction) {
  return static_cast<uint64_t>(seconds) * nanosecondsPerSecond + fraction;
}

std::optional<FileStamp> stampWithoutCreation(int directory, const char* path, int flags) {
  struct stat facts = {};
  if (::fstatat(directory, path, &facts, flags) != 0) return std::nullopt;
  return FileStamp{.identity = {.device = facts.st_dev, .inode = facts.st_ino},
                   .modified = nanoseconds(facts.st_mtim.tv_sec, static_cast<uint64_t>(facts.st_mtim.tv_nsec)),
                   .size = static_cast<uint64_t>(facts.st_size)};
}

std::optional<FileStamp> stamp(int directory, const char* path, int flags) {
  struct statx facts = {};
  const unsigned wanted = STATX_INO | STATX_BTIME | STATX_MTIME | STATX_SIZE;
  if (::statx(directory, path, flags, wanted, &facts) != 0) {
    return isRefused(errno) ? stampWithoutCreation(directory, path, flags) : std::nullopt;
  }
  const bool isCreationKnown = (facts.stx_mask & STATX_BTIME) != 0;
  return FileStamp{.identity = {.device = ::makedev(facts.stx_dev_major, facts.stx_dev_minor), .inode = facts.stx_ino},
                   .created = isCreationKnown ? nanoseconds(facts.stx_btime.tv_sec, facts.stx_btime.tv_nsec) : 0,
                   .modified = nanoseconds(facts.stx_mtime.tv_sec, facts.stx_mtime.tv_nsec),
                   .size = facts.stx_size};
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

bool FileStamp::isOf(const FileStamp& found) const {
  if (identity.device != found.identity.device) return false;
  if (created != 0 && found.created != 0) return created == found.created;
  return size == found.size && (identity == found.identity || modified == found.modified);
}

std::optional<FileStamp> stampOfFile(int descriptor) {
  return stamp(descriptor, "", AT_EMPTY_PATH);
}

std::optional<FileStamp> stampOfItem(const std::string& path) {
  return stamp(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW);
}

PinnedFile PinnedFile::ofFile(const std::string& path) {
  return {path, 0};
}

PinnedFile PinnedFile::ofItem(const std::string& path) {
  return {path, O_NOFOLLOW};
}

PinnedFile::PinnedFile(const std::string& path, int flags) : _file(::open(path.c_str(), O_PATH | O_CLOEXEC | flags)) {
  if (!_file.isOpen()) return;
  // Beyond the standard descriptors: which file gets a closed standard input's number is no matter of this one.
  constexpr int behindStandardDescriptors = 3;
  if (_file.get() < behindStandardDescriptors) {
    _file = FileDescriptor(::fcntl(_file.get(), F_DUPFD_CLOEXEC, behindStandardDescriptors));
  }
}

std::optional<FileStamp> PinnedFile::stamp() const {
  return _file.isOpen() ? stampOfFile(_file.get()) : std::nullopt;
}

bool PinnedFile::standsAt(const std::string& path) const {
  const std::optional<FileStamp> now = stamp();
  const std::optional<FileStamp> found = stampOfItem(path);
  return now && found && now->isOf(*found);
}

}  // namespace platform
