#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include "bench/parts/Scratch.h"

extern char** environ;

namespace {

// Runs a program with its output on /dev/null; true when it ended with status 0.
bool runs(std::initializer_list<std::string> command) {
  std::vector<std::string> words(command);
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const bool started = ::posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ) == 0;
  ::posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  return started && ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Files of 16 KiB, in memory so that no device has a part in it; every destination is a new file.
template <typename Offload>
void start(benchmark::State& state, Offload offload) {
  const Scratch scratch(memoryDirectory());
  const std::filesystem::path source = scratch.makeFile("clip.mov", 16384);
  const std::filesystem::path destination = scratch.path() / "copy.mov";
  for ([[maybe_unused]] auto _ : state) {
    if (!offload(source, destination)) {
      state.SkipWithError("the program failed");
      return;
    }
    state.PauseTiming();
    std::filesystem::remove(destination);
    state.ResumeTiming();
  }
}

bool tool(const std::string& source, const std::string& destination) {
  return runs({KDXDISPATCHCOPY_BINARY, "-k", "-nf", source, destination});
}

bool toolWithReadBackAndFlush(const std::string& source, const std::string& destination) {
  return runs({KDXDISPATCHCOPY_BINARY, source, destination});
}

// The same libraries and nothing but the copy.
bool floorOfStart(const std::string& source, const std::string& destination) {
  return runs({START_FLOOR_BINARY, source, destination});
}

BENCHMARK_CAPTURE(start, tool, tool)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(start, toolWithReadBackAndFlush, toolWithReadBackAndFlush)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(start, floor, floorOfStart)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
