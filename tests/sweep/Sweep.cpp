#include "tests/sweep/Sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <iterator>
#include <set>
#include <utility>

#include "tests/sweep/SystemCalls.h"

namespace {

// EINTR can't be for ever: signals stop some time, and until then the tool tries again.
bool canBeForEver(int error) {
  return error != EINTR;
}

// EAGAIN on a standard descriptor can't be for ever either: the tool then waits until there is room, and these descriptors
// are files here, which always have room.
bool canBeForEver(const SystemCall& call, int error) {
  const bool isStandard = call.where == "output" || call.where == "errors";
  return canBeForEver(error) && !(isStandard && error == EAGAIN);
}

std::vector<SystemCall> callsOf(const Offload& offload) {
  offload.prepare();
  const SupervisedRun undisturbed = offload.run([](const SystemCall&) { return Verdict{}; });
  EXPECT_EQ(0, undisturbed.run.exitStatus) << offload.scenario().name << "\n" << undisturbed.run.output;
  EXPECT_EQ(Complaints(), brokenByRun(offload, undisturbed)) << offload.scenario().name;
  std::vector<SystemCall> calls;
  // Calls that fail already need no fault.
  std::ranges::copy_if(undisturbed.calls, std::back_inserter(calls),
                       [](const SystemCall& call) { return call.error == 0; });
  return calls;
}

Fault faultAt(const SystemCall& call, Event event, int error = 0) {
  return {.event = event, .call = call.name, .where = call.where, .occurrence = call.occurrence, .error = error};
}

std::string folderOf(const std::string& name) {
  return name.substr(0, name.find('/'));
}

// The place of a call that the system itself refuses.
constexpr const char* anywhere = "anywhere";

// Decides what happens to each call of a run with the fault.
class Judge {
 public:
  explicit Judge(const Fault& fault) : _fault(fault), _kind(kindOfCall(fault.call)) {}

  Verdict operator()(const SystemCall& call) {
    if (!isHit(call)) return {};
    ++_injected;
    return {.error = _fault.error, .kill = _fault.event == Event::killed};
  }

  [[nodiscard]] std::size_t injected() const { return _injected; }

 private:
  bool isHit(const SystemCall& call) {
    if (_fault.event == Event::refused) return isRefused(call);
    if (_injected == 0) {
      const bool isIt = call.name == _fault.call && call.where == _fault.where && call.occurrence == _fault.occurrence;
      if (isIt) _isBelowRoot = call.isBelowRoot;
      return isIt;
    }
    switch (_fault.event) {
      case Event::failsOnce:
      case Event::killed:
        return false;
      case Event::failsAlways:
        if (_kind.getsMemory) return kindOfCall(call.name).getsMemory;
        return call.name == _fault.call && call.isBelowRoot == _isBelowRoot;
      case Event::refused:
        break;
      case Event::deviceGone:
        return call.isBelowRoot && folderOf(call.where) == folderOf(_fault.where);
    }
    return false;
  }

  [[nodiscard]] bool isRefused(const SystemCall& call) const {
    const bool isThere = call.isBelowRoot && folderOf(call.where) == _fault.where;
    return call.name == _fault.call && (_fault.where == anywhere || isThere);
  }

  const Fault& _fault;
  const CallKind _kind;
  bool _isBelowRoot = false;
  std::size_t _injected = 0;
};

bool isOfMemoryOrThreads(const Fault& fault) {
  return kindOfCall(fault.call).getsMemory || fault.call.starts_with("clone");
}

// A lack of memory or threads must have its message.
void lookAtMessage(const Fault& fault, const ToolRun& run, Complaints& complaints) {
  const bool isTold = run.errors.find("kdxdispatchcopy: could not get ") != std::string::npos;
  if (isOfMemoryOrThreads(fault) && run.exitStatus != 0 && !isTold)
    complaints.push_back("no message tells what can't be had: " + run.errors);
}

// A refused call that only helps must not fail the run.
void lookAtNeed(const Fault& fault, const FaultRun& run, Complaints& complaints) {
  if (fault.event == Event::refused && run.cameToPass && run.status != 0)
    complaints.push_back("status " + std::to_string(run.status) + " because of a call that only helps");
}

void runAgain(const Offload& offload, FaultRun& faultRun) {
  const std::vector<std::string> options =
      isFinalNameTaken(offload) ? std::vector<std::string>{"-f"} : std::vector<std::string>{};
  const SupervisedRun again = offload.run([](const SystemCall&) { return Verdict{}; }, options);
  ++faultRun.runs;
  if (again.run.exitStatus != 0)
    faultRun.complaints.push_back("run again: status " + std::to_string(again.run.exitStatus) + " " + again.run.output);
  for (const std::string& complaint : brokenByRun(offload, again))
    faultRun.complaints.push_back("run again: " + complaint);
}

const char* wordFor(Event event) {
  switch (event) {
    case Event::failsOnce:
      return "once";
    case Event::failsAlways:
      return "always";
    case Event::refused:
      return "refused";
    case Event::deviceGone:
      return "gone";
    case Event::killed:
      break;
  }
  return "killed";
}

}  // namespace

std::string nameOf(const Scenario& scenario, const Fault& fault) {
  const std::string error = fault.error == 0 ? "" : " " + errorName(fault.error);
  return scenario.name + ": " + fault.call + " " + fault.where + " " + std::to_string(fault.occurrence) + error + " " +
         wordFor(fault.event);
}

std::vector<Fault> errorsOf(const Offload& offload) {
  std::vector<Fault> faults;
  for (const SystemCall& call : callsOf(offload)) {
    for (const int error : kindOfCall(call.name).errors) {
      faults.push_back(faultAt(call, Event::failsOnce, error));
      if (canBeForEver(call, error)) faults.push_back(faultAt(call, Event::failsAlways, error));
    }
    if (call.isBelowRoot) faults.push_back(faultAt(call, Event::deviceGone, EIO));
  }
  return faults;
}

std::vector<Fault> refusalsOf(const Offload& offload) {
  std::set<std::pair<std::string, std::string>> places;
  for (const SystemCall& call : callsOf(offload)) {
    if (!kindOfCall(call.name).onlyHelps) continue;
    places.emplace(call.name, anywhere);
    if (call.isBelowRoot) places.emplace(call.name, folderOf(call.where));
  }
  std::vector<Fault> faults;
  for (const auto& [name, where] : places) {
    for (const int error : refusals()) {
      faults.push_back({.event = Event::refused, .call = name, .where = where, .error = error});
    }
  }
  return faults;
}

std::vector<Fault> killsOf(const Offload& offload) {
  std::vector<Fault> faults;
  for (const SystemCall& call : callsOf(offload)) faults.push_back(faultAt(call, Event::killed));
  return faults;
}

FaultRun runWith(const Offload& offload, const Fault& fault) {
  offload.prepare();
  Judge judge(fault);
  const SupervisedRun run = offload.run(std::ref(judge));
  FaultRun faultRun{.cameToPass = judge.injected() > 0,
                    .injected = judge.injected(),
                    .runs = 1,
                    .status = run.run.exitStatus,
                    .complaints = {}};
  const bool wasKilled = fault.event == Event::killed && faultRun.cameToPass;
  faultRun.complaints = wasKilled ? brokenByFiles(offload) : brokenByRun(offload, run);
  if (wasKilled) {
    runAgain(offload, faultRun);
  } else {
    lookAtMessage(fault, run.run, faultRun.complaints);
    lookAtNeed(fault, faultRun, faultRun.complaints);
  }
  return faultRun;
}
