#include "KDXFileTools/kdxoffload/Coordinator.h"

#include "KDXFileTools/kdxoffload/ExitStatus.h"

namespace kdxoffload {

int runOffload(const CommandLine& /*line*/) {
  return ExitStatus::nothingDone;
}

}  // namespace kdxoffload
