#include "platform/FileDescriptor.h"

#include <unistd.h>

#include <cerrno>

namespace platform {

int FileDescriptor::close() {
  const int descriptor = std::exchange(_descriptor, -1);
  if (descriptor < 0 || ::close(descriptor) == 0) return 0;
  return errno;
}

}  // namespace platform
