#include "KDXFileTools/kdxoffload/GlobPattern.h"

#include <algorithm>

namespace kdxoffload {

namespace {

using Bytes = std::bitset<256>;

std::size_t code(char byte) {
  return static_cast<unsigned char>(byte);
}

Bytes only(char byte) {
  return Bytes().set(code(byte));
}

Bytes allButSlash() {
  return ~only('/');
}

// Of single bytes and ranges.
Bytes bytesOf(std::string_view text) {
  Bytes bytes;
  while (!text.empty()) {
    const bool isRange = text.size() > 2 && text[1] == '-';
    const std::size_t last = code(isRange ? text[2] : text[0]);
    for (std::size_t byte = code(text[0]); byte <= last; ++byte) bytes.set(byte);
    text.remove_prefix(isRange ? 3 : 1);
  }
  return bytes;
}

}  // namespace

GlobPattern::GlobPattern(std::string_view pattern) {
  bool beginsName = true;
  while (!pattern.empty()) {
    const std::string_view rest = addStepOf(pattern, beginsName);
    beginsName = pattern[pattern.size() - rest.size() - 1] == '/';
    pattern = rest;
  }
}

// Returns what comes behind the step.
std::string_view GlobPattern::addStepOf(std::string_view pattern, bool beginsName) {
  using Kind = Step::Kind;
  if (beginsName && pattern.starts_with("**/")) {
    _steps.push_back({.kind = Kind::folders});
    _steps.push_back({.kind = Kind::inside});
    return pattern.substr(3);
  }
  if (pattern.starts_with("**")) {
    _steps.push_back({.kind = Kind::many, .bytes = ~Bytes()});
    return pattern.substr(2);
  }
  if (pattern.front() == '[') return addChoice(pattern);
  if (pattern.front() == '*') {
    _steps.push_back({.kind = Kind::many, .bytes = allButSlash()});
  } else {
    _steps.push_back({.bytes = pattern.front() == '?' ? allButSlash() : only(pattern.front())});
  }
  return pattern.substr(1);
}

std::string_view GlobPattern::addChoice(std::string_view pattern) {
  const bool isNegated = pattern.size() > 1 && (pattern[1] == '!' || pattern[1] == '^');
  const std::size_t first = isNegated ? 2 : 1;
  const std::size_t end = pattern.find(']', first + 1);
  if (end == std::string_view::npos) {
    _steps.push_back({.bytes = only('[')});
    return pattern.substr(1);
  }
  const Bytes bytes = bytesOf(pattern.substr(first, end - first));
  _steps.push_back({.bytes = (isNegated ? ~bytes : bytes) & allButSlash()});
  return pattern.substr(end + 1);
}

// Marks the position, and those behind it that are come to without a byte.
void GlobPattern::enter(std::size_t position, Positions& positions) const {
  for (; position < _steps.size() && !positions[position]; ++position) {
    positions[position] = true;
    if (_steps[position].kind == Step::Kind::folders) {
      positions[position + 1] = true;
      ++position;
    } else if (_steps[position].kind != Step::Kind::many) {
      return;
    }
  }
  if (position >= _steps.size()) positions[_steps.size()] = true;
}

// All ways in which the pattern may stand for the text are gone at the same time, byte by byte.
bool GlobPattern::matches(std::string_view text) const {
  Positions here(_steps.size() + 1);
  Positions next(_steps.size() + 1);
  enter(0, here);
  for (const char byte : text) {
    next.assign(next.size(), false);
    for (std::size_t position = 0; position < _steps.size(); ++position) {
      if (!here[position]) continue;
      const Step& step = _steps[position];
      const bool takes = step.bytes.test(code(byte));
      if (step.kind == Step::Kind::one && takes) enter(position + 1, next);
      if (step.kind == Step::Kind::many && takes) enter(position, next);
      if (step.kind == Step::Kind::inside && byte == '/') enter(position + 1, next);
      if (step.kind == Step::Kind::inside) next[position] = true;
    }
    std::swap(here, next);
  }
  return here[_steps.size()];
}

}  // namespace kdxoffload
