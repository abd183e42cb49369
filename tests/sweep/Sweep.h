#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/sweep/Offload.h"
#include "tests/sweep/Promise.h"

// What happens when a certain call of a run is about to be made.
enum class Event {
  failsOnce,    // it fails
  failsAlways,  // it and all later calls of its name fail: on files, or on the standard descriptors. If it gets memory,
                // all later calls that get memory fail
  refused,  // all calls of its name fail, in one folder (its file system has no such call) or anywhere (the system lacks or
            // forbids it)
  deviceGone,  // it and all later calls on files of the same folder fail: the card or the disk was pulled out
  killed,      // the process is killed
};

struct Fault {
  Event event = Event::failsOnce;
  std::string call;
  std::string where;
  std::size_t occurrence = 1;
  int error = 0;
};

// One line that names the scenario and the fault, so that the fault can be repeated.
std::string nameOf(const Scenario& scenario, const Fault& fault);

struct FaultRun {
  bool cameToPass = false;   // the call was made; some calls are made or not, depending on the pace of threads
  std::size_t injected = 0;  // calls that failed, or kills
  std::size_t runs = 0;      // of the tool
  int status = 0;
  Complaints complaints;
};

// All errors that can occur in the scenario, from the calls of a run without faults.
std::vector<Fault> errorsOf(const Offload& offload);
// All refusals of calls that only help.
std::vector<Fault> refusalsOf(const Offload& offload);
std::vector<Fault> killsOf(const Offload& offload);

// Runs the scenario with the fault, and checks what is promised. After a kill the tool is run again, as a user would do. A
// run in which a call was refused must succeed without it.
FaultRun runWith(const Offload& offload, const Fault& fault);
