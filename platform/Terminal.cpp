#include "platform/Terminal.h"

#include <unistd.h>

namespace platform {

bool isTerminal(int descriptor) {
  return ::isatty(descriptor) == 1;
}

}  // namespace platform
