#include "platform/OutputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <utility>

#include "platform/CachedPages.h"
#include "platform/Error.h"

namespace platform {

namespace {

// Calls write until `length` bytes are taken, in pieces that the system accepts. Stops after the first short piece.
int64_t writePieces(int descriptor, const std::byte* bytes, std::size_t length) {
  std::size_t taken = 0;
  while (taken < length) {
    const std::size_t piece = std::min(length - taken, largestTransfer);
    int64_t result = 0;
    do {
      result = ::write(descriptor, bytes + taken, piece);
    } while (result < 0 && errno == EINTR);
    if (result < 0) return taken == 0 ? result : static_cast<int64_t>(taken);
    taken += static_cast<std::size_t>(result);
    if (static_cast<std::size_t>(result) < piece) break;
  }
  return static_cast<int64_t>(taken);
}

}  // namespace

std::optional<OutputFile> OutputFile::createEmpty(const std::string& path, const std::set<FileIdentity>& shared) {
  const std::optional<FileIdentity> standing = identityOfItem(path);
  const bool isShared = standing && shared.contains(*standing);
  FileDescriptor file = openUnlessPipe(path, isShared ? O_WRONLY : O_WRONLY | O_CREAT | O_EXCL);
  if (!file.isOpen()) return std::nullopt;
  const std::optional<FileIdentity> identity = identityOfOpenFile(file.get());
  const std::optional<FileStamp> stamp = stampOfFile(file.get());
  if (!identity || !stamp || (isShared && identity != standing)) return std::nullopt;
  return OutputFile(std::move(file), *identity, *stamp);
}

OutputFile::OutputFile(FileDescriptor file, const FileIdentity& identity, const FileStamp& stamp)
    : _file(std::move(file)), _identity(identity), _stamp(stamp), _alignment(directAlignment(_file.get())) {
  _direct = _alignment != 0 && setDirect(_file.get(), true);
  _cachedRoad = !_direct;
}

OutputFile::~OutputFile() {
  if (_file.isOpen()) dropPages(_file.get(), 0, 0);
}

int64_t OutputFile::write(const std::byte* bytes, std::size_t length) {
  std::size_t direct = 0;
  if (_direct && _position % _alignment == 0) direct = length - length % static_cast<std::size_t>(_alignment);
  const int64_t first = direct == 0 ? 0 : writeDirect(bytes, direct);
  if (first < 0 || static_cast<std::size_t>(first) < direct || direct == length) return first;
  const int64_t second = writeThroughCache(bytes + direct, length - direct);
  return second < 0 ? second : first + second;
}

int64_t OutputFile::writeDirect(const std::byte* bytes, std::size_t length) {
  const int64_t result = writePieces(_file.get(), bytes, length);
  if (result < 0 && isRefused(errno)) {
    _cachedRoad = true;
    return writeThroughCache(bytes, length);
  }
  if (result > 0) _position += result;
  _dropped = _position;
  return result;
}

int64_t OutputFile::writeThroughCache(const std::byte* bytes, std::size_t length) {
  // Switched off for good: after a piece that is not a whole number of blocks, nothing is aligned any more.
  if (std::exchange(_direct, false) && !setDirect(_file.get(), false)) return -1;
  const int64_t result = writePieces(_file.get(), bytes, length);
  if (result <= 0) return result;
  if (!pushAndDrop(_position, result)) return -1;
  _position += result;
  return result;
}

bool OutputFile::pushAndDrop(int64_t offset, int64_t length) {
  if (pushPages(_file.get(), offset, length) != 0) return false;
  if (offset + length - _dropped >= smallestDrop) {
    dropPages(_file.get(), _dropped, offset + length - _dropped);
    _dropped = offset + length;
  }
  return true;
}

bool OutputFile::close() {
  // Some file systems accept the flag but still use the cache, so pages are pushed here too. Without dirty pages this costs
  // nothing.
  const bool reachedDevice = _cachedRoad ? ::fdatasync(_file.get()) == 0 : pushPages(_file.get(), 0, 0) == 0;
  dropPages(_file.get(), 0, 0);
  if (!_stamp.hasTimeOfCreation()) _stamp = stampOfFile(_file.get()).value_or(_stamp);
  return _file.close() == 0 && reachedDevice;
}

}  // namespace platform
