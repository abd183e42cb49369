#pragma once

#include <string>
#include <vector>

// What a system call is about, by its arguments.
enum class Concerns { descriptor, path, pathBelow, thread };  // pathBelow: a directory's descriptor, then the path

struct CallKind {
  std::string name;
  Concerns concerns = Concerns::thread;
  std::vector<int> errors{};  // those that the sweep makes it fail with; none: it is let through
  bool getsMemory = false;
  bool onlyHelps = false;  // there is another way to do without it, so that a system that refuses it is no failure
};

// Of the call with this number; one that the sweep makes nothing of is named after its number.
CallKind kindOfCall(int number);
// The calls of that name; one with no errors when there is none.
CallKind kindOfCall(const std::string& name);

// With what a system refuses a call that it lacks or that a container's filter forbids.
std::vector<int> refusals();

// "EIO" for EIO: the name of an error that the kinds list.
std::string errorName(int code);
