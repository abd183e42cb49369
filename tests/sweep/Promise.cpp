#include "tests/sweep/Promise.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>

namespace {

using Copy = Offload::Copy;
using Files = Offload::Files;

bool holds(const Files& files, const std::string& name, const std::string& bytes) {
  const auto file = files.find(name);
  return file != files.end() && file->second == bytes;
}

bool standsAsBefore(const Offload& offload, const Files& found, const std::string& name) {
  const auto before = offload.filesBefore().find(name);
  return before == offload.filesBefore().end() ? !found.contains(name) : holds(found, name, before->second);
}

// True when the copy stands under its final name.
bool isNamed(const Files& found, const Copy& copy) {
  return holds(found, copy.name, copy.bytes);
}

void lookAtFinalName(const Offload& offload, const Files& found, const Copy& copy, Complaints& complaints) {
  if (isNamed(found, copy) || standsAsBefore(offload, found, copy.name)) return;
  if (found.contains(copy.name)) {
    complaints.push_back(copy.name + " has wrong content");
  } else if (!holds(found, copy.temporary, copy.bytes)) {
    complaints.push_back(copy.name + " is gone, with nothing to take its place");
  }
}

void lookAtOtherFiles(const Offload& offload, const Files& found, Complaints& complaints) {
  const auto isOfCopies = [&](const std::string& name) {
    return std::ranges::any_of(offload.copies(),
                               [&](const Copy& copy) { return name == copy.name || name == copy.temporary; });
  };
  for (const auto& [name, bytes] : offload.filesBefore()) {
    if (!isOfCopies(name) && !holds(found, name, bytes)) complaints.push_back(name + " is not as it was");
  }
  for (const auto& [name, bytes] : found) {
    if (!isOfCopies(name) && !offload.filesBefore().contains(name)) complaints.push_back(name + " appeared");
  }
}

// The calls of a run.
class Journal {
 public:
  explicit Journal(const std::vector<SystemCall>& calls) : _calls(calls) {}

  // The position of the last of these calls there that did not fail, counted from 1 for the first call of the run; 0 for none.
  [[nodiscard]] std::size_t last(const std::vector<std::string>& names, const std::string& where) const {
    std::size_t found = 0;
    for (std::size_t index = 0; index < _calls.size(); ++index) {
      const SystemCall& call = _calls[index];
      if (call.error == 0 && call.where == where && std::ranges::find(names, call.name) != names.end())
        found = index + 1;
    }
    return found;
  }

  // Whether the file, its file system or all file systems were synced between the two positions.
  [[nodiscard]] bool synced(const std::vector<std::string>& names, const std::string& where, std::size_t after,
                            std::size_t before) const {
    for (std::size_t index = after; index < std::min(before, _calls.size()); ++index) {
      const SystemCall& call = _calls[index];
      if (call.error != 0) continue;
      if (call.name == "sync" || (call.name == "syncfs" && call.isBelowRoot)) return true;
      if (call.where == where && std::ranges::find(names, call.name) != names.end()) return true;
    }
    return false;
  }

  [[nodiscard]] std::size_t end() const { return _calls.size(); }

 private:
  const std::vector<SystemCall>& _calls;
};

void lookAtPermanence(const Copy& copy, const Journal& journal, Complaints& complaints) {
  const std::string folder = copy.name.substr(0, copy.name.rfind('/'));
  const std::size_t written = journal.last({"write", "pwrite64", "writev", "ftruncate"}, copy.temporary);
  const std::size_t moved = journal.last({"renameat2", "renameat", "rename", "link", "linkat"}, copy.temporary);
  if (moved == 0) {
    complaints.push_back(copy.name + " was never moved");
    return;
  }
  if (!journal.synced({"fsync", "fdatasync"}, copy.temporary, written, moved))
    complaints.push_back("the data of " + copy.name + " was not permanent when it got its name");
  if (!journal.synced({"fsync"}, folder, moved, journal.end()))
    complaints.push_back("the name " + copy.name + " was not made permanent");
}

void lookAtSuccess(const Offload& offload, const Files& found, const SupervisedRun& run, Complaints& complaints) {
  const Journal journal(run.calls);
  for (const Copy& copy : offload.copies()) {
    if (!isNamed(found, copy)) complaints.push_back("success without " + copy.name);
    if (found.contains(copy.temporary)) complaints.push_back("success with " + copy.temporary);
    lookAtPermanence(copy, journal, complaints);
  }
}

// Which final names a run that ended with this status may have given.
enum class Named { none, allOrNone, theFirst };

std::optional<Named> namedWith(int status, const std::vector<SystemCall>& calls) {
  constexpr std::array noNames{103, 104, 105, 107, 108, 110, 111, 121, 134};
  if (std::ranges::find(noNames, status) != noNames.end()) return Named::none;
  if (status == 106) return Named::allOrNone;
  const bool isErrorOfCall = std::ranges::any_of(calls, [&](const SystemCall& call) { return call.error == status; });
  // EBUSY: a file that is still needed is not removed to make room.
  constexpr int stillNeeded = 16;
  if (status == 1 || status == 109 || status == stillNeeded || isErrorOfCall) return Named::theFirst;
  return std::nullopt;
}

void lookAtFailure(const Offload& offload, const Files& found, const SupervisedRun& run, Complaints& complaints) {
  const int status = run.run.exitStatus;
  const std::optional<Named> allowed = namedWith(status, run.calls);
  if (!allowed) {
    complaints.push_back("ended with status " + std::to_string(status) + ", which nothing explains");
    return;
  }
  const std::vector<Copy>& copies = offload.copies();
  const auto named = [&](const Copy& copy) { return isNamed(found, copy); };
  const auto count = std::ranges::count_if(copies, named);
  const bool areTheFirst = std::ranges::is_partitioned(copies, named);
  const bool areAllOrNone = count == 0 || count == std::ssize(copies);
  const bool isRight = *allowed == Named::none ? count == 0 : *allowed == Named::allOrNone ? areAllOrNone : areTheFirst;
  if (!isRight)
    complaints.push_back("status " + std::to_string(status) + " with " + std::to_string(count) + " final names");
}

bool isOwnAssertion(const ToolRun& run) {
  return run.exitStatus == 134 && run.errors.find("kdxdispatchcopy: assertion failed: ") != std::string::npos;
}

Complaints brokenBy(const Offload& offload, const Files& found) {
  Complaints complaints;
  for (const Copy& copy : offload.copies()) lookAtFinalName(offload, found, copy, complaints);
  lookAtOtherFiles(offload, found, complaints);
  return complaints;
}

}  // namespace

Complaints brokenByFiles(const Offload& offload) {
  return brokenBy(offload, offload.files());
}

Complaints brokenByRun(const Offload& offload, const SupervisedRun& run) {
  const Files found = offload.files();
  Complaints complaints = brokenBy(offload, found);
  const int status = run.run.exitStatus;
  constexpr int firstOfSignals = 129;
  if (run.endless) {
    complaints.emplace_back("did not end");
  } else if (status == 0) {
    lookAtSuccess(offload, found, run, complaints);
  } else if (status >= firstOfSignals && !isOwnAssertion(run.run)) {
    complaints.push_back("ended by signal " + std::to_string(status - 128));
  } else {
    lookAtFailure(offload, found, run, complaints);
  }
  return complaints;
}

bool isFinalNameTaken(const Offload& offload) {
  const std::vector<std::string> names = offload.names();
  return std::ranges::any_of(offload.copies(),
                             [&](const Copy& copy) { return std::ranges::find(names, copy.name) != names.end(); });
}
