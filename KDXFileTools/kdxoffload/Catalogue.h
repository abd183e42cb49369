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

// What the catalogue knows of one file at one destination.
struct FileRecord {
  enum class State : uint8_t {
    none,     // nothing is known: a file there is somebody else's
    begun,    // a job was about to write it: a file there is ours and not proved
    proved,   // copied and read back
    adopted,  // the file was there already, and was read and compared
    copied,   // copied, and not read back because the user did not want it
  };
  State state = State::none;
  FileDigest digest{};           // none for `begun`
  uint64_t size = 0;             // on the card, bytes
  int64_t modified = 0;          // on the card, nanoseconds since 1970
  uint64_t destinationSize = 0;  // at the destination after the proof, bytes
  // At the destination after the proof. Of `begun`: until when the run that was about to write it showed that it was at work.
  int64_t destinationModified = 0;
  int64_t begun = 0;  // of `begun`: when that was written down, nanoseconds since 1970
  bool operator==(const FileRecord&) const = default;
};

// A record, and the file that it is about.
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
  std::optional<int64_t> ended{};  // none: it was killed, or is still at work
  int exitStatus = 0;
  uint64_t files = 0;
  uint64_t proved = 0;
  uint64_t bytes = 0;
  std::string verdict{};  // the last line
};

// Remembers across runs what was proved where, in a SQLite database. Used by one thread. When a call that changes something
// returns, the change is permanent, or it did not happen.
//
// If the database can't be kept (read-only, full, locked, damaged, on a file system without locks), the catalogue goes on
// without remembering: `problem` then has the reason, records are empty, and changes do nothing. This may also happen in the
// middle of a run.
class Catalogue {
 public:
  // A sync on a busy disk takes seconds, and another program holds its lock until then.
  static constexpr std::chrono::milliseconds usualPatience{15'000};

  // Opens the catalogue at the path; makes it and its folder if they are missing. A file that is not a catalogue is left as it
  // is, and is a problem. So is an empty path.
  //   patience  how long to wait for another program's lock, each time
  static Catalogue open(const std::string& path, std::chrono::milliseconds patience = usualPatience);
  // Like `open`, but makes and changes nothing: for looking things up. A missing catalogue is an empty one.
  static Catalogue openForReading(const std::string& path, std::chrono::milliseconds patience = usualPatience);
  // $XDG_STATE_HOME/kdxoffload/catalogue.sqlite, or below ~/.local/state. None without a home directory.
  static std::optional<std::string> defaultPath();

  Catalogue(Catalogue&&) noexcept;
  Catalogue& operator=(Catalogue&&) noexcept;
  ~Catalogue();

  // Why nothing is remembered; none while all is well. One sentence, for a person.
  [[nodiscard]] const std::optional<std::string>& problem() const;

  // Records the run that starts. All later calls are about this run and its destinations.
  void startOffload(const std::string& card, const std::vector<std::string>& destinations, int64_t started);
  void endOffload(const OffloadRecord& outcome);
  // A sign of life of the run, so that what appears at a destination after a run was killed is not taken for what it wrote.
  void stillAtWork(std::chrono::system_clock::time_point now);

  // What is known of the card's files at a destination (its real path): one record for each entry of the listing, at the
  // same position. Records of folders and links are empty.
  [[nodiscard]] std::vector<FileRecord> recordsOf(const std::string& destination, const Listing& card) const;

  // First step, before a job starts: these files are about to be written. An earlier proof is forgotten. Of a record only
  // the card's size and time are taken.
  void begin(std::span<const FileOfRecord> files);
  // Second step: the files are proved, with data and name permanent. Ignores records whose state is no proof.
  void prove(std::span<const FileOfRecord> files);
  // A job ended without a proof, and the run noticed it: a file that stands there now must be compared, like somebody else's.
  void forget(std::span<const FileOfRecord> files);

  // All runs, the latest last.
  [[nodiscard]] std::vector<OffloadRecord> history() const;
  // Real paths of all destinations that this card was offloaded to.
  [[nodiscard]] std::vector<std::string> destinationsOf(const std::string& card) const;

 private:
  struct State;
  explicit Catalogue(std::unique_ptr<State> state);
  std::unique_ptr<State> _state;
};

}  // namespace kdxoffload
