#include "PassThrough.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <strings.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <filesystem>
#include <functional>

// Requests about names, folders and attributes.
namespace faultyfs {

namespace {

// Zero timeouts make the kernel ask again every time, so that a fault is in force from the next call on.
constexpr double attributeTimeout = 0;
constexpr double entryTimeout = 0;

int errorOf(int result) {
  return result == 0 ? 0 : errno;
}

// The times of files are after 1970 here, so rounding down is towards zero.
void roundDown(timespec& time, std::chrono::milliseconds grain) {
  if (grain.count() == 0) return;
  const auto exact = std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  const auto rounded = exact - exact % grain;
  time.tv_sec = std::chrono::floor<std::chrono::seconds>(rounded).count();
  time.tv_nsec = (rounded % std::chrono::seconds(1)).count();
}

void answerWithBytes(fuse_req_t request, ssize_t got, const std::vector<char>& buffer) {
  if (got < 0) {
    fuse_reply_err(request, errno);
  } else if (buffer.empty()) {
    fuse_reply_xattr(request, static_cast<std::size_t>(got));
  } else {
    fuse_reply_buf(request, buffer.data(), static_cast<std::size_t>(got));
  }
}

}  // namespace

PassThrough::PassThrough(FileDescriptor backing, FaultBook& faults, TrafficLog& traffic, WriteCaches& caches,
                         std::function<void()> whenMounted)
    : _inodes(std::move(backing), FUSE_ROOT_ID),
      _faults(faults),
      _traffic(traffic),
      _caches(caches),
      _whenMounted(std::move(whenMounted)) {}

void PassThrough::initialise(fuse_conn_info& connection) {
  // A changed modification time must not drop cached pages, or a read would get past the cache by chance. The requests of one
  // direct write must come one after the other, or the kernel would report a short one as EIO.
  const unsigned int unwanted = FUSE_CAP_AUTO_INVAL_DATA | FUSE_CAP_WRITEBACK_CACHE | FUSE_CAP_ASYNC_DIO;
  connection.want &= ~unwanted;
  _whenMounted();
}

Verdict PassThrough::meet(const Request& request) {
  Verdict verdict = _faults.judge(request);
  _faults.delay(verdict);
  return verdict;
}

int PassThrough::attributesOf(const Inode& inode, struct stat& attributes) {
  if (::fstatat(inode.handle.get(), "", &attributes, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) {
    return errno;
  }
  if (S_ISREG(attributes.st_mode)) {
    const Verdict verdict = meet({Operation::ReportAttributes, _inodes.pathOf(inode), {}, {}, 0});
    attributes.st_size = std::max<off_t>(0, attributes.st_size + verdict.sizeLie);
    if (verdict.numberByReference) attributes.st_ino = inode.number;
    if (verdict.numberByName) attributes.st_ino = std::hash<std::string>{}(_inodes.pathOf(inode));
    for (timespec* time : {&attributes.st_atim, &attributes.st_mtim, &attributes.st_ctim}) {
      roundDown(*time, verdict.timeGrain);
    }
    return verdict.error;
  }
  return 0;
}

std::string PassThrough::storedName(const Inode& folder, const char* name) {
  if (!meet({Operation::LookUp, _inodes.pathOf(folder, name), {}, {}, 0}).ignoreCase) return name;
  std::string found = name;
  for (const auto& item : std::filesystem::directory_iterator(handlePath(folder))) {
    const std::string stored = item.path().filename();
    if (stored == name) return stored;
    if (::strcasecmp(stored.c_str(), name) == 0) found = stored;
  }
  return found;
}

int PassThrough::enter(fuse_ino_t parent, const char* name, fuse_entry_param& entry) {
  const InodePointer folder = _inodes.find(parent);
  const std::string stored = storedName(*folder, name);
  FileDescriptor handle(::openat(folder->handle.get(), stored.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat attributes {};
  if (!handle.valid() || ::fstatat(handle.get(), "", &attributes, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) {
    return errno;
  }
  const InodePointer inode = _inodes.lookUp(std::move(handle), fileIdOf(attributes), folder, name);
  entry.ino = inode->number;
  entry.attr_timeout = attributeTimeout;
  entry.entry_timeout = entryTimeout;
  const int error = attributesOf(*inode, entry.attr);
  if (error != 0) {
    _inodes.forget(inode->number, 1);
  }
  return error;
}

void PassThrough::answerWithEntry(fuse_req_t request, fuse_ino_t parent, const char* name) {
  fuse_entry_param entry{};
  if (const int error = enter(parent, name, entry); error != 0) {
    fuse_reply_err(request, error);
  } else if (fuse_reply_entry(request, &entry) != 0) {
    _inodes.forget(entry.ino, 1);  // the kernel never saw it
  }
}

void PassThrough::lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
  answerWithEntry(request, parent, name);
}

void PassThrough::forget(fuse_ino_t inode, std::uint64_t count) {
  _inodes.forget(inode, count);
}

void PassThrough::getAttributes(fuse_req_t request, fuse_ino_t inode) {
  struct stat attributes {};
  if (const int error = attributesOf(*_inodes.find(inode), attributes); error != 0) {
    fuse_reply_err(request, error);
  } else {
    fuse_reply_attr(request, &attributes, attributeTimeout);
  }
}

// The real size in bytes, 0 if it cannot be found out.
std::uint64_t PassThrough::sizeOf(const Inode& inode) const {
  struct stat attributes {};
  const bool known = ::fstatat(inode.handle.get(), "", &attributes, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) == 0;
  return known ? static_cast<std::uint64_t>(attributes.st_size) : 0;
}

int PassThrough::changeSize(const Inode& inode, std::uint64_t size, const fuse_file_info* file) {
  if (!_faults.hasSpaceFor(_inodes.pathOf(inode), sizeOf(inode), size)) {
    return ENOSPC;
  }
  const auto length = static_cast<off_t>(size);
  return errorOf(file != nullptr ? ::ftruncate(static_cast<int>(file->fh), length)
                                 : ::truncate(handlePath(inode).c_str(), length));
}

int PassThrough::changeAttributes(const Inode& inode, const struct stat& wanted, int which,
                                  const fuse_file_info* file) {
  const std::string path = handlePath(inode);
  if ((which & FUSE_SET_ATTR_MODE) != 0 && ::chmod(path.c_str(), wanted.st_mode & 07777U) != 0) {
    return errno;
  }
  if ((which & (FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) != 0) {
    const uid_t user = (which & FUSE_SET_ATTR_UID) != 0 ? wanted.st_uid : static_cast<uid_t>(-1);
    const gid_t group = (which & FUSE_SET_ATTR_GID) != 0 ? wanted.st_gid : static_cast<gid_t>(-1);
    if (::fchownat(inode.handle.get(), "", user, group, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) {
      return errno;
    }
  }
  if ((which & FUSE_SET_ATTR_SIZE) != 0) {
    if (const int error = changeSize(inode, static_cast<std::uint64_t>(wanted.st_size), file); error != 0) {
      return error;
    }
  }
  if ((which & (FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME)) != 0) {
    timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_OMIT}};
    if ((which & FUSE_SET_ATTR_ATIME) != 0) {
      times[0] = (which & FUSE_SET_ATTR_ATIME_NOW) != 0 ? timespec{0, UTIME_NOW} : wanted.st_atim;
    }
    if ((which & FUSE_SET_ATTR_MTIME) != 0) {
      times[1] = (which & FUSE_SET_ATTR_MTIME_NOW) != 0 ? timespec{0, UTIME_NOW} : wanted.st_mtim;
    }
    return errorOf(::utimensat(AT_FDCWD, path.c_str(), times, 0));
  }
  return 0;
}

void PassThrough::setAttributes(fuse_req_t request, fuse_ino_t inode, const struct stat& wanted, int which,
                                const fuse_file_info* file) {
  if (const int error = changeAttributes(*_inodes.find(inode), wanted, which, file); error != 0) {
    fuse_reply_err(request, error);
  } else {
    getAttributes(request, inode);
  }
}

void PassThrough::access(fuse_req_t request, fuse_ino_t inode, int mask) {
  fuse_reply_err(request, errorOf(::access(handlePath(*_inodes.find(inode)).c_str(), mask)));
}

void PassThrough::statFileSystem(fuse_req_t request, fuse_ino_t inode) {
  struct statvfs attributes {};
  if (::fstatvfs(_inodes.find(inode)->handle.get(), &attributes) != 0) {
    fuse_reply_err(request, errno);
  } else {
    fuse_reply_statfs(request, &attributes);
  }
}

void PassThrough::makeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t device) {
  const InodePointer folder = _inodes.find(parent);
  const Verdict verdict = meet({Operation::Create, _inodes.pathOf(*folder, name), {}, {}, 0});
  if (verdict.error != 0 || ::mknodat(folder->handle.get(), name, mode, device) != 0) {
    fuse_reply_err(request, verdict.error != 0 ? verdict.error : errno);
  } else {
    answerWithEntry(request, parent, name);
  }
}

void PassThrough::makeFolder(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode) {
  const InodePointer folder = _inodes.find(parent);
  const Verdict verdict = meet({Operation::MakeFolder, _inodes.pathOf(*folder, name), {}, {}, 0});
  if (verdict.error != 0 || ::mkdirat(folder->handle.get(), name, mode) != 0) {
    fuse_reply_err(request, verdict.error != 0 ? verdict.error : errno);
  } else {
    answerWithEntry(request, parent, name);
  }
}

void PassThrough::makeSymlink(fuse_req_t request, const char* target, fuse_ino_t parent, const char* name) {
  if (::symlinkat(target, _inodes.find(parent)->handle.get(), name) != 0) {
    fuse_reply_err(request, errno);
  } else {
    answerWithEntry(request, parent, name);
  }
}

void PassThrough::readSymlink(fuse_req_t request, fuse_ino_t inode) {
  std::string target(PATH_MAX, '\0');
  const ssize_t size = ::readlinkat(_inodes.find(inode)->handle.get(), "", target.data(), target.size() - 1);
  if (size < 0) {
    fuse_reply_err(request, errno);
  } else {
    target.resize(static_cast<std::size_t>(size));
    fuse_reply_readlink(request, target.c_str());
  }
}

void PassThrough::link(fuse_req_t request, fuse_ino_t inode, fuse_ino_t newParent, const char* newName) {
  const InodePointer node = _inodes.find(inode);
  const InodePointer folder = _inodes.find(newParent);
  const std::string path = _inodes.pathOf(*node);
  _traffic.add(path, &Counters::links);
  const Verdict verdict = meet({Operation::Link, path, _inodes.pathOf(*folder, newName), {}, 0});
  if (verdict.error != 0 ||
      ::linkat(AT_FDCWD, handlePath(*node).c_str(), folder->handle.get(), newName, AT_SYMLINK_FOLLOW) != 0) {
    fuse_reply_err(request, verdict.error != 0 ? verdict.error : errno);
  } else {
    answerWithEntry(request, newParent, newName);
  }
}

void PassThrough::unlink(fuse_req_t request, fuse_ino_t parent, const char* name) {
  const InodePointer folder = _inodes.find(parent);
  const std::string path = _inodes.pathOf(*folder, name);
  _traffic.add(path, &Counters::unlinks);
  const Verdict verdict = meet({Operation::Unlink, path, {}, {}, 0});
  const std::string stored = storedName(*folder, name);
  fuse_reply_err(request,
                 verdict.error != 0 ? verdict.error : errorOf(::unlinkat(folder->handle.get(), stored.c_str(), 0)));
}

void PassThrough::removeFolder(fuse_req_t request, fuse_ino_t parent, const char* name) {
  const InodePointer folder = _inodes.find(parent);
  const std::string stored = storedName(*folder, name);
  fuse_reply_err(request, errorOf(::unlinkat(folder->handle.get(), stored.c_str(), AT_REMOVEDIR)));
}

void PassThrough::noteName(const InodePointer& parent, const std::string& name) {
  struct stat attributes {};
  if (::fstatat(parent->handle.get(), name.c_str(), &attributes, AT_SYMLINK_NOFOLLOW) == 0) {
    _inodes.rename(fileIdOf(attributes), parent, name);
  }
}

void PassThrough::rename(fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent,
                         const char* newName, unsigned int flags) {
  const InodePointer from = _inodes.find(parent);
  const InodePointer to = _inodes.find(newParent);
  const std::string path = _inodes.pathOf(*from, name);
  _traffic.add(path, &Counters::renames);
  const Verdict verdict = meet({Operation::Rename, path, _inodes.pathOf(*to, newName), {}, static_cast<int>(flags)});
  const std::string stored = storedName(*from, name);
  const std::string newStored = storedName(*to, newName);
  const int error =
      verdict.error != 0
          ? verdict.error
          : errorOf(::renameat2(from->handle.get(), stored.c_str(), to->handle.get(), newStored.c_str(), flags));
  if (error == 0) {
    noteName(to, newStored);
    if ((flags & RENAME_EXCHANGE) != 0) {
      noteName(from, stored);
    }
  }
  fuse_reply_err(request, error);
}

void PassThrough::openFolder(fuse_req_t request, fuse_ino_t inode, fuse_file_info& file) {
  auto folder = std::make_shared<OpenFolder>();
  folder->descriptor.reset(::open(handlePath(*_inodes.find(inode)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder->descriptor.valid()) {
    fuse_reply_err(request, errno);
    return;
  }
  {
    const std::lock_guard lock(_foldersMutex);
    file.fh = ++_lastFolder;
    _folders[file.fh] = std::move(folder);
  }
  if (fuse_reply_open(request, &file) != 0) {
    const std::lock_guard lock(_foldersMutex);
    _folders.erase(file.fh);
  }
}

std::shared_ptr<PassThrough::OpenFolder> PassThrough::folderOf(const fuse_file_info& file) {
  const std::lock_guard lock(_foldersMutex);
  return _folders.at(file.fh);
}

void PassThrough::collectEntries(OpenFolder& folder) {
  folder.entries.clear();
  FileDescriptor again(::openat(folder.descriptor.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, decltype([](DIR* stream) { ::closedir(stream); })> stream(::fdopendir(again.get()));
  if (!stream) {
    return;
  }
  again.release();                                         // closed along with the stream
  while (const dirent* found = ::readdir(stream.get())) {  // NOLINT(concurrency-mt-unsafe): nobody shares the stream
    FolderEntry& entry = folder.entries.emplace_back();
    entry.name = found->d_name;
    entry.attributes.st_ino = found->d_ino;
    entry.attributes.st_mode = static_cast<mode_t>(DTTOIF(found->d_type));
  }
}

void PassThrough::readFolder(fuse_req_t request, std::size_t size, off_t offset, const fuse_file_info& file) {
  const std::shared_ptr<OpenFolder> folder = folderOf(file);
  const std::lock_guard lock(folder->mutex);
  if (offset == 0) {
    collectEntries(*folder);
  }
  std::vector<char> buffer(size);
  std::size_t used = 0;
  for (auto index = static_cast<std::size_t>(offset); index < folder->entries.size(); ++index) {
    const FolderEntry& entry = folder->entries[index];
    const std::size_t needed = fuse_add_direntry(request, buffer.data() + used, size - used, entry.name.c_str(),
                                                 &entry.attributes, static_cast<off_t>(index + 1));
    if (needed > size - used) {
      break;
    }
    used += needed;
  }
  fuse_reply_buf(request, buffer.data(), used);
}

void PassThrough::syncFolder(fuse_req_t request, fuse_ino_t inode, bool dataOnly, const fuse_file_info& file) {
  const std::string path = pathOf(inode);
  _traffic.add(path, &Counters::syncs);
  if (const Verdict verdict = meet({Operation::Sync, path, {}, {}, O_DIRECTORY}); verdict.error != 0) {
    fuse_reply_err(request, verdict.error);
    return;
  }
  const int descriptor = folderOf(file)->descriptor.get();
  fuse_reply_err(request, errorOf(dataOnly ? ::fdatasync(descriptor) : ::fsync(descriptor)));
}

void PassThrough::releaseFolder(fuse_req_t request, const fuse_file_info& file) {
  {
    const std::lock_guard lock(_foldersMutex);
    _folders.erase(file.fh);
  }
  fuse_reply_err(request, 0);
}

void PassThrough::setExtended(fuse_req_t request, fuse_ino_t inode, const char* name, std::span<const char> value,
                              int flags) {
  const std::string path = handlePath(*_inodes.find(inode));
  fuse_reply_err(request, errorOf(::setxattr(path.c_str(), name, value.data(), value.size(), flags)));
}

void PassThrough::getExtended(fuse_req_t request, fuse_ino_t inode, const char* name, std::size_t size) {
  std::vector<char> buffer(size);
  const std::string path = handlePath(*_inodes.find(inode));
  answerWithBytes(request, ::getxattr(path.c_str(), name, buffer.data(), size), buffer);
}

void PassThrough::listExtended(fuse_req_t request, fuse_ino_t inode, std::size_t size) {
  std::vector<char> buffer(size);
  const std::string path = handlePath(*_inodes.find(inode));
  answerWithBytes(request, ::listxattr(path.c_str(), buffer.data(), size), buffer);
}

void PassThrough::removeExtended(fuse_req_t request, fuse_ino_t inode, const char* name) {
  const std::string path = handlePath(*_inodes.find(inode));
  fuse_reply_err(request, errorOf(::removexattr(path.c_str(), name)));
}

}  // namespace faultyfs
