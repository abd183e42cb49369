#include "tests/support/Screen.h"

#include <clocale>
#include <cstdlib>
#include <cwchar>
#include <stdexcept>

namespace {

// Length in bytes and width in columns of the character at the position, from the tables of the C library.
struct Sign {
  std::size_t length = 1;
  std::size_t width = 1;
};

Sign signAt(const std::string& bytes, std::size_t at) {
  static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const locale_t before = ::uselocale(utf8);
  std::mbstate_t state{};
  wchar_t wide = 0;
  const std::size_t length = std::mbrtowc(&wide, bytes.data() + at, bytes.size() - at, &state);
  const int width = ::wcwidth(wide);
  ::uselocale(before);
  if (length == 0 || length > bytes.size() || width < 0) throw std::runtime_error("no sign: " + bytes.substr(at, 8));
  return {.length = length, .width = static_cast<std::size_t>(width)};
}

}  // namespace

void Screen::write(const std::string& bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    if (bytes[at] == '\r') {
      _cursorColumn = 0;
      ++at;
    } else if (bytes[at] == '\n') {
      newLine(false);
      ++at;
    } else if (bytes[at] == '\x1b') {
      at = control(bytes, at);
    } else {
      const Sign sign = signAt(bytes, at);
      put(bytes.substr(at, sign.length), sign.width);
      at += sign.length;
    }
  }
}

// Returns the position after the control sequence.
std::size_t Screen::control(const std::string& bytes, std::size_t at) {
  const std::size_t end = bytes.find_first_not_of("0123456789;", at + 2);
  if (end == std::string::npos || bytes[at + 1] != '[') throw std::runtime_error("unknown control");
  const std::string number = bytes.substr(at + 2, end - at - 2);
  const std::size_t top = _lines.size() > _rows ? _lines.size() - _rows : 0;
  switch (bytes[end]) {
    case 'A': {
      const std::size_t up = std::strtoul(number.c_str(), nullptr, 10);
      _cursorLine = _cursorLine > top + up ? _cursorLine - up : top;
      break;
    }
    case 'J':
      _lines.resize(_cursorLine + 1);
      [[fallthrough]];
    case 'K':
      if (!number.empty()) throw std::runtime_error("unknown control");
      if (line().cells.size() > _cursorColumn) line().cells.resize(_cursorColumn);
      break;
    case 'm':
      _isColoured = number != "0";
      break;
    default:
      throw std::runtime_error("unknown control");
  }
  return end + 1;
}

void Screen::put(const std::string& sign, std::size_t width) {
  if (width == 0) {
    if (_cursorColumn == 0) throw std::runtime_error("a mark over nothing");
    line().cells[_cursorColumn - 1] += sign;
    return;
  }
  if (_cursorColumn + width > _columns) newLine(true);
  if (line().cells.size() < _cursorColumn + width) line().cells.resize(_cursorColumn + width, " ");
  line().cells[_cursorColumn] = sign;
  if (width == 2) line().cells[_cursorColumn + 1] = "";
  _cursorColumn += width;
}

void Screen::newLine(bool continues) {
  ++_cursorLine;
  _cursorColumn = 0;
  if (_cursorLine == _lines.size()) _lines.emplace_back();
  line().continues = continues;
}

Screen::Line& Screen::line() {
  return _lines[_cursorLine];
}

void Screen::setColumns(std::size_t columns) {
  std::vector<Line> broken;
  std::size_t cursorLine = 0;
  _columns = columns;
  for (std::size_t index = 0; index < _lines.size(); ++index) {
    if (!_lines[index].continues || broken.empty()) broken.emplace_back();
    for (const std::string& cell : _lines[index].cells) {
      if (broken.back().cells.size() == columns) broken.push_back({.continues = true});
      broken.back().cells.push_back(cell);
    }
    if (index == _cursorLine) cursorLine = broken.size() - 1;
  }
  _lines = broken;
  _cursorLine = cursorLine;
}

std::vector<std::string> Screen::lines() const {
  std::vector<std::string> shown;
  for (const Line& line : _lines) {
    shown.emplace_back();
    for (const std::string& cell : line.cells) shown.back() += cell;
    shown.back().erase(shown.back().find_last_not_of(' ') + 1);
  }
  while (!shown.empty() && shown.back().empty()) shown.pop_back();
  return shown;
}
