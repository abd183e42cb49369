#include "tests/support/ToolRun.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/support/OutputLines.h"
#include "tests/support/ScratchDirectory.h"

std::string toolPath() {
  return KDXDISPATCHCOPY_BINARY;
}

std::string offloadToolPath() {
  return KDXOFFLOAD_BINARY;
}

namespace {

constexpr int notStarted = 126;

void openAs(int descriptor, const std::string& path, int flags) {
  const int opened = ::open(path.c_str(), flags, 0600);
  if (opened < 0 || ::dup2(opened, descriptor) < 0) ::_exit(notStarted);
  if (opened != descriptor) ::close(opened);
}

}  // namespace

void becomeTool(const ToolStart& start, const ScratchDirectory& scratch) {
  std::vector<std::string> words = start.wrapper;
  words.push_back(start.program.empty() ? toolPath() : start.program);
  words.insert(words.end(), start.arguments.begin(), start.arguments.end());
  if (!start.workingDirectory.empty() && ::chdir(start.workingDirectory.c_str()) != 0) ::_exit(notStarted);
  ::setenv("XDG_CONFIG_HOME", scratch.path().c_str(), 1);
  ::setenv("XDG_STATE_HOME", scratch.path().c_str(), 1);
  for (const auto& [name, value] : start.environment) ::setenv(name.c_str(), value.c_str(), 1);
  openAs(STDIN_FILENO, start.standardInput.value_or("/dev/null"), O_RDONLY);
  openAs(STDOUT_FILENO, scratch.path() / "output", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
  openAs(STDERR_FILENO, scratch.path() / "errors", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
  for (const int descriptor : start.closedDescriptors) ::close(descriptor);
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  if (start.inChild) start.inChild();
  ::execvp(argv[0], argv.data());
  ::_exit(notStarted);
}

ToolRun endedTool(int status, const ScratchDirectory& scratch) {
  ToolRun run;
  run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  run.output = readFile(scratch.path() / "output");
  run.errors = readFile(scratch.path() / "errors");
  return run;
}

std::vector<std::string> ToolRun::lines() const {
  return linesOf(output);
}

ToolRun runTool(const ToolStart& start) {
  const ScratchDirectory scratch;
  const pid_t child = ::fork();
  if (child == 0) becomeTool(start, scratch);
  if (start.meanwhile) start.meanwhile(child);
  int status = 0;
  struct rusage usage = {};
  EXPECT_EQ(child, ::wait4(child, &status, 0, &usage));
  ToolRun run = endedTool(status, scratch);
  run.peakMemoryKiB = usage.ru_maxrss;
  return run;
}

ToolRun runTool(std::vector<std::string> arguments) {
  return runTool(ToolStart{.arguments = std::move(arguments)});
}

bool haveProgram(const std::string& name) {
  return std::system(("command -v " + name + " > /dev/null 2>&1").c_str()) == 0;
}

bool isSanitized() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#elif defined(__has_feature)
  return __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
  return false;
#endif
}

bool isEmulated() {
  return KDX_IS_EMULATED != 0;
}

bool canInjectFaults() {
  return !isSanitized() && !isEmulated() && haveProgram("strace");
}

std::vector<std::string> injecting(const std::string& inject) {
  return {"strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=" + inject};
}

std::vector<std::string> injectingAt(const std::string& path, const std::vector<std::string>& injections) {
  std::vector<std::string> words{"strace", "-f", "-qq", "-o", "/dev/null", "-P", path};
  for (const std::string& inject : injections) words.insert(words.end(), {"-e", "inject=" + inject});
  return words;
}
