#include "platform/TasksHere.h"

namespace platform {

namespace {

thread_local int wanted = 0;

}  // namespace

TasksHere::TasksHere() {
  ++wanted;
}

TasksHere::~TasksHere() {
  --wanted;
}

bool TasksHere::areWanted() {
  return wanted != 0;
}

}  // namespace platform
