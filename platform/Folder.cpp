#include "platform/Folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <memory>
#include <tuple>
#include <vector>

#include "platform/FileURL.h"

namespace platform {

namespace {

constexpr int openFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t modeOfNewFolders = 0777;
constexpr uint32_t permissionBits = 07777;
constexpr int64_t nanosecondsPerSecond = 1'000'000'000;

template <typename Value>
std::optional<Value> none(ErrorPlace place, Error error) {
  fail(place, std::move(error));
  return std::nullopt;
}

ItemKind kindOf(mode_t mode) {
  if (S_ISREG(mode)) return ItemKind::file;
  if (S_ISDIR(mode)) return ItemKind::folder;
  if (S_ISLNK(mode)) return ItemKind::link;
  return ItemKind::other;
}

int64_t nanosecondsOf(const timespec& time) {
  constexpr int64_t latest = INT64_MAX / nanosecondsPerSecond - 1;
  if (time.tv_sec > latest) return INT64_MAX;
  if (time.tv_sec < -latest) return INT64_MIN;
  return int64_t{time.tv_sec} * nanosecondsPerSecond + time.tv_nsec;
}

ItemFacts factsFrom(const struct stat& found) {
  return {.kind = kindOf(found.st_mode),
          .mode = static_cast<uint32_t>(found.st_mode) & permissionBits,
          .size = static_cast<uint64_t>(found.st_size),
          .modified = nanosecondsOf(found.st_mtim),
          .changed = nanosecondsOf(found.st_ctim),
          .identity = {.device = found.st_dev, .inode = found.st_ino}};
}

std::array<timespec, 2> onlyModified(int64_t modified) {
  // Rounded down: the system wants positive nanoseconds, also for times before 1970.
  int64_t seconds = modified / nanosecondsPerSecond;
  int64_t rest = modified % nanosecondsPerSecond;
  if (rest < 0) {
    --seconds;
    rest += nanosecondsPerSecond;
  }
  return {timespec{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, timespec{.tv_sec = seconds, .tv_nsec = rest}};
}

// Opens a folder below another one, and follows no link. `path` must be short enough for one call.
int openBelow(int folder, const std::string& path) {
  open_how how{};
  how.flags = openFolderFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  for (;;) {
    const long opened = ::syscall(SYS_openat2, folder, path.c_str(), &how, sizeof how);
    // EAGAIN: something was renamed at this moment, so the system can't say that the path is safe.
    if (opened < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    return static_cast<int>(opened);
  }
}

std::vector<std::string> namesIn(std::string_view path) {
  std::vector<std::string> names;
  while (!path.empty()) {
    const std::size_t length = std::min(path.find('/'), path.size());
    if (length != 0) names.emplace_back(path.substr(0, length));
    path.remove_prefix(std::min(length + 1, path.size()));
  }
  return names;
}

// The path in pieces that are short enough for one call each.
std::vector<std::string> piecesOf(std::string_view path) {
  constexpr std::size_t longest = PATH_MAX - 2;
  std::vector<std::string> pieces;
  for (const std::string& name : namesIn(path)) {
    if (!pieces.empty() && pieces.back().size() + 1 + name.size() <= longest) {
      pieces.back() += '/' + name;
    } else {
      pieces.push_back(name);
    }
  }
  return pieces;
}

bool leadsUp(std::string_view path) {
  for (const std::string& name : namesIn(path)) {
    if (name == "..") return true;
  }
  return false;
}

// Opens the folder of this one name. Where the system has no openat2 (before 5.6, or in a sandbox), this is enough.
int openStep(int folder, const std::string& name) {
  return ::openat(folder, name.c_str(), openFolderFlags);
}

bool lacksOpenat2(int code) {
  return code == ENOSYS || code == EPERM;
}

FileDescriptor openStepByStep(int folder, std::string_view path) {
  FileDescriptor current(::fcntl(folder, F_DUPFD_CLOEXEC, 0));
  for (const std::string& name : namesIn(path)) {
    if (!current.isOpen()) break;
    const int next = openStep(current.get(), name);
    const int code = errno;
    current = FileDescriptor(next);
    errno = code;
  }
  return current;
}

FileDescriptor openWay(int folder, std::string_view path) {
  FileDescriptor current(::fcntl(folder, F_DUPFD_CLOEXEC, 0));
  for (const std::string& piece : piecesOf(path)) {
    if (!current.isOpen()) break;
    const int next = openBelow(current.get(), piece);
    const int code = errno;
    if (next < 0 && lacksOpenat2(code)) return openStepByStep(folder, path);
    current = FileDescriptor(next);
    errno = code;
  }
  return current;
}

struct CloseStream {
  void operator()(DIR* stream) const { ::closedir(stream); }
};
using Stream = std::unique_ptr<DIR, CloseStream>;

// On a descriptor of its own, which shares its position with that of the folder.
Stream openStream(int folder) {
  FileDescriptor own(::fcntl(folder, F_DUPFD_CLOEXEC, 0));
  if (!own.isOpen()) return nullptr;
  Stream stream(::fdopendir(own.get()));
  if (stream) own.release();
  return stream;
}

bool isOwnName(std::string_view name) {
  return name == "." || name == "..";
}

}  // namespace

std::optional<Folder> Folder::open(const std::string& path, ErrorPlace error) {
  FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.isOpen()) return none<Folder>(error, posixError("open", path, errno));
  return Folder(std::move(folder));
}

std::optional<Folder> Folder::openFolder(std::string_view path, ErrorPlace error) const {
  if (leadsUp(path)) return none<Folder>(error, posixError("open", path, EXDEV));
  FileDescriptor folder = openWay(_folder.get(), path);
  if (!folder.isOpen()) return none<Folder>(error, posixError("open", path, errno));
  return Folder(std::move(folder));
}

std::optional<Folder> Folder::openParent(ErrorPlace error) const {
  FileDescriptor folder(::openat(_folder.get(), "..", openFolderFlags));
  if (!folder.isOpen()) return none<Folder>(error, posixError("open", "..", errno));
  return Folder(std::move(folder));
}

std::optional<Folder> Folder::makeFolders(std::string_view path, ErrorPlace error) const {
  if (leadsUp(path)) return none<Folder>(error, posixError("mkdir", path, EXDEV));
  if (std::optional<Folder> there = openFolder(path, nullptr)) return there;
  FileDescriptor current(::fcntl(_folder.get(), F_DUPFD_CLOEXEC, 0));
  if (!current.isOpen()) return none<Folder>(error, posixError("dup", path, errno));
  for (const std::string& name : namesIn(path)) {
    if (::mkdirat(current.get(), name.c_str(), modeOfNewFolders) != 0 && errno != EEXIST) {
      return none<Folder>(error, posixError("mkdir", path, errno));
    }
    FileDescriptor next(openStep(current.get(), name));
    if (!next.isOpen()) return none<Folder>(error, posixError("open", path, errno));
    current = std::move(next);
  }
  return Folder(std::move(current));
}

bool Folder::makeFolder(const std::string& name, ErrorPlace error) const {
  if (::mkdirat(_folder.get(), name.c_str(), modeOfNewFolders) == 0) return true;
  const int code = errno;
  const std::optional<ItemFacts> there = factsOf(name, nullptr);
  return (there && there->kind == ItemKind::folder) || fail(error, posixError("mkdir", name, code));
}

FileDescriptor Folder::openFile(const std::string& name, ErrorPlace error) const {
  FileDescriptor file(::openat(_folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file.isOpen()) {
    fail(error, posixError("open", name, errno));
    return file;
  }
  const std::optional<ItemFacts> found = factsOfOpenFile(file.get());
  if (found && found->kind == ItemKind::file) return file;
  fail(error, posixError("open", name, EISDIR));
  return {};
}

std::optional<std::vector<std::string>> Folder::names(ErrorPlace error) const {
  using Names = std::vector<std::string>;
  const Stream stream = openStream(_folder.get());
  if (!stream) return none<Names>(error, posixError("opendir", "", errno));
  ::rewinddir(stream.get());
  Names found;
  errno = 0;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this call's own
  while (const dirent* item = ::readdir(stream.get())) {
    if (!isOwnName(item->d_name)) found.emplace_back(item->d_name);
    errno = 0;
  }
  if (errno != 0) return none<Names>(error, posixError("readdir", "", errno));
  return found;
}

std::optional<ItemFacts> Folder::factsOf(const std::string& name, ErrorPlace error) const {
  struct stat found = {};
  if (::fstatat(_folder.get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) == 0)
    return factsFrom(found);
  if (errno == ENOENT) return ItemFacts{};
  return none<ItemFacts>(error, posixError("stat", name, errno));
}

std::optional<ItemFacts> Folder::facts(ErrorPlace error) const {
  std::optional<ItemFacts> found = factsOfOpenFile(_folder.get());
  if (!found) fail(error, posixError("stat", "", errno));
  return found;
}

std::optional<std::string> Folder::linkTarget(const std::string& name, ErrorPlace error) const {
  std::string target(PATH_MAX, '\0');
  const ssize_t length = ::readlinkat(_folder.get(), name.c_str(), target.data(), target.size());
  if (length < 0) return none<std::string>(error, posixError("readlink", name, errno));
  target.resize(static_cast<std::size_t>(length));
  return target;
}

bool Folder::makeLink(const std::string& name, const std::string& target, ErrorPlace error) const {
  return ::symlinkat(target.c_str(), _folder.get(), name.c_str()) == 0 ||
         fail(error, posixError("symlink", name, errno));
}

bool Folder::moveItem(const std::string& name, const Folder& to, const std::string& newName, ErrorPlace error) const {
  const std::string from = path() + '/' + name;
  return platform::moveItem(PinnedFile::ofItem(from), from, to.path() + '/' + newName, error);
}

bool Folder::removeItem(const std::string& name, ErrorPlace error) const {
  return ::unlinkat(_folder.get(), name.c_str(), 0) == 0 || fail(error, posixError("unlink", name, errno));
}

bool Folder::removeFolder(const std::string& name, ErrorPlace error) const {
  return ::unlinkat(_folder.get(), name.c_str(), AT_REMOVEDIR) == 0 || fail(error, posixError("rmdir", name, errno));
}

bool Folder::setModeAndTime(uint32_t mode, int64_t modified, ErrorPlace error) const {
  return platform::setModeAndTime(_folder.get(), mode, modified, error);
}

bool Folder::setLinkTime(const std::string& name, int64_t modified, ErrorPlace error) const {
  const std::array<timespec, 2> times = onlyModified(modified);
  return ::utimensat(_folder.get(), name.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) == 0 ||
         fail(error, posixError("utimensat", name, errno));
}

bool Folder::sync(ErrorPlace error) const {
  if (::fsync(_folder.get()) == 0 || errno == EINVAL || errno == ENOTSUP) return true;
  return fail(error, posixError("fsync", "", errno));
}

bool Folder::syncFileSystem(ErrorPlace error) const {
  if (!canSyncFileSystem()) return fail(error, posixError("syncfs", "", ENOTSUP));
  if (::syncfs(_folder.get()) != 0) return fail(error, posixError("syncfs", "", errno));
  // Some file systems write everything to the device but leave it in the device's cache. The sync of a folder or file
  // empties that.
  return sync(error);
}

bool Folder::canSyncFileSystem() const {
  struct statfs facts = {};
  return ::fstatfs(_folder.get(), &facts) == 0 && facts.f_type != FUSE_SUPER_MAGIC;
}

bool Folder::lock(ErrorPlace error) const {
  return ::flock(_folder.get(), LOCK_EX | LOCK_NB) == 0 || fail(error, posixError("flock", "", errno));
}

std::string Folder::path() const {
  return pathOfDescriptor(_folder.get());
}

bool makeOneFolder(const std::string& path, ErrorPlace error) {
  if (::mkdir(path.c_str(), modeOfNewFolders) != 0) return fail(error, posixError("mkdir", path, errno));
  const std::optional<Folder> above = Folder::open(FileURL(path).deletingLastPathComponent().path(), error);
  return above && above->sync(error);
}

bool setModeAndTime(int file, uint32_t mode, int64_t modified, ErrorPlace error) {
  const std::array<timespec, 2> times = onlyModified(modified);
  if (::fchmod(file, mode) != 0) return fail(error, posixError("fchmod", "", errno));
  return ::futimens(file, times.data()) == 0 || fail(error, posixError("futimens", "", errno));
}

bool syncFile(int file, ErrorPlace error) {
  return ::fsync(file) == 0 || fail(error, posixError("fsync", "", errno));
}

std::optional<ItemFacts> factsOfOpenFile(int file) {
  struct stat found = {};
  if (::fstat(file, &found) != 0) return std::nullopt;
  return factsFrom(found);
}

std::string pathOfDescriptor(int descriptor) {
  return fmt::format("/proc/self/fd/{}", descriptor);
}

}  // namespace platform
