#pragma once

#include <sys/syscall.h>

#include <cstdint>
#include <functional>
#include <set>

#include "tests/support/ToolRun.h"

// A system call of the tool, whose thread is stopped right before or right after it.
struct StoppedCall {
  long number;          // SYS_fsync, for example
  uint64_t occurrence;  // counted from 1 over all calls of this number, in the order in which they began
  bool isOver;          // stopped after the call
};

// The calls that rename, link and remove files. On newer processors there are only those that take a folder too.
#ifdef SYS_rename
inline constexpr long callThatRenames = SYS_rename;
inline constexpr long callThatLinks = SYS_link;
inline constexpr long callThatRemoves = SYS_unlink;
#else
inline constexpr long callThatRenames = SYS_renameat;
inline constexpr long callThatLinks = SYS_linkat;
inline constexpr long callThatRemoves = SYS_unlinkat;
#endif

// Called while the thread of the tool is stopped; other threads go on. Returns the signal that the tool gets when it goes on,
// 0 for none.
using AtCall = std::function<int(const StoppedCall&)>;

// Runs the program, stops it before and after each call of these numbers, and waits for its end.
ToolRun runTool(const ToolStart& start, const std::set<long>& numbers, const AtCall& atCall);

// True when this build's program can be stopped (sanitizers do not run under a tracer).
bool canStopTheTool();
inline constexpr const char* cannotStop =
    "stopping the tool at system calls needs ptrace and a build without sanitizers";
