// What a command costs: stopwatch RESULT TIMES COMMAND [ARGUMENT...] [--then COMMAND ...]
//
// Runs the commands one after the other, TIMES times, and writes one line to the file RESULT:
//   wall seconds, user seconds, system seconds, peak KiB of resident memory
// Times are sums over all runs and include every process that a command waited for; the peak is that of the single process
// that used most. "{}" in an argument stands for the number of the run, from 0. Ends with the first status that is not 0.
//
// A process's peak counts from what its parent held when it was started, so that a command must be started by something
// smaller than itself; an interpreter is not.

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Command = std::vector<std::string>;

struct Cost {
  double userSeconds = 0;
  double systemSeconds = 0;
  long peakKiB = 0;
};

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

std::vector<Command> commandsIn(int argc, char* argv[]) {
  std::vector<Command> commands(1);
  for (int index = 3; index < argc; ++index) {
    if (std::strcmp(argv[index], "--then") == 0) {
      commands.emplace_back();
    } else {
      commands.back().emplace_back(argv[index]);
    }
  }
  return commands;
}

Command numbered(Command command, const std::string& number) {
  for (std::string& word : command) {
    for (std::size_t at = 0; (at = word.find("{}", at)) != std::string::npos; at += number.size()) {
      word.replace(at, 2, number);
    }
  }
  return command;
}

// Runs the command and adds what it cost. Returns its exit status, 128 + signal when a signal ended it.
int run(Command command, Cost& cost) {
  std::vector<char*> words;
  for (std::string& word : command) words.push_back(word.data());
  words.push_back(nullptr);
  pid_t child = 0;
  if (const int code = ::posix_spawnp(&child, words[0], nullptr, nullptr, words.data(), environ); code != 0) {
    std::fprintf(stderr, "stopwatch: %s: %s\n", words[0], std::strerror(code));
    return 127;
  }
  int status = 0;
  rusage usage{};
  while (::wait4(child, &status, 0, &usage) < 0) {
    if (errno != EINTR) return 1;
  }
  cost.userSeconds += seconds(usage.ru_utime);
  cost.systemSeconds += seconds(usage.ru_stime);
  cost.peakKiB = std::max(cost.peakKiB, usage.ru_maxrss);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc < 4) {
    std::fputs("usage: stopwatch RESULT TIMES COMMAND [ARGUMENT...] [--then COMMAND ...]\n", stderr);
    return 2;
  }
  const std::vector<Command> commands = commandsIn(argc, argv);
  const long times = std::atol(argv[2]);
  Cost cost;
  const auto start = std::chrono::steady_clock::now();
  for (long number = 0; number < times; ++number) {
    for (const Command& command : commands) {
      if (const int status = run(numbered(command, std::to_string(number)), cost); status != 0) return status;
    }
  }
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;

  std::FILE* const result = std::fopen(argv[1], "w");
  if (result == nullptr) return 1;
  std::fprintf(result, "%.6f %.6f %.6f %ld\n", wall.count(), cost.userSeconds, cost.systemSeconds, cost.peakKiB);
  return std::fclose(result) == 0 ? 0 : 1;
}
