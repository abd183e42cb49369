#include "platform/FileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace platform {

int FileDescriptor::close() {
  const int descriptor = std::exchange(_descriptor, -1);
  if (descriptor < 0 || ::close(descriptor) == 0) return 0;
  return errno;
}

FileDescriptor openUnlessPipe(const std::string& path, int flags) {
  constexpr mode_t lessTheUmask = 0666;
  const int always = flags | O_CLOEXEC | O_NOFOLLOW;
  FileDescriptor file(::open(path.c_str(), always | O_NONBLOCK, lessTheUmask));
  if (file.isOpen() || errno != EAGAIN) return file;
  // EAGAIN: another process holds a lease on the file and is now asked to give it up, so waiting helps. A pipe never gives
  // EAGAIN here.
  return FileDescriptor(::open(path.c_str(), always, lessTheUmask));
}

std::string readSome(int descriptor) {
  constexpr std::size_t most = std::size_t{64} << 10;
  std::string bytes(most, '\0');
  ssize_t length = 0;
  do {
    length = ::read(descriptor, bytes.data(), bytes.size());
  } while (length < 0 && errno == EINTR);
  if (length == 0) errno = 0;
  bytes.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return bytes;
}

}  // namespace platform
