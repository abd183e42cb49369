#include "platform/ChildProcess.h"

#include <utility>

namespace platform {

std::optional<ChildProcess> ChildProcess::start(const std::vector<std::string>& /*arguments*/,
                                                const std::vector<int>& /*inherited*/, ErrorPlace /*error*/) {
  return std::nullopt;
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept = default;
ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept = default;
ChildProcess::~ChildProcess() = default;

std::optional<int> ChildProcess::exitStatus() {
  return _exitStatus;
}

void ChildProcess::kill() {}
void ChildProcess::terminate() {}

std::optional<uint64_t> ChildProcess::activity() const {
  return std::nullopt;
}

void endWithParent(pid_t /*parent*/) {}

}  // namespace platform
