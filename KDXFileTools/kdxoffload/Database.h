#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace kdxoffload {

class Statement;

// A SQLite file, taken for what a stranger may have written: no code in it is run (triggers, views, functions of the schema),
// and no page is trusted to be whole. Move only, used by one thread.
//
// Failures stay: after the first one nothing is done any more, until the end. So a caller does all that it has to do and then asks
// once. A transaction that is open then is undone when the database is closed.
class Database {
 public:
  enum class Access : uint8_t { makeAndChange, look };

  //   path      absolute
  //   patience  how long another program's lock is waited for, each time
  static Database open(const std::string& path, Access access, std::chrono::milliseconds patience);

  [[nodiscard]] bool hasFailed() const;
  // What the first failure was, as a clause for a person: "it is locked by another program". Empty while all is well.
  [[nodiscard]] const std::string& failure() const;
  // Marks it as failed for a reason of the caller's.
  void fail(std::string reason);

  // The text must stay valid. Parameters are "?1", "?2" and so on.
  [[nodiscard]] Statement prepare(std::string_view text);
  void execute(std::string_view text);
  // The same for what may fail without harm: it is no failure of the database.
  void attempt(std::string_view text);
  // The one integer that the query gives; none without a row.
  [[nodiscard]] std::optional<int64_t> integer(std::string_view query);
  [[nodiscard]] int64_t lastInserted() const;
  [[nodiscard]] bool isReadOnly() const;
  // Gives up at once from now on where another program holds a lock.
  void losePatience();

 private:
  friend class Statement;
  struct State;
  explicit Database(std::shared_ptr<State> state) : _state(std::move(state)) {}
  std::shared_ptr<State> _state;
};

// A statement of a database, to be run again and again. Ends before or after its database.
class Statement {
 public:
  // Gives the parameters their values, in their order, from the first; after a step it starts anew.
  Statement& with(int64_t value);
  // As a blob. The bytes must stay until the next step has returned.
  Statement& with(std::string_view bytes);
  Statement& with(std::nullopt_t);
  // True when there is a row; at the end, and after a failure, false.
  bool step();
  // One step, for a statement that gives no rows.
  void run() { step(); }

  // Of the row, by column from 0: none where the value is of another type. Bytes are valid until the next step.
  [[nodiscard]] std::optional<int64_t> integer(int column) const;
  [[nodiscard]] std::optional<std::string_view> bytes(int column) const;
  [[nodiscard]] bool isNull(int column) const;

 private:
  friend class Database;
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const;
  };
  Statement(std::shared_ptr<Database::State> state, std::string_view text);
  void rewind();

  std::shared_ptr<Database::State> _state;
  std::unique_ptr<sqlite3_stmt, Finalizer> _statement;
  int _given = 0;
  bool _hasRun = false;
};

}  // namespace kdxoffload
