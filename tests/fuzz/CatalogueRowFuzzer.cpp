// A row of the catalogue. The lines of the input are the destination, the path and the seven values of the columns. The first
// letter is the type: "i" a number, "b" bytes, "t" a text, "r" a fraction, anything else no value. First a row of just these
// values is read; then a row that was written properly from them, but with the last value in place of one of the columns.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "Fuzz.h"
#include "KDXFileTools/kdxoffload/CatalogueRow.h"

using kdxoffload::Database;
using kdxoffload::FileDigest;
using kdxoffload::FileRecord;
using kdxoffload::Statement;
namespace CatalogueRow = kdxoffload::CatalogueRow;

namespace {

constexpr std::size_t columns = CatalogueRow::count;
// The destination, the path and the columns.
constexpr std::size_t mostLines = 2 + columns;

std::vector<std::string> linesOf(std::string_view input) {
  std::vector<std::string> lines;
  while (lines.size() + 1 < mostLines && input.find('\n') != std::string_view::npos) {
    lines.emplace_back(input.substr(0, input.find('\n')));
    input.remove_prefix(lines.back().size() + 1);
  }
  lines.emplace_back(input);
  lines.resize(mostLines);
  return lines;
}

int64_t numberIn(const std::string& line) {
  constexpr int decimal = 10;
  return line.empty() ? 0 : std::strtoll(line.c_str() + 1, nullptr, decimal);
}

std::string textIn(const std::string& line) {
  return line.empty() ? "" : line.substr(1);
}

// The expression that gives the parameter with this number the type of the line.
std::string expressionFor(const std::string& line, std::size_t parameter) {
  if (line.starts_with('t')) return fmt::format("CAST(?{} AS TEXT)", parameter);
  if (line.starts_with('r')) return fmt::format("(?{} + 0.5)", parameter);
  return fmt::format("?{}", parameter);
}

void give(Statement& statement, const std::string& line, const std::string& text) {
  if (line.starts_with('i') || line.starts_with('r')) {
    statement.with(numberIn(line));
  } else if (line.starts_with('b') || line.starts_with('t')) {
    statement.with(text);
  } else {
    statement.with(std::nullopt);
  }
}

bool isSensible(const FileRecord& record) {
  constexpr uint64_t largest = INT64_MAX;
  const bool isBegun = record.state == FileRecord::State::begun;
  if (record.state == FileRecord::State::none || record.state > FileRecord::State::copied) return false;
  if (record.size > largest || record.destinationSize > largest) return false;
  return isBegun ? record.destinationSize == 0 && record.digest == FileDigest{} : record.size == record.destinationSize;
}

// Reads a row of just these values.
std::optional<FileRecord> takenAsItIs(Database& database, const std::vector<std::string>& lines) {
  std::string query = "SELECT ";
  std::array<std::string, columns> texts;
  for (std::size_t column = 0; column < columns; ++column) {
    query += (column == 0 ? "" : ", ") + expressionFor(lines[2 + column], column + 1);
    texts[column] = textIn(lines[2 + column]);
  }
  Statement row = database.prepare(query);
  for (std::size_t column = 0; column < columns; ++column) give(row, lines[2 + column], texts[column]);
  require(row.step(), "there is a row");
  return CatalogueRow::take(row, lines[0], lines[1]);
}

// The record that the lines are about, whether it makes sense or not.
FileRecord recordOf(const std::vector<std::string>& lines) {
  constexpr uint8_t states = 7;
  return {.state = static_cast<FileRecord::State>(static_cast<uint64_t>(numberIn(lines[2])) % states),
          .digest = FileDigest::fromText(textIn(lines[7])).value_or(FileDigest{}),
          .size = static_cast<uint64_t>(numberIn(lines[3])),
          .modified = numberIn(lines[4]),
          .destinationSize = static_cast<uint64_t>(numberIn(lines[5])),
          .destinationModified = numberIn(lines[6])};
}

// Writes that record and reads it, with another value in the column; `column` may be none of the columns.
std::optional<FileRecord> takenAsWritten(Database& database, const std::vector<std::string>& lines,
                                         std::size_t column) {
  const FileRecord record = recordOf(lines);
  const std::string digestText = record.digest.text();
  const std::string& other = lines.back();
  const std::string otherText = textIn(other);
  std::string query = "SELECT ";
  for (std::size_t index = 0; index < columns; ++index) {
    const std::string own = fmt::format("?{}", index + 1);
    query += (index == 0 ? "" : ", ") + (index == column ? expressionFor(other, columns + 1) : own);
  }
  // Every parameter is used, whichever columns are.
  Statement row = database.prepare(query + fmt::format(", ?{}", columns + 1));
  CatalogueRow::put(row, lines[0], lines[1], record, digestText);
  give(row, other, otherText);
  require(row.step(), "there is a row");
  return CatalogueRow::take(row, lines[0], lines[1]);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static Database database = Database::open(":memory:", Database::Access::makeAndChange, std::chrono::milliseconds(0));
  const std::vector<std::string> lines = linesOf(textOf(data, size));
  const std::optional<FileRecord> asItIs = takenAsItIs(database, lines);
  require(!asItIs || isSensible(*asItIs), "what is taken makes sense");

  const FileRecord record = recordOf(lines);
  const std::optional<FileRecord> expected = isSensible(record) ? std::optional(record) : std::nullopt;
  require(takenAsWritten(database, lines, columns) == expected, "what makes sense comes back as it was written");
  for (std::size_t column = 0; column < columns; ++column) {
    const std::optional<FileRecord> changed = takenAsWritten(database, lines, column);
    require(!changed || changed == expected, "another value in one column is no record");
  }
  require(!database.hasFailed(), "no row is a failure of the database");
  return 0;
}
