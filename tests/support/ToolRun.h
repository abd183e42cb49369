#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

// How the built program is started.
struct ToolStart {
  std::vector<std::string> arguments{};
  std::string program{};  // empty: the first program, toolPath()
  // The program that starts it, for example {"strace", "-f", "-o", log, "-e", "inject=..."}; empty: none.
  std::vector<std::string> wrapper{};
  std::string workingDirectory{};  // empty: the test's own
  std::map<std::string, std::string>
      environment{};  // added to the test's; without it XDG_CONFIG_HOME and XDG_STATE_HOME are an empty folder
  std::optional<std::string> standardInput{};  // a file to read; none: /dev/null
  std::vector<int> closedDescriptors{};        // closed before the program starts
  std::function<void()> inChild{};             // called in the child process, right before the program starts
  std::function<void(pid_t)> meanwhile{};      // called in this process while the program runs
};

// The result of a finished run.
struct ToolRun {
  int exitStatus = -1;  // 128 + signal when a signal ended it
  std::string output;   // the whole standard output
  std::string errors;   // the whole standard error
  int64_t peakMemoryKiB = 0;

  // Standard output's lines without their newlines; a last one without a newline counts too.
  [[nodiscard]] std::vector<std::string> lines() const;
};

// The first program, as built.
std::string toolPath();
// The second program, for whole cards.
std::string offloadToolPath();

// Runs the program and waits for its end.
ToolRun runTool(const ToolStart& start);
ToolRun runTool(std::vector<std::string> arguments);

// The two halves of runTool, for callers that do something in between. becomeTool is called in the child process, which
// becomes the program; its output goes to files in the folder. endedTool makes the result from these files and a status of
// wait(2).
class ScratchDirectory;
[[noreturn]] void becomeTool(const ToolStart& start, const ScratchDirectory& scratch);
ToolRun endedTool(int status, const ScratchDirectory& scratch);

// True when a program of this name is installed.
bool haveProgram(const std::string& name);
// True when this build runs under AddressSanitizer or ThreadSanitizer, which change its use of memory and its limits.
bool isSanitized();
// True when an emulator runs this build: names of threads, memory and traced calls are then those of the emulator.
bool isEmulated();
// For the visible skip of a test that starts the test program anew.
inline constexpr const char* noSecondStart = "an emulated program can't start itself";
// True when this build's program can be traced (sanitizers do not run under strace).
bool canInjectFaults();
// For the visible skip if it can't.
inline constexpr const char* cannotInject = "meddling with system calls needs strace and a build without sanitizers";
// The wrapper with which strace makes one system call fail.
//   inject   as strace takes it after -e inject=
std::vector<std::string> injecting(const std::string& inject);
// The same for any number of system calls, but only for those on this path.
std::vector<std::string> injectingAt(const std::string& path, const std::vector<std::string>& injections);
