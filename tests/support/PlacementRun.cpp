#include "tests/support/PlacementRun.h"

#include "tests/support/PhaseRun.h"

Placement moveInPlace(KDXDispatchCopy& job) {
  Placement placement;
  placement.output = outputOf([&] { placement.succeeded = job.moveFilesInPlace(&placement.error); });
  return placement;
}

Placement flushed(KDXDispatchCopy& job) {
  Placement placement;
  placement.output = outputOf([&] { placement.succeeded = job.flushFilesystem(&placement.error); });
  return placement;
}

std::string couldNotSync(const std::string& path) {
  return "Error: couldn't sync the file system of file " + path + " (error code -1)\n";
}
