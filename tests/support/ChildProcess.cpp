#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "platform/Process.h"
#include "tests/support/ScratchDirectory.h"

int statusOfChild(const std::function<void()>& work) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    work();
    ::_exit(cameBack);
  }
  int status = 0;
  EXPECT_EQ(child, ::waitpid(child, &status, 0));
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::vector<pid_t> childrenOf(pid_t process) {
  std::ifstream list("/proc/" + std::to_string(process) + "/task/" + std::to_string(process) + "/children");
  std::vector<pid_t> children;
  for (pid_t child = 0; list >> child;) children.push_back(child);
  return children;
}

ChildRun runInChild(const std::function<void()>& task) {
  const ScratchDirectory scratch;
  const std::string output = scratch.file("output");
  writeFile(output, "");
  const int status = statusOfChild([&] {
    const int file = ::open(output.c_str(), O_WRONLY | O_APPEND);
    ::dup2(file, STDOUT_FILENO);
    ::dup2(file, STDERR_FILENO);
    ::close(file);
    platform::makeStandardOutputUnbuffered();
    task();
  });
  return {.exitStatus = status, .output = readFile(output)};
}
