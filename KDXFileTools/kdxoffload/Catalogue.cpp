#include "KDXFileTools/kdxoffload/Catalogue.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>

#include "KDXFileTools/kdxoffload/CatalogueRow.h"
#include "KDXFileTools/kdxoffload/Database.h"
#include "platform/FileURL.h"
#include "platform/Folder.h"
#include "platform/Volume.h"

namespace kdxoffload {

namespace {

// Tell this program's databases from others, and what is in them from what a later release will put there.
constexpr int64_t applicationID = 0x4b44584f;
constexpr int64_t version = 1;

// Paths are bytes. A row of `files` is found by destination and path alone: a card is looked up name by name, so that what else a
// destination's records tell costs nothing.
constexpr std::array<std::string_view, 6> schema{
    "CREATE TABLE destinations (destination INTEGER PRIMARY KEY, path BLOB NOT NULL UNIQUE)",
    "CREATE TABLE files (destination INTEGER NOT NULL, path BLOB NOT NULL, state INTEGER NOT NULL, size INTEGER NOT "
    "NULL,"
    " modified INTEGER NOT NULL, destinationSize INTEGER NOT NULL, destinationModified INTEGER NOT NULL,"
    " digest BLOB NOT NULL, checkValue INTEGER NOT NULL, PRIMARY KEY (destination, path)) WITHOUT ROWID",
    "CREATE TABLE offloads (offload INTEGER PRIMARY KEY AUTOINCREMENT, card BLOB NOT NULL, started INTEGER NOT NULL,"
    " seen INTEGER NOT NULL, ended INTEGER, exitStatus INTEGER NOT NULL DEFAULT 0, files INTEGER NOT NULL DEFAULT 0,"
    " proved INTEGER NOT NULL DEFAULT 0, bytes INTEGER NOT NULL DEFAULT 0, verdict BLOB NOT NULL DEFAULT x'')",
    "CREATE TABLE offloadDestinations (offload INTEGER NOT NULL, position INTEGER NOT NULL,"
    " destination INTEGER NOT NULL, PRIMARY KEY (offload, position)) WITHOUT ROWID",
    "PRAGMA application_id = 1262770255",
    "PRAGMA user_version = 1"};
static_assert(applicationID == 1262770255 && version == 1);

constexpr std::string_view noPlace = "there is no home folder to keep a catalogue in";

using Paths = std::vector<std::string>;

// Why what is in the database is not to be used; none for a catalogue, and for a database without anything in it.
std::optional<std::string> objectionTo(Database& database) {
  const auto identity = database.integer("PRAGMA application_id");
  const auto written = database.integer("PRAGMA user_version");
  const auto objects = database.integer("SELECT count(*) FROM sqlite_schema");
  if (database.hasFailed()) return database.failure();
  if (identity == 0 && written == 0 && objects == 0) return std::nullopt;
  if (identity != applicationID) return "it is another program's database";
  if (written > version) return "it was written by a newer release of this program";
  return written == version ? std::nullopt : std::optional<std::string>("it is damaged");
}

bool isEmpty(Database& database) {
  return database.integer("PRAGMA user_version") == 0;
}

void refuseOthers(Database& database) {
  if (auto objection = objectionTo(database)) database.fail(std::move(*objection));
}

// Where the memory that programs share to read and write a log side by side is surely the same for all of them: on file systems
// of this machine.
bool canShareMemory(const std::string& path) {
  constexpr std::array<std::string_view, 10> local{"ext2", "ext3",  "ext4",    "xfs", "btrfs",
                                                   "f2fs", "tmpfs", "overlay", "zfs", "jfs"};
  const platform::Volume volume = platform::volumeOf(platform::FileURL(path).deletingLastPathComponent().path());
  return std::ranges::find(local, volume.fileSystem) != local.end();
}

// A write-ahead log takes one sync for each change, a rollback journal four: 3.3 against 15 ms on ext4 on a virtual disk, and
// there are two changes for each job. It also lets others look while an offload writes.
void chooseJournal(Database& database, const std::string& path) {
  database.attempt(canShareMemory(path) ? "PRAGMA journal_mode = WAL" : "PRAGMA journal_mode = DELETE");
  database.execute("PRAGMA synchronous = EXTRA");
}

// Writes in any case: that it can be written shall be known before the first file is copied.
void makeSchema(Database& database) {
  database.execute("BEGIN IMMEDIATE");
  refuseOthers(database);
  const bool isNew = isEmpty(database);
  for (const std::string_view statement : schema) {
    if (isNew || statement.starts_with("PRAGMA")) database.execute(statement);
  }
  database.execute("COMMIT");
}

// Makes the folder and those above it, each with its name permanent.
bool makeFolder(const std::string& path, platform::ErrorPlace error) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) return true;
  const platform::FileURL url(path);
  const std::string above = url.deletingLastPathComponent().path();
  if (above == path || !makeFolder(above, error)) return false;
  const auto parent = platform::Folder::open(above, error);
  return parent && parent->makeFolders(url.lastPathComponent(), error) && parent->sync(error);
}

std::optional<std::string> absolutePath(const char* folder) {
  return folder != nullptr && *folder == '/' ? std::optional<std::string>(folder) : std::nullopt;
}

bool isProof(FileRecord::State state) {
  return state == FileRecord::State::proved || state == FileRecord::State::adopted ||
         state == FileRecord::State::copied;
}

std::optional<uint64_t> countIn(const Statement& row, int column) {
  const auto value = row.integer(column);
  return value && *value >= 0 ? std::optional(static_cast<uint64_t>(*value)) : std::nullopt;
}

// The path in the column; none where there is no absolute one.
std::optional<std::string> pathIn(const Statement& row, int column) {
  const auto path = row.bytes(column);
  return path && path->starts_with('/') ? std::optional<std::string>(*path) : std::nullopt;
}

// A run in the columns of `history`; none when the row makes no sense.
std::optional<OffloadRecord> offloadIn(const Statement& row) {
  constexpr int64_t highestExitStatus = 255;
  const auto number = row.integer(0);
  auto card = pathIn(row, 1);
  const auto started = row.integer(2);
  const auto ended = row.integer(3);
  const auto exitStatus = row.integer(4);
  const auto files = countIn(row, 5);
  const auto proved = countIn(row, 6);
  const auto bytes = countIn(row, 7);
  const auto verdict = row.bytes(8);
  if (!number || !card || !started || !exitStatus || !files || !proved || !bytes || !verdict) return std::nullopt;
  if (*exitStatus < 0 || *exitStatus > highestExitStatus || (!ended && !row.isNull(3))) return std::nullopt;
  return OffloadRecord{.number = *number,
                       .card = std::move(*card),
                       .started = *started,
                       .ended = ended,
                       .exitStatus = static_cast<int>(*exitStatus),
                       .files = *files,
                       .proved = *proved,
                       .bytes = *bytes,
                       .verdict = std::string(*verdict)};
}

Paths destinationsOfOffload(Database& database, int64_t offload) {
  Statement found = database.prepare(
      "SELECT path FROM offloadDestinations JOIN destinations USING (destination) WHERE offload = ?1 ORDER BY "
      "position");
  found.with(offload);
  Paths paths;
  while (found.step()) {
    if (auto path = pathIn(found, 0)) paths.push_back(std::move(*path));
  }
  return paths;
}

std::optional<int64_t> numberOfDestination(Database& database, std::string_view path) {
  Statement found = database.prepare("SELECT destination FROM destinations WHERE path = ?1");
  return found.with(path).step() ? found.integer(0) : std::nullopt;
}

}  // namespace

struct Catalogue::State {
  std::string path{};
  std::optional<Database> database{};  // none where nothing is remembered
  bool changes = false;
  std::optional<std::string> problem{};
  int64_t offload = 0;
  Paths destinationPaths{};             // of the run
  std::vector<int64_t> destinations{};  // their numbers

  State() = default;
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() {
    if (!database || !changes) return;
    // At rest it is one file, which can be copied, and read where nothing can be written. Not while others have it open.
    database->losePatience();
    database->attempt("PRAGMA journal_mode = DELETE");
  }

  void giveUp(std::string_view why) {
    problem = path.empty() ? std::string(why) : fmt::format("the catalogue {} can't be used: {}", path, why);
    database.reset();
  }

  // Does the work as one transaction. False when it has not happened.
  template <typename Work>
  bool transaction(std::string_view beginning, Work work) {
    if (!database) return false;
    database->execute(beginning);
    work(*database);
    database->execute("COMMIT");
    if (!database->hasFailed()) return true;
    giveUp(database->failure());
    return false;
  }
  template <typename Work>
  bool change(Work work) {
    return changes && transaction("BEGIN IMMEDIATE", work);
  }
  template <typename Work>
  bool look(Work work) {
    return transaction("BEGIN", work);
  }

  // A change of each of those files, with the statement.
  template <typename Change>
  void changeFiles(std::span<const FileOfRecord> files, std::string_view text, Change changeFile) {
    if (files.empty()) return;
    change([&](Database& changed) {
      Statement statement = changed.prepare(text);
      for (const FileOfRecord& file : files) {
        if (file.destination < destinations.size()) changeFile(statement, file);
      }
    });
  }

  void write(Statement& statement, const FileOfRecord& file, const FileRecord& record) const {
    const std::string digestText = record.digest.text();
    statement.with(destinations[file.destination]).with(std::string_view(file.path));
    CatalogueRow::put(statement, destinationPaths[file.destination], file.path, record, digestText);
    statement.run();
  }
};

namespace {

constexpr int64_t nanosecondsPerSecond = 1'000'000'000;

int64_t secondsSince1970(std::chrono::system_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

// Of a run; seconds since 1970.
struct RunTime {
  int64_t started = 0;
  int64_t seen = 0;  // when it ended, or was last known to be at work
};

// In the order in which they started.
std::vector<RunTime> runsTo(Database& database, int64_t destination) {
  Statement found = database.prepare(
      "SELECT started, max(seen, coalesce(ended, 0)) FROM offloads JOIN offloadDestinations USING (offload)"
      " WHERE destination = ?1 ORDER BY started");
  found.with(destination);
  std::vector<RunTime> runs;
  while (found.step()) {
    runs.push_back({.started = found.integer(0).value_or(0), .seen = found.integer(1).value_or(0)});
  }
  return runs;
}

// Of the run that had begun a file at that time; nanoseconds since 1970, as the result.
int64_t lastSignOfLife(const std::vector<RunTime>& runs, int64_t begun) {
  int64_t seen = begun;
  for (const RunTime& run : runs) {
    if (run.started * nanosecondsPerSecond > begun) break;
    seen = std::max(begun, run.seen * nanosecondsPerSecond);
  }
  return seen;
}

const std::string replaceFile =
    fmt::format("INSERT OR REPLACE INTO files (destination, path, {}) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)",
                CatalogueRow::columns);
const std::string findFile =
    fmt::format("SELECT {} FROM files WHERE destination = ?1 AND path = ?2", CatalogueRow::columns);

// Why what stands at the path can't be a catalogue. A pipe would be waited for.
std::optional<std::string> objectionToPath(const std::string& path) {
  std::error_code ignored;
  const std::filesystem::file_type type = std::filesystem::status(path, ignored).type();
  const bool canBe = type == std::filesystem::file_type::regular || type == std::filesystem::file_type::not_found;
  return canBe ? std::nullopt : std::optional<std::string>("it is no file that can be reached");
}

}  // namespace

Catalogue::Catalogue(std::unique_ptr<State> state) : _state(std::move(state)) {}
Catalogue::Catalogue(Catalogue&&) noexcept = default;
Catalogue& Catalogue::operator=(Catalogue&&) noexcept = default;
Catalogue::~Catalogue() = default;

Catalogue Catalogue::open(const std::string& path, std::chrono::milliseconds patience) {
  Catalogue catalogue(std::make_unique<State>());
  State& state = *catalogue._state;
  if (path.empty()) {
    state.giveUp(noPlace);
    return catalogue;
  }
  const platform::FileURL url(path);
  state.path = url.path();
  std::optional<platform::Error> error;
  if (!makeFolder(url.deletingLastPathComponent().path(), &error)) {
    state.giveUp(error ? error->description.value_or("") : "its folder can't be made");
    return catalogue;
  }
  if (const auto objection = objectionToPath(state.path)) {
    state.giveUp(*objection);
    return catalogue;
  }
  state.database = Database::open(state.path, Database::Access::makeAndChange, patience);
  refuseOthers(*state.database);
  if (state.database->isReadOnly()) state.database->fail("it is read-only");
  chooseJournal(*state.database, state.path);
  makeSchema(*state.database);
  state.changes = true;
  if (state.database->hasFailed()) state.giveUp(state.database->failure());
  return catalogue;
}

Catalogue Catalogue::openForReading(const std::string& path, std::chrono::milliseconds patience) {
  Catalogue catalogue(std::make_unique<State>());
  State& state = *catalogue._state;
  if (path.empty()) {
    state.giveUp(noPlace);
    return catalogue;
  }
  state.path = platform::FileURL(path).path();
  if (const auto objection = objectionToPath(state.path)) {
    state.giveUp(*objection);
    return catalogue;
  }
  std::error_code ignored;
  if (!std::filesystem::exists(state.path, ignored)) return catalogue;
  state.database = Database::open(state.path, Database::Access::look, patience);
  refuseOthers(*state.database);
  if (state.database->hasFailed()) {
    state.giveUp(state.database->failure());
  } else if (isEmpty(*state.database)) {
    state.database.reset();
  }
  return catalogue;
}

std::optional<std::string> Catalogue::defaultPath() {
  // Set-up of one thread alone: nothing in this process changes the environment.
  // NOLINTBEGIN(concurrency-mt-unsafe)
  if (const auto state = absolutePath(std::getenv("XDG_STATE_HOME"))) return *state + "/kdxoffload/catalogue.sqlite";
  const auto home = absolutePath(std::getenv("HOME"));
  // NOLINTEND(concurrency-mt-unsafe)
  return home ? std::optional(*home + "/.local/state/kdxoffload/catalogue.sqlite") : std::nullopt;
}

const std::optional<std::string>& Catalogue::problem() const {
  return _state->problem;
}

void Catalogue::startOffload(const std::string& card, const std::vector<std::string>& destinations, int64_t started) {
  _state->destinationPaths = destinations;
  _state->destinations.clear();
  _state->change([&](Database& database) {
    database.prepare("INSERT INTO offloads (card, started, seen) VALUES (?1, ?2, ?2)").with(card).with(started).run();
    _state->offload = database.lastInserted();
    Statement add = database.prepare("INSERT OR IGNORE INTO destinations (path) VALUES (?1)");
    Statement mention = database.prepare("INSERT INTO offloadDestinations VALUES (?1, ?2, ?3)");
    for (const std::string& path : destinations) {
      add.with(path).run();
      const int64_t number = numberOfDestination(database, path).value_or(0);
      mention.with(_state->offload).with(static_cast<int64_t>(_state->destinations.size())).with(number).run();
      _state->destinations.push_back(number);
    }
  });
}

void Catalogue::endOffload(const OffloadRecord& outcome) {
  _state->change([&](Database& database) {
    Statement update = database.prepare(
        "UPDATE offloads SET ended = ?1, exitStatus = ?2, files = ?3, proved = ?4, bytes = ?5, verdict = ?6"
        " WHERE offload = ?7");
    outcome.ended ? update.with(*outcome.ended) : update.with(std::nullopt);
    update.with(outcome.exitStatus)
        .with(static_cast<int64_t>(outcome.files))
        .with(static_cast<int64_t>(outcome.proved))
        .with(static_cast<int64_t>(outcome.bytes))
        .with(outcome.verdict)
        .with(_state->offload)
        .run();
  });
}

void Catalogue::stillAtWork(std::chrono::system_clock::time_point now) {
  _state->change([&](Database& database) {
    database.prepare("UPDATE offloads SET seen = ?1 WHERE offload = ?2")
        .with(secondsSince1970(now))
        .with(_state->offload)
        .run();
  });
}

std::vector<FileRecord> Catalogue::recordsOf(const std::string& destination, const Listing& card) const {
  std::vector<FileRecord> records(card.entries.size());
  const bool isRead = _state->look([&](Database& database) {
    const auto number = numberOfDestination(database, destination);
    if (!number) return;
    const std::vector<RunTime> runs = runsTo(database, *number);
    Statement find = database.prepare(findFile);
    for (EntryIndex index = 0; index < card.entries.size() && !database.hasFailed(); ++index) {
      if (card.entries[index].facts.kind != platform::ItemKind::file) continue;
      const std::string path = card.pathOf(index);
      if (!find.with(*number).with(path).step()) continue;
      const auto record = CatalogueRow::take(find, destination, path);
      if (!record) continue;
      records[index] = *record;
      if (record->state == FileRecord::State::begun) {
        records[index].begun = record->destinationModified;
        records[index].destinationModified = lastSignOfLife(runs, record->destinationModified);
      }
    }
  });
  return isRead ? records : std::vector<FileRecord>(card.entries.size());
}

void Catalogue::begin(std::span<const FileOfRecord> files) {
  const int64_t now = secondsSince1970(std::chrono::system_clock::now()) * nanosecondsPerSecond;
  _state->changeFiles(files, replaceFile, [&](Statement& statement, const FileOfRecord& file) {
    _state->write(statement, file,
                  {.state = FileRecord::State::begun,
                   .size = file.record.size,
                   .modified = file.record.modified,
                   .destinationModified = now});
  });
}

void Catalogue::prove(std::span<const FileOfRecord> files) {
  _state->changeFiles(files, replaceFile, [&](Statement& statement, const FileOfRecord& file) {
    if (isProof(file.record.state)) _state->write(statement, file, file.record);
  });
}

void Catalogue::forget(std::span<const FileOfRecord> files) {
  _state->changeFiles(files, "DELETE FROM files WHERE destination = ?1 AND path = ?2",
                      [&](Statement& statement, const FileOfRecord& file) {
                        statement.with(_state->destinations[file.destination]).with(file.path).run();
                      });
}

std::vector<OffloadRecord> Catalogue::history() const {
  std::vector<OffloadRecord> records;
  const bool isRead = _state->look([&](Database& database) {
    Statement found = database.prepare(
        "SELECT offload, card, started, ended, exitStatus, files, proved, bytes, verdict FROM offloads ORDER BY "
        "offload");
    while (found.step()) {
      if (auto record = offloadIn(found)) records.push_back(std::move(*record));
    }
    for (OffloadRecord& record : records) record.destinations = destinationsOfOffload(database, record.number);
  });
  return isRead ? records : std::vector<OffloadRecord>();
}

std::vector<std::string> Catalogue::destinationsOf(const std::string& card) const {
  Paths paths;
  _state->look([&](Database& database) {
    Statement found = database.prepare(
        "SELECT path FROM offloads JOIN offloadDestinations USING (offload) JOIN destinations USING (destination)"
        " WHERE card = ?1 GROUP BY destination ORDER BY min(offload), min(position)");
    found.with(card);
    while (found.step()) {
      if (auto path = pathIn(found, 0)) paths.push_back(std::move(*path));
    }
  });
  return paths;
}

}  // namespace kdxoffload
