#pragma once

#include <sys/syscall.h>

#include <cstdint>
#include <functional>
#include <set>

#include "tests/support/ToolRun.h"

// A system call of the tool, which stands still right before it or right behind it.
struct StoppedCall {
  long number;          // as SYS_fsync
  uint64_t occurrence;  // counted from 1 over all calls of this number, in the order in which they began
  bool isOver;          // the system has done it
};

// By which calls files are renamed, linked and removed. Processors that came later have only those that take a folder too.
#ifdef SYS_rename
inline constexpr long callThatRenames = SYS_rename;
inline constexpr long callThatLinks = SYS_link;
inline constexpr long callThatRemoves = SYS_unlink;
#else
inline constexpr long callThatRenames = SYS_renameat;
inline constexpr long callThatLinks = SYS_linkat;
inline constexpr long callThatRemoves = SYS_unlinkat;
#endif

// Does what it has to do while the calling thread of the tool stands still; its other threads go on. Returns the signal
// with which the tool goes on, 0 for none.
using AtCall = std::function<int(const StoppedCall&)>;

// Runs the program, stops it before and behind each call of those numbers, and waits for its end.
ToolRun runTool(const ToolStart& start, const std::set<long>& numbers, const AtCall& atCall);

// True when this build's program can be stopped (sanitizers do not run under a tracer).
bool canStopTheTool();
inline constexpr const char* cannotStop =
    "stopping the tool at system calls needs ptrace and a build without sanitizers";
