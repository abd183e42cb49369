#include "platform/InputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

#include "platform/CachedPages.h"
#include "platform/Error.h"

namespace platform {

namespace {

// The size of a regular file; none for anything else.
std::optional<int64_t> sizeOfRegularFile(int descriptor) {
  struct stat facts = {};
  if (::fstat(descriptor, &facts) != 0 || !S_ISREG(facts.st_mode)) return std::nullopt;
  return facts.st_size;
}

ReadResult failedRead(int code) {
  return {.length = -1, .error = code};
}

}  // namespace

std::optional<InputFile> InputFile::open(const std::string& path) {
  FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.isOpen()) return std::nullopt;
  return InputFile(std::move(file));
}

InputFile::InputFile(FileDescriptor file) : _file(std::move(file)), _alignment(directAlignment(_file.get())) {
  const std::optional<int64_t> size = sizeOfRegularFile(_file.get());
  if (!size) return;
  _leastSize = *size;
  std::ignore = ::posix_fadvise(_file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  _direct = _alignment != 0 && setDirect(_file.get(), true);
  if (!_direct) {
    startCachedRoad();
    return;
  }
  // Some file systems accept the flag but still read from the cache, and the end of the file may have to be read through
  // the cache. So what is cached now must go.
  keepDeviceError(pushPages(_file.get(), 0, 0));
  dropPages(_file.get(), 0, 0);
}

// The system reports only once that the device did not take what was written. Memory then differs from the device, and must
// not be read in its place.
void InputFile::keepDeviceError(int code) {
  if (code == EIO || code == ENOSPC || code == EDQUOT) _deviceError = code;
}

InputFile::~InputFile() {
  if (_file.isOpen()) dropPages(_file.get(), 0, 0);
}

void InputFile::startCachedRoad() {
  _direct = false;
  std::ignore = setDirect(_file.get(), false);
  // Dirty pages can't be dropped.
  keepDeviceError(::fdatasync(_file.get()) == 0 ? 0 : errno);
  dropPages(_file.get(), 0, 0);
  _dropped = _position;
}

ReadResult InputFile::read(std::byte* buffer, std::size_t size) {
  std::size_t filled = 0;
  while (filled < size) {
    const ReadResult some = readSome(buffer + filled, std::min({size - filled, largestTransfer, untilExpectedEnd()}));
    if (some.failed()) return some;
    if (some.length == 0) {
      if (_position < _leastSize) return failedRead(EIO);
      break;
    }
    filled += static_cast<std::size_t>(some.length);
  }
  if (!_direct) dropBehind();
  return ReadResult{.length = static_cast<int64_t>(filled)};
}

// A transfer past the cache asks for no more than the file should hold: otherwise the system first clears the rest of the
// buffer, for every frame of a sequence. The next read still looks for the end of the file.
std::size_t InputFile::untilExpectedEnd() const {
  if (!_direct || _position >= _leastSize) return largestTransfer;
  const int64_t left = _leastSize - _position;
  return static_cast<std::size_t>((left + _alignment - 1) / _alignment * _alignment);
}

ReadResult InputFile::readSome(std::byte* buffer, std::size_t size) {
  if (_direct && _position % _alignment != 0) return readToAlignment(buffer, size);
  const ReadResult result = readAtPosition(buffer, size);
  if (!_direct || !isRefused(result.error)) return result;
  startCachedRoad();
  return readAtPosition(buffer, size);
}

// After a short read: either the file ends here, or the file system gave less than it was asked for. Transfers past the cache
// must start on a boundary, so only a read through the cache can find out. They go on from the next boundary.
ReadResult InputFile::readToAlignment(std::byte* buffer, std::size_t size) {
  const auto gap = static_cast<std::size_t>(_alignment - _position % _alignment);
  if (gap > size || !setDirect(_file.get(), false)) {
    startCachedRoad();
    return readAtPosition(buffer, size);
  }
  const ReadResult result = readAtPosition(buffer, gap);
  if (result.length > 0 && !setDirect(_file.get(), true)) startCachedRoad();
  return result;
}

ReadResult InputFile::readAtPosition(std::byte* buffer, std::size_t size) {
  if (_deviceError != 0) return failedRead(_deviceError);
  int64_t length = 0;
  do {
    length = ::read(_file.get(), buffer, size);
  } while (length < 0 && errno == EINTR);
  if (length < 0) return failedRead(errno);
  _position += length;
  return ReadResult{.length = length};
}

void InputFile::dropBehind() {
  if (_position - _dropped < smallestDrop) return;
  dropPages(_file.get(), _dropped, _position - _dropped);
  _dropped = _position;
}

}  // namespace platform
