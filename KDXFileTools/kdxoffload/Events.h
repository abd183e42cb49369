#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "KDXFileTools/kdxoffload/FileDigest.h"
#include "KDXFileTools/kdxoffload/Verdict.h"
#include "platform/Volume.h"

namespace kdxoffload {

// What happens in an offload, a plain value each. Paths are relative to the card. Names are as on disk, and must be escaped
// before they are shown. Seconds are those since the program started.

enum class JobPhase : uint8_t { copying, readingBack, flushing };

// Something that may take a while goes on before the work is known, or after it is done.
struct Looking {
  std::string text{};    // what, in a few words
  bool isAsked = false;  // somebody asked; nothing new
};

// The work is known. First of all, but for warnings and errors.
struct Planned {
  std::string card{};                       // as given
  std::vector<std::string> destinations{};  // as given
  uint64_t files = 0;
  uint64_t folders = 0;
  uint64_t links = 0;
  uint64_t bytes = 0;
  uint64_t sequences = 0;
  uint64_t filesDoneBefore = 0;  // proved at every destination already
  uint64_t bytesDoneBefore = 0;
  bool readBack = true;
};

// A job has begun. `job` is its number; only jobs that were started and have not ended are running.
struct JobStarted {
  uint64_t job = 0;
  std::string path{};  // of a sequence: folder and identifier
  uint64_t frames = 1;
  uint64_t bytes = 0;  // of the file, or of all frames
  double seconds = 0;
};

// A job has come to another phase.
struct JobPhaseChanged {
  uint64_t job = 0;
  JobPhase phase = JobPhase::copying;
  double seconds = 0;
};

// A job goes on. Bytes are those of the source, whatever the number of destinations.
struct JobProgressed {
  uint64_t job = 0;
  JobPhase phase = JobPhase::copying;
  uint64_t bytes = 0;  // in this phase, of the bytes of JobStarted
  double seconds = 0;
};

// A job has ended, with or without success. Its files may still wait for the sync of their batch.
struct JobEnded {
  uint64_t job = 0;
  int status = 0;
  bool willBeTriedAgain = false;
  double secondsCopying = 0;
  double secondsReadingBack = 0;
  double seconds = 0;
};

enum class FileOutcome : uint8_t { proved, alreadyProved, adopted, failed, excluded };

// The outcome of a file. Posted exactly once for each file of the card.
struct FileEnded {
  std::string path{};
  uint64_t size = 0;
  FileDigest digest{};
  FileOutcome outcome = FileOutcome::failed;
  int status = 0;        // of the job
  std::string reason{};  // of a failure
  double jobSeconds = 0;
  double seconds = 0;
  std::optional<uint64_t> sequenceJob{};  // of a frame that ended with its whole sequence: the number of that job
};

// About every quarter of a second while jobs run, and when somebody asks (`isAsked`). The state of everything.
struct Progress {
  uint64_t bytesDone = 0;  // proved, in earlier runs too; never gets smaller
  uint64_t bytes = 0;
  uint64_t filesDone = 0;
  uint64_t files = 0;
  uint64_t failures = 0;
  double share = 0;           // of the work, from 0 to 1: 1 only when everything is proved; never gets smaller
  double bytesPerSecond = 0;  // measured recently
  std::optional<double> secondsLeft{};
  struct Destination {
    std::string path{};  // as given
    uint64_t freeBytes = 0;
  };
  std::vector<Destination> destinations{};
  double seconds = 0;
  bool isAsked = false;
};

struct Warned {
  std::string text{};  // one sentence
  std::optional<std::string> path{};
};

struct ErrorReported {
  std::string text{};  // one sentence: why nothing was begun, or what went wrong
  std::optional<std::string> path{};
};

// A signal has arrived: running jobs are being stopped.
struct Stopping {
  int signal = 0;
};

// The end, always last, on refusals too.
struct Finished {
  struct Destination {
    std::string path{};
    std::string fileSystem{};
    platform::ReadBack readBack = platform::ReadBack::unknown;
  };
  Verdict verdict{};  // after a refusal: not safe, the exit status, and a line that says that nothing was done
  std::vector<Destination> destinations{};
  double seconds = 0;
  bool wasRefused = false;
};

using Event = std::variant<Looking, Planned, JobStarted, JobPhaseChanged, JobProgressed, JobEnded, FileEnded, Progress,
                           Warned, ErrorReported, Stopping, Finished>;

// Somebody whom the events are shown to: a display, a manifest, a report. Called on the thread of the run, in the order of
// the events; must not wait for anything, and can't change what the run does.
class Listener {
 public:
  Listener() = default;
  virtual ~Listener() = default;
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  virtual void take(const Event& event) = 0;
};

// Passes every event on to all of its listeners.
class Listeners final : public Listener {
 public:
  // The listener belongs to the caller, and must live as long as events are posted.
  void add(Listener& listener) { _listeners.push_back(&listener); }
  void take(const Event& event) override {
    for (Listener* listener : _listeners) listener->take(event);
  }

 private:
  std::vector<Listener*> _listeners;
};

}  // namespace kdxoffload
