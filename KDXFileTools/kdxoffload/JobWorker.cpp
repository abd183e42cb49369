#include "KDXFileTools/kdxoffload/JobWorker.h"

namespace kdxoffload {

JobWorker::JobWorker(WorkerSetup setup) : _setup(std::move(setup)) {}

JobResult JobWorker::perform(const JobOrder& order) {
  return {.number = order.number, .status = WorkStatus::systemError};
}

}  // namespace kdxoffload
