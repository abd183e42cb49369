#include "KDXFileTools/kdxoffload/WorkerProtocol.h"

namespace kdxoffload {

std::string encodeMessage(const WorkerMessage& /*message*/) {
  return "";
}

std::optional<WorkerMessage> MessageReader::next() {
  return std::nullopt;
}

}  // namespace kdxoffload
