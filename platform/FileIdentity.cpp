#include "platform/FileIdentity.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/Error.h"

namespace platform {

namespace {

constexpr uint64_t nanosecondsPerSecond = 1'000'000'000;

std::optional<FileIdentity> identityIn(int result, const struct stat& facts) {
  if (result != 0) return std::nullopt;
  return FileIdentity{.device = facts.st_dev, .inode = facts.st_ino};
}

uint64_t nanoseconds(int64_t seconds, int64_t fraction) {
  return static_cast<uint64_t>(seconds) * nanosecondsPerSecond + static_cast<uint64_t>(fraction);
}

FileStamp stampOfContent(uint64_t inode, uint64_t modified, uint64_t size) {
  return {.number = inode,
          .modified = static_cast<uint32_t>(modified),
          .size = static_cast<uint32_t>(size & (FileStamp::ofCreation >> 1))};
}

std::optional<FileStamp> stampWithoutCreation(int directory, const char* path, int flags) {
  struct stat facts = {};
  if (::fstatat(directory, path, &facts, flags) != 0) return std::nullopt;
  return stampOfContent(facts.st_ino, nanoseconds(facts.st_mtim.tv_sec, facts.st_mtim.tv_nsec),
                        static_cast<uint64_t>(facts.st_size));
}

// Asks the server, if there is one: what the system remembers may be about a file that is no longer there.
std::optional<FileStamp> stamp(int directory, const char* path, int flags) {
  struct statx facts = {};
  const unsigned wanted = STATX_INO | STATX_BTIME | STATX_MTIME | STATX_SIZE;
  if (::statx(directory, path, flags | AT_STATX_FORCE_SYNC, wanted, &facts) != 0) {
    return isRefused(errno) ? stampWithoutCreation(directory, path, flags) : std::nullopt;
  }
  if ((facts.stx_mask & STATX_BTIME) == 0) {
    return stampOfContent(facts.stx_ino, nanoseconds(facts.stx_mtime.tv_sec, facts.stx_mtime.tv_nsec), facts.stx_size);
  }
  return FileStamp{.number = nanoseconds(facts.stx_btime.tv_sec, facts.stx_btime.tv_nsec),
                   .size = FileStamp::ofCreation};
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
  return identityIn(result, facts);
}

std::optional<FileIdentity> identityOfOpenFile(int descriptor) {
  struct stat facts = {};
  const int result = ::fstat(descriptor, &facts);
  return identityIn(result, facts);
}

std::optional<FileIdentity> identityOfItem(const std::string& path) {
  struct stat facts = {};
  const int result = ::lstat(path.c_str(), &facts);
  return identityIn(result, facts);
}

bool FileStamp::isOf(const FileStamp& found) const {
  if (size != found.size) return false;
  return number == found.number || (!hasTimeOfCreation() && modified == found.modified);
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
  // Not one of the standard descriptors: if standard input is closed, its number must be left for the source.
  constexpr int behindStandardDescriptors = 3;
  if (_file.get() < behindStandardDescriptors) {
    _file = FileDescriptor(::fcntl(_file.get(), F_DUPFD_CLOEXEC, behindStandardDescriptors));
  }
}

std::optional<FileIdentity> PinnedFile::identity() const {
  return _file.isOpen() ? identityOfOpenFile(_file.get()) : std::nullopt;
}

std::optional<FileStamp> PinnedFile::stamp() const {
  return _file.isOpen() ? stampOfFile(_file.get()) : std::nullopt;
}

bool PinnedFile::mayBeItem(const std::string& path) const {
  struct stat own = {};
  struct stat found = {};
  if (!_file.isOpen() || ::fstat(_file.get(), &own) != 0 || ::lstat(path.c_str(), &found) != 0) return false;
  const bool isUnchanged = own.st_mtim.tv_sec == found.st_mtim.tv_sec && own.st_mtim.tv_nsec == found.st_mtim.tv_nsec;
  return identityIn(0, own) == identityIn(0, found) || (own.st_size == found.st_size && isUnchanged);
}

std::optional<bool> PinnedFile::standsAt(const std::string& path) const {
  const std::optional<FileStamp> found = stampOfItem(path);
  if (!found) return errno == ENOENT ? std::optional(false) : std::nullopt;
  const std::optional<FileStamp> now = stamp();
  // Both stamps are taken at the same moment, so one file has one number.
  return now ? std::optional(now->number == found->number && now->size == found->size) : std::nullopt;
}

}  // namespace platform
