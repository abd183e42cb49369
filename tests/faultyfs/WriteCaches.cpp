#include "WriteCaches.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <system_error>

namespace faultyfs {

namespace {

// What a device writes in one piece: the block size of the file systems on such files.
constexpr std::uint64_t blockSize = 4096;

std::system_error systemError(const std::string& what) {
  return std::system_error(errno, std::generic_category(), what);
}

FileDescriptor opened(const std::filesystem::path& path, int flags) {
  FileDescriptor file(::open(path.c_str(), flags | O_CLOEXEC, 0600));
  if (!file.valid()) {
    throw systemError(path);
  }
  return file;
}

void copyRange(const FileDescriptor& from, const FileDescriptor& to, off_t begin, off_t end) {
  off_t out = begin;
  while (begin < end) {
    if (::copy_file_range(from.get(), &begin, to.get(), &out, static_cast<std::size_t>(end - begin), 0) <= 0) {
      throw systemError("copy_file_range");
    }
  }
}

// Holes stay holes, because the files are large and contain little.
void copyAll(const FileDescriptor& from, const FileDescriptor& to) {
  struct stat attributes {};
  if (::fstat(from.get(), &attributes) != 0 || ::ftruncate(to.get(), attributes.st_size) != 0) {
    throw systemError("ftruncate");
  }
  for (off_t end = 0;;) {
    const off_t begin = ::lseek(from.get(), end, SEEK_DATA);
    if (begin < 0) {
      return;
    }
    end = ::lseek(from.get(), begin, SEEK_HOLE);
    copyRange(from, to, begin, end);
  }
}

}  // namespace

void WriteCaches::add(const std::filesystem::path& file, const std::filesystem::path& permanent) {
  Cache cache{opened(file, O_RDONLY), opened(permanent, O_RDWR | O_CREAT | O_TRUNC), {}};
  struct stat attributes {};
  if (::fstat(cache.file.get(), &attributes) != 0) {
    throw systemError(file);
  }
  copyAll(cache.file, cache.permanent);
  const std::lock_guard lock(_mutex);
  _caches.insert_or_assign(fileIdOf(attributes), std::move(cache));
}

std::unique_lock<std::mutex> WriteCaches::steady(FileId id) {
  std::unique_lock lock(_mutex);
  if (!_caches.contains(id)) {
    lock.unlock();
  }
  return lock;
}

void WriteCaches::note(const std::unique_lock<std::mutex>& steady, FileId id, ByteRange range) {
  if (!steady.owns_lock()) {
    return;
  }
  Cache& cache = _caches.at(id);
  for (std::uint64_t block = range.begin / blockSize; block * blockSize < range.end; ++block) {
    std::uint64_t& size = cache.blocks[block];
    size = std::max(size, std::min(range.end - block * blockSize, blockSize));
  }
}

int WriteCaches::flush(FileId id) {
  const auto lock = steady(id);
  if (!lock.owns_lock()) {
    return 0;
  }
  Cache& cache = _caches.at(id);
  try {
    for (const auto& [block, size] : cache.blocks) {
      const std::uint64_t begin = block * blockSize;
      copyRange(cache.file, cache.permanent, static_cast<off_t>(begin), static_cast<off_t>(begin + size));
    }
  } catch (const std::system_error& failure) {
    return failure.code().value();
  }
  cache.blocks.clear();
  return 0;
}

void WriteCaches::copyAfterPowerLoss(const std::filesystem::path& file, const std::filesystem::path& target,
                                     std::uint64_t seed) {
  struct stat attributes {};
  if (::stat(file.c_str(), &attributes) != 0) {
    throw systemError(file);
  }
  const FileDescriptor copy = opened(target, O_WRONLY | O_CREAT | O_TRUNC);
  const std::lock_guard lock(_mutex);
  const Cache& cache = _caches.at(fileIdOf(attributes));
  copyAll(cache.permanent, copy);
  std::mt19937_64 random(seed);
  for (const auto& [block, size] : cache.blocks) {
    const bool reachedTheMedium = seed == losingNothing || (seed != losingAll && random() % 2 == 0);
    if (reachedTheMedium) {
      const std::uint64_t begin = block * blockSize;
      copyRange(cache.file, copy, static_cast<off_t>(begin), static_cast<off_t>(begin + size));
    }
  }
}

}  // namespace faultyfs
