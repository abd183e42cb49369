#include "KDXFileTools/kdxoffload/Database.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <cerrno>
#include <system_error>

namespace kdxoffload {

namespace {

// Longer values are no paths: a damaged length must not become memory.
constexpr int longestValue = 16 << 20;  // bytes

// What a person can do something about has words of its own.
std::string describe(int code, sqlite3* connection) {
  constexpr int primaryBits = 0xff;
  switch (code & primaryBits) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return "it is locked by another program";
    case SQLITE_FULL:
      return "its file system is full";
    case SQLITE_READONLY:
    case SQLITE_PERM:
      return "it is read-only";
    case SQLITE_CORRUPT:
    // The statements are right, so what they meet is not what was made.
    case SQLITE_ERROR:
    case SQLITE_SCHEMA:
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
    case SQLITE_TOOBIG:
      return "it is damaged";
    case SQLITE_NOTADB:
      return "it is not a catalogue, or damaged";
    case SQLITE_PROTOCOL:
    case SQLITE_NOLFS:
      return "its file system can't lock files";
    case SQLITE_NOMEM:
      return "there is not enough memory";
    default:
      break;
  }
  const int systemError = connection == nullptr ? 0 : sqlite3_system_errno(connection);
  if (systemError == ENOSPC || systemError == EDQUOT) return "its file system is full";
  if (systemError == ENOLCK || systemError == ENOTSUP) return "its file system can't lock files";
  if (systemError == 0) return sqlite3_errstr(code);
  return fmt::format("{} ({})", sqlite3_errstr(code), std::generic_category().message(systemError));
}

void takeNothingOnTrust(sqlite3* connection) {
  sqlite3_db_config(connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, longestValue);
}

}  // namespace

struct Database::State {
  sqlite3* connection = nullptr;
  std::string failure{};

  State() = default;
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  // Statements that are still there keep what they need of it.
  ~State() { sqlite3_close_v2(connection); }

  [[nodiscard]] bool hasFailed() const { return !failure.empty(); }
  bool check(int code) {
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE) return true;
    if (!hasFailed()) failure = describe(code, connection);
    return false;
  }
};

Database Database::open(const std::string& path, Access access, std::chrono::milliseconds patience) {
  Database database(std::make_shared<State>());
  // To look things up it is opened for changes too, where it can be: what a killed program left half done has to be undone first.
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE |
                    (access == Access::makeAndChange ? SQLITE_OPEN_CREATE : 0);
  const bool isOpen =
      database._state->check(sqlite3_open_v2(path.c_str(), &database._state->connection, flags, nullptr));
  if (!isOpen) return database;
  sqlite3_busy_timeout(database._state->connection, static_cast<int>(patience.count()));
  takeNothingOnTrust(database._state->connection);
  // A file that is cut short meanwhile would end the process if it were mapped.
  database.execute("PRAGMA mmap_size = 0");
  database.execute("PRAGMA cell_size_check = ON");
  database.execute("PRAGMA temp_store = MEMORY");
  if (access == Access::look) database.execute("PRAGMA query_only = ON");
  return database;
}

bool Database::hasFailed() const {
  return _state->hasFailed();
}

const std::string& Database::failure() const {
  return _state->failure;
}

void Database::fail(std::string reason) {
  if (!hasFailed()) _state->failure = std::move(reason);
}

Statement Database::prepare(std::string_view text) {
  return {_state, text};
}

void Database::execute(std::string_view text) {
  Statement statement = prepare(text);
  while (statement.step()) continue;
}

void Database::attempt(std::string_view text) {
  if (hasFailed()) return;
  execute(text);
  _state->failure.clear();
}

std::optional<int64_t> Database::integer(std::string_view query) {
  Statement statement = prepare(query);
  return statement.step() ? statement.integer(0) : std::nullopt;
}

int64_t Database::lastInserted() const {
  return hasFailed() ? 0 : sqlite3_last_insert_rowid(_state->connection);
}

bool Database::isReadOnly() const {
  return !hasFailed() && sqlite3_db_readonly(_state->connection, "main") != 0;
}

void Database::losePatience() {
  if (!hasFailed()) sqlite3_busy_timeout(_state->connection, 0);
}

void Statement::Finalizer::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

Statement::Statement(std::shared_ptr<Database::State> state, std::string_view text) : _state(std::move(state)) {
  if (_state->hasFailed()) return;
  sqlite3_stmt* prepared = nullptr;
  _state->check(sqlite3_prepare_v2(_state->connection, text.data(), static_cast<int>(text.size()), &prepared, nullptr));
  _statement.reset(prepared);
}

void Statement::rewind() {
  if (!_hasRun || !_statement) return;
  sqlite3_reset(_statement.get());
  _hasRun = false;
  _given = 0;
}

Statement& Statement::with(int64_t value) {
  rewind();
  if (_statement) _state->check(sqlite3_bind_int64(_statement.get(), ++_given, value));
  return *this;
}

Statement& Statement::with(std::string_view bytes) {
  rewind();
  // No bytes are a blob too, and not the absence of one.
  const char* const start = bytes.empty() ? "" : bytes.data();
  if (_statement) _state->check(sqlite3_bind_blob64(_statement.get(), ++_given, start, bytes.size(), SQLITE_STATIC));
  return *this;
}

Statement& Statement::with(std::nullopt_t /*nothing*/) {
  rewind();
  if (_statement) _state->check(sqlite3_bind_null(_statement.get(), ++_given));
  return *this;
}

bool Statement::step() {
  if (!_statement || _state->hasFailed()) return false;
  _hasRun = true;
  const int code = sqlite3_step(_statement.get());
  if (code == SQLITE_ROW) return true;
  _state->check(code);
  // Ended at once, so that no lock is held for a row that nobody reads.
  sqlite3_reset(_statement.get());
  return false;
}

std::optional<int64_t> Statement::integer(int column) const {
  if (!_statement || sqlite3_column_type(_statement.get(), column) != SQLITE_INTEGER) return std::nullopt;
  return sqlite3_column_int64(_statement.get(), column);
}

std::optional<std::string_view> Statement::bytes(int column) const {
  if (!_statement || sqlite3_column_type(_statement.get(), column) != SQLITE_BLOB) return std::nullopt;
  const auto* const start = static_cast<const char*>(sqlite3_column_blob(_statement.get(), column));
  const int length = sqlite3_column_bytes(_statement.get(), column);
  return start == nullptr ? std::string_view() : std::string_view(start, static_cast<std::size_t>(length));
}

bool Statement::isNull(int column) const {
  return _statement && sqlite3_column_type(_statement.get(), column) == SQLITE_NULL;
}

}  // namespace kdxoffload
