#include "KDXFileTools/kdxoffload/StatusAndHistory.h"

#include "KDXFileTools/kdxoffload/ExitStatus.h"

namespace kdxoffload {

int runStatus(const CommandLine& /*line*/) {
  return ExitStatus::nothingDone;
}

int runHistory(const CommandLine& /*line*/) {
  return ExitStatus::nothingDone;
}

}  // namespace kdxoffload
