#pragma once

#include <ostream>
#include <string>

// The row of a table of tests, which begins with its name: that is how failures show it.
struct NamedRow {
  // A row is written as one list of values.
  constexpr NamedRow(const char* text) : name(text) {}
  friend std::ostream& operator<<(std::ostream& out, const NamedRow& row) { return out << row.name; }

  const char* name;
};

// Names the tests of a table after its rows' `name`.
inline constexpr auto rowName = [](const auto& row) { return std::string(row.param.name); };
