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
  std::string program{};  // empty: the first one, of a single file or sequence
  // Programs in front, for example {"strace", "-f", "-o", log, "-e", "inject=..."}; empty: the tool itself.
  std::vector<std::string> wrapper{};
  std::string workingDirectory{};  // empty: the test's own
  std::map<std::string, std::string>
      environment{};  // added to the test's own; XDG_CONFIG_HOME and XDG_STATE_HOME are an empty folder
  std::optional<std::string> standardInput{};  // a file to read from; none: /dev/null
  std::vector<int> closedDescriptors{};        // closed before the program starts
  std::function<void()> inChild{};             // the last thing before the program starts, in its process
  std::function<void(pid_t)> meanwhile{};      // in this process, beside the one that was started
};

// What a finished run left: exit statuses of signals are 128 + signal.
struct ToolRun {
  int exitStatus = -1;
  std::string output;  // standard output, whole
  std::string errors;  // standard error, whole
  int64_t peakMemoryKiB = 0;

  // Standard output's lines without their newlines; a last one without a newline counts too.
  [[nodiscard]] std::vector<std::string> lines() const;
};

// The built program.
std::string toolPath();
// The one for whole cards.
std::string offloadToolPath();

// Runs the program and waits for its end.
ToolRun runTool(const ToolStart& start);
ToolRun runTool(std::vector<std::string> arguments);

// The two halves of runTool, for those who do something in between. The first is for the child process: it becomes the
// program, whose output goes to files in the folder. The second makes of these and of a status from wait(2) what the run left.
class ScratchDirectory;
[[noreturn]] void becomeTool(const ToolStart& start, const ScratchDirectory& scratch);
ToolRun endedTool(int status, const ScratchDirectory& scratch);

// True when programs of this name can be run.
bool haveProgram(const std::string& name);
// True when this build runs under AddressSanitizer or ThreadSanitizer, whose memory and limits are their own.
bool isSanitized();
// True when an emulator runs this build: the names of threads, the memory and the traced calls are the emulator's.
bool isEmulated();
// For the visible skip of a test that starts the test program anew.
inline constexpr const char* noSecondStart = "an emulated program can't start itself";
// True when this build's program can be traced (sanitizers do not run under strace).
bool canInjectFaults();
// For the visible skip where it can't.
inline constexpr const char* cannotInject = "meddling with system calls needs strace and a build without sanitizers";
// `strace` arguments for the wrapper that make one call fail; `inject` as strace's -e inject= takes it.
std::vector<std::string> injecting(const std::string& inject);
// The same for any number of calls, those alone that concern the one path.
std::vector<std::string> injectingAt(const std::string& path, const std::vector<std::string>& injections);
