#pragma once

#include <string>
#include <vector>

// What a system call is about, by its arguments.
enum class Concerns { descriptor, path, pathBelow, thread };  // pathBelow: a directory's descriptor, then the path

struct CallKind {
  std::string name;
  Concerns concerns = Concerns::thread;
  std::vector<int> errors{};  // that the sweep makes it fail with; empty: it is let through
  bool getsMemory = false;
  bool onlyHelps = false;  // there is a way to do without it, so the run must not fail if the system refuses it
};

// The kind of the call with this number. A call that the sweep does not know is named after its number.
CallKind kindOfCall(int number);
// The kind of the calls of this name; a kind without errors if there is none.
CallKind kindOfCall(const std::string& name);

// The errors with which a system refuses a call that it lacks or that a container's filter forbids.
std::vector<int> refusals();

// The name of an error that the kinds list: "EIO" for EIO.
std::string errorName(int code);
