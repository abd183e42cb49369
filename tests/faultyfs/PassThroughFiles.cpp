#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "PassThrough.h"

// Requests about the contents of files.
namespace faultyfs {

namespace {

int descriptorOf(const fuse_file_info& file) {
  return static_cast<int>(file.fh);
}

ByteRange rangeOf(off_t offset, std::size_t size) {
  const auto begin = static_cast<std::uint64_t>(offset);
  return {begin, begin + size};
}

// The backing file is used with buffers and offsets of any alignment, and the kernel has already computed the offset of
// appended bytes.
int backingFlags(int flags) {
  return (flags & ~(O_DIRECT | O_APPEND | O_NOFOLLOW | O_CREAT | O_EXCL)) | O_CLOEXEC;
}

// Returns the bytes written, which are fewer only if the backing file system fails, or a negative errno.
std::int64_t writeAll(int descriptor, std::span<const char> data, std::uint64_t offset) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t written =
        ::pwrite(descriptor, data.data() + done, data.size() - done, static_cast<off_t>(offset + done));
    if (written < 0) {
      return done > 0 ? static_cast<std::int64_t>(done) : -errno;
    }
    done += static_cast<std::size_t>(written);
  }
  return static_cast<std::int64_t>(done);
}

// Extends the file to `end` without changing stored bytes. It may only write the last byte, not set the size: another write
// could have extended the file further meanwhile.
int extendTo(int descriptor, std::uint64_t end) {
  struct stat attributes {};
  if (::fstat(descriptor, &attributes) != 0) {
    return errno;
  }
  const char zero = 0;
  if (static_cast<std::uint64_t>(attributes.st_size) < end &&
      ::pwrite(descriptor, &zero, 1, static_cast<off_t>(end - 1)) != 1) {
    return errno;
  }
  return 0;
}

// The parts of `whole` which no range of `lost` touches, in order.
std::vector<ByteRange> remaining(ByteRange whole, std::vector<ByteRange> lost) {
  std::ranges::sort(lost, {}, &ByteRange::begin);
  std::vector<ByteRange> kept;
  for (const ByteRange& gap : lost) {
    if (gap.begin >= gap.end || gap.end <= whole.begin) {
      continue;
    }
    if (gap.begin > whole.begin) {
      kept.push_back({whole.begin, std::min(gap.begin, whole.end)});
    }
    whole.begin = std::min(gap.end, whole.end);
  }
  if (whole.begin < whole.end) {
    kept.push_back(whole);
  }
  return kept;
}

}  // namespace

int PassThrough::prepareOpen(const std::string& path, fuse_file_info& file) {
  _traffic.add(path, &Counters::opens);
  const Verdict verdict = meet({Operation::Open, path, {}, {}, file.flags});
  file.keep_cache = 1;
  file.direct_io = verdict.bypassCache ? 1 : 0;
  return verdict.error;
}

void PassThrough::create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info& file) {
  const InodePointer folder = _inodes.find(parent);
  const std::string path = _inodes.pathOf(*folder, name);
  if (const Verdict verdict = meet({Operation::Create, path, {}, {}, file.flags}); verdict.error != 0) {
    fuse_reply_err(request, verdict.error);
    return;
  }
  const int flags = (backingFlags(file.flags) | O_CREAT | O_NOFOLLOW) | (file.flags & O_EXCL);
  FileDescriptor descriptor(::openat(folder->handle.get(), name, flags, mode));
  struct stat attributes {};
  if (!descriptor.valid() || ::fstat(descriptor.get(), &attributes) != 0) {
    fuse_reply_err(request, errno);
    return;
  }
  _faults.startAfresh(fileIdOf(attributes));
  // A refused open leaves the created file, as on local file systems without O_DIRECT.
  int error = prepareOpen(path, file);
  fuse_entry_param entry{};
  if (error == 0) {
    error = enter(parent, name, entry);
  }
  if (error != 0) {
    fuse_reply_err(request, error);
    return;
  }
  file.fh = static_cast<std::uint64_t>(descriptor.get());
  if (fuse_reply_create(request, &entry, &file) == 0) {
    descriptor.release();  // closed by release()
  } else {
    _inodes.forget(entry.ino, 1);
  }
}

void PassThrough::open(fuse_req_t request, fuse_ino_t inode, fuse_file_info& file) {
  const InodePointer node = _inodes.find(inode);
  if (const int error = prepareOpen(_inodes.pathOf(*node), file); error != 0) {
    fuse_reply_err(request, error);
    return;
  }
  FileDescriptor descriptor(::open(handlePath(*node).c_str(), backingFlags(file.flags)));
  if (!descriptor.valid()) {
    fuse_reply_err(request, errno);
    return;
  }
  file.fh = static_cast<std::uint64_t>(descriptor.get());
  if (fuse_reply_open(request, &file) == 0) {
    descriptor.release();  // closed by release()
  }
}

void PassThrough::read(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset,
                       const fuse_file_info& file) {
  const InodePointer node = _inodes.find(inode);
  const std::string path = _inodes.pathOf(*node);
  _traffic.add(path, &Counters::readRequests);
  if ((file.flags & O_DIRECT) != 0) {
    _traffic.add(path, &Counters::directReadRequests);
  }
  const Verdict verdict = meet({Operation::Read, path, {}, rangeOf(offset, size), file.flags});
  if (verdict.error != 0) {
    fuse_reply_err(request, verdict.error);
    return;
  }
  std::vector<char> buffer(static_cast<std::size_t>(std::min<std::uint64_t>(size, verdict.limit)));
  const ssize_t got = ::pread(descriptorOf(file), buffer.data(), buffer.size(), offset);
  if (got < 0) {
    fuse_reply_err(request, errno);
    return;
  }
  buffer.resize(static_cast<std::size_t>(got));
  _faults.flipBits(Operation::Read, path, node->id, static_cast<std::uint64_t>(offset), buffer);
  _traffic.addDelivery(path, static_cast<std::uint64_t>(offset), buffer.size());
  fuse_reply_buf(request, buffer.data(), buffer.size());
}

std::int64_t PassThrough::store(int descriptor, std::span<const char> data, std::uint64_t offset,
                                std::vector<ByteRange> lost) {
  if (lost.empty()) {
    return writeAll(descriptor, data, offset);
  }
  for (const ByteRange& part : remaining({offset, offset + data.size()}, std::move(lost))) {
    const std::size_t size = part.end - part.begin;
    const std::int64_t written = writeAll(descriptor, data.subspan(part.begin - offset, size), part.begin);
    if (written < static_cast<std::int64_t>(size)) {
      return written < 0 ? written : -EIO;
    }
  }
  const int error = extendTo(descriptor, offset + data.size());
  return error != 0 ? -error : static_cast<std::int64_t>(data.size());
}

void PassThrough::write(fuse_req_t request, fuse_ino_t inode, std::span<const char> data, off_t offset,
                        const fuse_file_info& file) {
  const InodePointer node = _inodes.find(inode);
  const std::string path = _inodes.pathOf(*node);
  _traffic.add(path, &Counters::writeRequests);
  if ((file.flags & O_DIRECT) != 0) {
    _traffic.add(path, &Counters::directWriteRequests);
  }
  const Verdict verdict = meet({Operation::Write, path, {}, rangeOf(offset, data.size()), file.flags, sizeOf(*node)});
  if (verdict.error != 0) {
    fuse_reply_err(request, verdict.error);
    return;
  }
  const std::span accepted = data.first(static_cast<std::size_t>(std::min<std::uint64_t>(data.size(), verdict.limit)));
  std::vector<char> copy(accepted.begin(), accepted.end());
  const auto begin = static_cast<std::uint64_t>(offset);
  _faults.flipBits(Operation::Write, path, node->id, begin, copy);
  const auto steady = _caches.steady(node->id);
  const std::int64_t written = store(descriptorOf(file), copy, begin, verdict.lost);
  if (written < 0) {
    fuse_reply_err(request, static_cast<int>(-written));
    return;
  }
  _caches.note(steady, node->id, {begin, begin + static_cast<std::uint64_t>(written)});
  _traffic.add(path, &Counters::bytesWritten, static_cast<std::uint64_t>(written));
  fuse_reply_write(request, static_cast<std::size_t>(written));
}

void PassThrough::allocate(fuse_req_t request, fuse_ino_t inode, int mode, off_t offset, off_t length,
                           const fuse_file_info& file) {
  // Only a full medium stops an allocation. It moves no bytes, so the other faults of writing do not affect it.
  const InodePointer node = _inodes.find(inode);
  const ByteRange range = rangeOf(offset, static_cast<std::size_t>(length));
  if (!_faults.hasSpaceFor(_inodes.pathOf(*node), sizeOf(*node), range.end)) {
    fuse_reply_err(request, ENOSPC);
    return;
  }
  const auto steady = _caches.steady(node->id);
  const int error = ::fallocate(descriptorOf(file), mode, offset, length) == 0 ? 0 : errno;
  _caches.note(steady, node->id, range);
  fuse_reply_err(request, error);
}

void PassThrough::seek(fuse_req_t request, off_t offset, int whence, const fuse_file_info& file) {
  const off_t found = ::lseek(descriptorOf(file), offset, whence);
  if (found < 0) {
    fuse_reply_err(request, errno);
  } else {
    fuse_reply_lseek(request, found);
  }
}

void PassThrough::flush(fuse_req_t request, fuse_ino_t inode, const fuse_file_info& file) {
  const std::string path = pathOf(inode);
  _traffic.add(path, &Counters::flushes);
  const Verdict verdict = meet({Operation::Close, path, {}, {}, file.flags});
  if (verdict.error != 0) {
    fuse_reply_err(request, verdict.error);
    return;
  }
  // Closing a duplicate makes the backing file system report what it reports on close.
  const int duplicate = ::fcntl(descriptorOf(file), F_DUPFD_CLOEXEC, 0);
  fuse_reply_err(request, duplicate >= 0 && ::close(duplicate) == 0 ? 0 : errno);
}

void PassThrough::sync(fuse_req_t request, fuse_ino_t inode, bool dataOnly, const fuse_file_info& file) {
  const std::string path = pathOf(inode);
  _traffic.add(path, &Counters::syncs);
  const Verdict verdict = meet({Operation::Sync, path, {}, {}, file.flags});
  if (verdict.error != 0) {
    fuse_reply_err(request, verdict.error);
    return;
  }
  const int result = dataOnly ? ::fdatasync(descriptorOf(file)) : ::fsync(descriptorOf(file));
  fuse_reply_err(request, result == 0 ? _caches.flush(_inodes.find(inode)->id) : errno);
}

void PassThrough::release(fuse_req_t request, const fuse_file_info& file) {
  ::close(descriptorOf(file));
  fuse_reply_err(request, 0);
}

}  // namespace faultyfs
