#pragma once

#include <cstddef>
#include <string>
#include <vector>

// What a person sees of what a program writes to a terminal: a model of the few controls that are in use, as terminals take
// them. Lines that leave the screen at its top stay readable, as in a terminal's history. A control that is not known throws.
class Screen {
 public:
  Screen(std::size_t columns, std::size_t rows) : _columns(columns), _rows(rows) {}

  // A newline goes to the beginning of the next line, as a terminal's driver makes of it.
  void write(const std::string& bytes);
  // The terminal gets another width: lines are broken anew, as most terminals do.
  void setColumns(std::size_t columns);

  // What stands there, without blanks at the ends of lines and without empty lines at the end.
  [[nodiscard]] std::vector<std::string> lines() const;
  // From 0, counted from the first of `lines`, and in it.
  [[nodiscard]] std::size_t cursorLine() const { return _cursorLine; }
  [[nodiscard]] std::size_t cursorColumn() const { return _cursorColumn; }
  // A colour is switched on where the cursor stands.
  [[nodiscard]] bool isColoured() const { return _isColoured; }

 private:
  struct Line {
    std::vector<std::string> cells{};  // empty: the second half of a wide sign
    bool continues = false;            // the line before was too long
  };

  std::size_t control(const std::string& bytes, std::size_t at);
  void put(const std::string& sign, std::size_t width);
  void newLine(bool continues);
  Line& line();

  std::size_t _columns;
  std::size_t _rows;
  std::vector<Line> _lines = std::vector<Line>(1);
  std::size_t _cursorLine = 0;
  std::size_t _cursorColumn = 0;
  bool _isColoured = false;
};
