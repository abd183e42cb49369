#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/FileDescriptor.h"

namespace platform {

// The program that is running.
inline constexpr const char* thisProgram = "/proc/self/exe";

// Another process, and the pipes to it. It is killed when this process ends, and when this object is destroyed while it
// still runs. Move only, used by one thread.
class ChildProcess {
 public:
  // Starts the program with the arguments (argument 0 is its name). The child's standard input is empty; it reads `orders`
  // from descriptor 3 and writes `results` to descriptor 4. It inherits no other descriptors, except copies of those in
  // `inherited`, under other numbers. It has a process group of its own, so that Ctrl-C reaches only the parent. It is
  // killed when the calling thread ends.
  static std::optional<ChildProcess> start(const std::string& program, const std::vector<std::string>& arguments,
                                           const std::vector<int>& inherited, ErrorPlace error);

  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ~ChildProcess();

  // This side's ends of the pipes, not blocking. The caller may take them.
  FileDescriptor orders;   // writes
  FileDescriptor results;  // reads
  FileDescriptor output;   // reads: the child's standard output
  FileDescriptor errors;   // reads: its standard error
  FileDescriptor ended;    // becomes readable when the process has ended

  // Its exit status, 128 + signal when a signal ended it; none while it runs. Later calls return the same status.
  std::optional<int> exitStatus();

  void kill();       // at once
  void terminate();  // asks it to end

  // A number that grows with every byte and every call of input and output; none when it is not known.
  [[nodiscard]] std::optional<uint64_t> activity() const;
  [[nodiscard]] pid_t id() const { return _id; }

 private:
  ChildProcess() = default;
  pid_t _id = -1;
  std::optional<int> _exitStatus;
};

}  // namespace platform
