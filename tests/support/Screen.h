#pragma once

#include <cstddef>
#include <string>
#include <vector>

// What a person sees when a program writes to a terminal. Models the few control sequences that are in use. Lines that scroll
// off the top stay readable, as in a terminal's history. An unknown control sequence throws.
class Screen {
 public:
  Screen(std::size_t columns, std::size_t rows) : _columns(columns), _rows(rows) {}

  // A newline also returns to the beginning of the line, as the terminal driver does it.
  void write(const std::string& bytes);
  // Changes the width of the terminal and wraps the lines again, as most terminals do.
  void setColumns(std::size_t columns);

  // The text, without blanks at the ends of lines and without empty lines at the end.
  [[nodiscard]] std::vector<std::string> lines() const;
  // The position of the cursor, from 0: its line, counted from the first of `lines`, and its column.
  [[nodiscard]] std::size_t cursorLine() const { return _cursorLine; }
  [[nodiscard]] std::size_t cursorColumn() const { return _cursorColumn; }
  // True when a colour is switched on.
  [[nodiscard]] bool isColoured() const { return _isColoured; }

 private:
  struct Line {
    std::vector<std::string> cells{};  // an empty cell is the second half of a wide character
    bool continues = false;            // continues the line above, which was too long
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
