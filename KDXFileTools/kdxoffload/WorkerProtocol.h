#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "KDXFileTools/kdxoffload/JobOrder.h"

namespace kdxoffload {

using WorkerMessage = std::variant<WorkerSetup, JobOrder, JobResult>;

// The bytes of one message: four for the length, one for the kind, then the fields.
std::string encodeMessage(const WorkerMessage& message);

// Puts messages together from the bytes of a pipe as they arrive.
class MessageReader {
 public:
  static constexpr std::size_t longestMessage = std::size_t{256} << 20;  // bytes; a longer message is broken

  void add(std::string_view bytes) { _bytes += bytes; }

  // The next whole message; none if there is none yet. Bytes that are no message make `isBroken` true for good.
  std::optional<WorkerMessage> next();
  [[nodiscard]] bool isBroken() const { return _isBroken; }

 private:
  std::string _bytes;
  bool _isBroken = false;
};

}  // namespace kdxoffload
