#include "KDXFileTools/kdxoffload/Worker.h"

#include "platform/Process.h"

namespace kdxoffload {

void runWorker() {
  platform::endProcess(0);
}

}  // namespace kdxoffload
