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

// A SQLite file, which a stranger may have written: no code in it is run (triggers, views, functions of the schema), and no
// page is trusted to be whole. Move only, used by one thread.
//
// Failures stay: after the first one nothing more is done. So a caller can do everything it has to do, and then ask once. If a
// transaction is open then, it is undone when the database is closed.
class Database {
 public:
  enum class Access : uint8_t { makeAndChange, look };

  //   path      absolute
  //   patience  how long to wait for another program's lock, each time
  static Database open(const std::string& path, Access access, std::chrono::milliseconds patience);

  [[nodiscard]] bool hasFailed() const;
  // What the first failure was, as a clause for a person: "it is locked by another program". Empty while all is well.
  [[nodiscard]] const std::string& failure() const;
  // Marks it as failed, for a reason that the caller gives.
  void fail(std::string reason);

  // The text must stay valid. Parameters are "?1", "?2" and so on.
  [[nodiscard]] Statement prepare(std::string_view text);
  void execute(std::string_view text);
  // The same for a statement that may fail without harm: this is no failure of the database.
  void attempt(std::string_view text);
  // The single integer that the query gives; none if it gives no row.
  [[nodiscard]] std::optional<int64_t> integer(std::string_view query);
  [[nodiscard]] int64_t lastInserted() const;
  [[nodiscard]] bool isReadOnly() const;
  // From now on does not wait for another program's lock.
  void losePatience();

 private:
  friend class Statement;
  struct State;
  explicit Database(std::shared_ptr<State> state) : _state(std::move(state)) {}
  std::shared_ptr<State> _state;
};

// A statement of a database, which can be run many times. It may outlive its database.
class Statement {
 public:
  // Gives the parameters their values, in order. After a step it begins again with the first parameter.
  Statement& with(int64_t value);
  // As a blob. The bytes must stay valid until the next step has returned.
  Statement& with(std::string_view bytes);
  Statement& with(std::nullopt_t);
  // True when there is a row; false at the end, and after a failure.
  bool step();
  // One step, for a statement that gives no rows.
  void run() { step(); }

  // The values of the row, by column from 0; none if the value has another type. Bytes are valid until the next step.
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
