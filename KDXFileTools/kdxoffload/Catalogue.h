#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/FileDigest.h"
#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// What is remembered of one file at one destination.
struct FileRecord {
  enum class State : uint8_t {
    none,     // nothing is known: what stands there is somebody else's
    begun,    // a job was about to write it: what stands there is ours and not proved
    proved,   // copied and read back
    adopted,  // it stood there, and was read and compared
    copied,   // copied, and by wish not read back
  };
  State state = State::none;
  FileDigest digest{};           // none of `begun`
  uint64_t size = 0;             // on the card, bytes
  int64_t modified = 0;          // on the card, nanoseconds since 1970
  uint64_t destinationSize = 0;  // at the destination, as they were after the proof
  // Of `begun`: until when the run that was about to write it showed that it was at work.
  int64_t destinationModified = 0;
  bool operator==(const FileRecord&) const = default;
};

// A record and whose it is.
struct FileOfRecord {
  std::size_t destination = 0;  // position in the offload's list
  std::string path{};           // relative to the destination
  FileRecord record{};
};

// One run, for the history. Times are seconds since 1970.
struct OffloadRecord {
  int64_t number = 0;                       // given by the catalogue
  std::string card{};                       // real path
  std::vector<std::string> destinations{};  // real paths
  int64_t started = 0;
  std::optional<int64_t> ended{};  // none: it was killed, or is at work
  int exitStatus = 0;
  uint64_t files = 0;
  uint64_t proved = 0;
  uint64_t bytes = 0;
  std::string verdict{};  // the last line
};

// Remembers what was proved where, across runs: a SQLite database. Used by one thread. Every change is permanent when its
// call returns, or it did not happen.
//
// Where it can't be kept (read-only, full, locked, damaged, on a file system without locks) it goes on without remembering:
// `problem` then tells why, records are empty, and changes do nothing. That may happen in the middle of a run too.
class Catalogue {
 public:
  // A sync on a busy disk takes seconds, and the other program holds its lock until then.
  static constexpr std::chrono::milliseconds usualPatience{15'000};

  // The one at the path; it and its folder are made when missing. A file that is not a catalogue is left as it is. No path is
  // a problem too.
  //   patience  how long another program's lock is waited for, each time
  static Catalogue open(const std::string& path, std::chrono::milliseconds patience = usualPatience);
  // As `open`, but nothing is made or changed: for looking things up. A missing one is empty.
  static Catalogue openForReading(const std::string& path, std::chrono::milliseconds patience = usualPatience);
  // $XDG_STATE_HOME/kdxoffload/catalogue.sqlite, or below ~/.local/state. None without a home.
  static std::optional<std::string> defaultPath();

  Catalogue(Catalogue&&) noexcept;
  Catalogue& operator=(Catalogue&&) noexcept;
  ~Catalogue();

  // Why nothing is remembered; none while all is well. One sentence, for a person.
  [[nodiscard]] const std::optional<std::string>& problem() const;

  // The run that is starting. What comes after it is about this run and its destinations.
  void startOffload(const std::string& card, const std::vector<std::string>& destinations, int64_t started);
  void endOffload(const OffloadRecord& outcome);
  // A sign of life of the run, so that what appears at a destination after a run was killed is not taken for what it wrote.
  void stillAtWork(std::chrono::system_clock::time_point now);

  // What is known of the files of the card at a destination (its real path): one record for each entry of the listing, at the same
  // position. Those of folders and links are empty.
  [[nodiscard]] std::vector<FileRecord> recordsOf(const std::string& destination, const Listing& card) const;

  // First step, before a job starts: these files are about to be written. A proof that there was is gone. Of a record only
  // the card's size and time are taken.
  void begin(std::span<const FileOfRecord> files);
  // Second step: proved, with data and name permanent. A record whose state is no proof is passed over.
  void prove(std::span<const FileOfRecord> files);
  // A job ended without a proof while somebody was there to see it: what stands there now is to be compared like somebody
  // else's.
  void forget(std::span<const FileOfRecord> files);

  // Every run, the latest last.
  [[nodiscard]] std::vector<OffloadRecord> history() const;
  // Real paths of all destinations that this card was offloaded to.
  [[nodiscard]] std::vector<std::string> destinationsOf(const std::string& card) const;

 private:
  struct State;
  explicit Catalogue(std::unique_ptr<State> state);
  std::unique_ptr<State> _state;
};

}  // namespace kdxoffload
