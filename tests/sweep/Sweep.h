#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/sweep/Offload.h"
#include "tests/sweep/Promise.h"

// What happens from the moment at which a certain call of a run is about to be made.
enum class Event {
  failsOnce,    // it fails
  failsAlways,  // it and every later one of its name fail: on files, or on the standard descriptors; memory: every call
                // that gets some
  refused,  // every one of its name fails, in one folder or anywhere: its file system has no such call, or the system
            // lacks or forbids it
  deviceGone,  // it and every later call on files of the same folder fail: the card or the disk was pulled out
  killed,      // the process is killed
};

struct Fault {
  Event event = Event::failsOnce;
  std::string call;
  std::string where;
  std::size_t occurrence = 1;
  int error = 0;
};

// One line that tells the scenario and the fault, and by which it is found again.
std::string nameOf(const Scenario& scenario, const Fault& fault);

struct FaultRun {
  bool cameToPass = false;   // the call was made: a call that another thread's pace decides on may not be
  std::size_t injected = 0;  // calls that failed, or kills
  std::size_t runs = 0;      // of the tool
  int status = 0;
  Complaints complaints;
};

// Everything that can happen in the scenario, by the calls of a run in which nothing does.
std::vector<Fault> errorsOf(const Offload& offload);
// What the system can refuse that only helps.
std::vector<Fault> refusalsOf(const Offload& offload);
std::vector<Fault> killsOf(const Offload& offload);

// Runs the scenario with the fault, and looks at what is promised. Behind a kill it is run again, as a user would. A run
// to which a call was refused has to succeed without it.
FaultRun runWith(const Offload& offload, const Fault& fault);
