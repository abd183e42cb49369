// The messages between the coordinator and a worker. The first byte gives the length of the pieces in which the rest arrives.

#include <algorithm>
#include <vector>

#include "Fuzz.h"
#include "KDXFileTools/kdxoffload/WorkerProtocol.h"

using namespace kdxoffload;

namespace {

std::vector<WorkerMessage> readInPieces(std::string_view bytes, std::size_t length) {
  MessageReader reader;
  std::vector<WorkerMessage> messages;
  for (; !bytes.empty(); bytes.remove_prefix(std::min(length, bytes.size()))) {
    reader.add(bytes.substr(0, length));
    while (std::optional<WorkerMessage> message = reader.next()) messages.push_back(std::move(*message));
  }
  return messages;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes = textOf(data + 1, size - 1);
  const std::vector<WorkerMessage> messages = readInPieces(bytes, std::size_t{data[0]} + 1);
  require(messages == readInPieces(bytes, size), "the pieces in which bytes arrive change nothing");
  std::string again;
  for (const WorkerMessage& message : messages) again += encodeMessage(message);
  require(bytes.starts_with(again), "a message that was read is written with the same bytes");
  return 0;
}
