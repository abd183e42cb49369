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
  // Somebody holds a lease on the file and is now asked to give it up, which is worth waiting for. A pipe never says so.
  return FileDescriptor(::open(path.c_str(), always, lessTheUmask));
}

}  // namespace platform
