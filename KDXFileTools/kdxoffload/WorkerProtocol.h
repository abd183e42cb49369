#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "KDXFileTools/kdxoffload/JobOrder.h"

namespace kdxoffload {

using WorkerMessage = std::variant<WorkerSetup, JobOrder, JobResult>;

// The bytes of one message: four of length, one of kind, the fields.
std::string encodeMessage(const WorkerMessage& message);

// Puts messages together from a pipe's bytes as they come.
class MessageReader {
 public:
  static constexpr std::size_t longestMessage = std::size_t{256} << 20;  // bytes; a longer one is no message

  void add(std::string_view bytes) { _bytes += bytes; }

  // The next whole message; none while there is none. What is no message at all makes `isBroken` true for good.
  std::optional<WorkerMessage> next();
  [[nodiscard]] bool isBroken() const { return _isBroken; }

 private:
  std::string _bytes;
  bool _isBroken = false;
};

}  // namespace kdxoffload
