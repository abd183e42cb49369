#include "KDXFileTools/kdxoffload/Worker.h"

#include <optional>

#include "KDXFileTools/kdxoffload/JobWorker.h"
#include "KDXFileTools/kdxoffload/WorkerProtocol.h"
#include "platform/FileDescriptor.h"
#include "platform/Log.h"
#include "platform/Memory.h"
#include "platform/Process.h"

namespace kdxoffload {

namespace {

// Waits for the next message; none when nobody will send one any more.
std::optional<WorkerMessage> receive(MessageReader& reader) {
  for (;;) {
    if (std::optional<WorkerMessage> message = reader.next()) return message;
    const std::string bytes = reader.isBroken() ? "" : platform::readSome(ordersDescriptor);
    if (bytes.empty()) return std::nullopt;
    reader.add(bytes);
  }
}

}  // namespace

void runWorker() {
  platform::shareOneHeap();
  platform::endProcessWhenMemoryRunsOut();
  platform::raiseDiskPriority();
  MessageReader reader;
  std::optional<JobWorker> worker;
  while (const std::optional<WorkerMessage> message = receive(reader)) {
    if (const auto* setup = std::get_if<WorkerSetup>(&*message)) worker.emplace(*setup);
    const auto* order = std::get_if<JobOrder>(&*message);
    if (order != nullptr && worker) platform::writeText(resultsDescriptor, encodeMessage(worker->perform(*order)));
  }
  platform::endProcess(0);
}

}  // namespace kdxoffload
