#pragma once

#include <cstddef>

namespace platform {

inline constexpr int standardOutput = 1;
inline constexpr int standardError = 2;

// In characters.
struct TerminalSize {
  std::size_t columns = 80;
  std::size_t rows = 24;
};

// True when what is written to the descriptor appears on a terminal.
bool isTerminal(int descriptor);

// True when it is a terminal that can move its cursor: TERM names one, and not "dumb".
bool isTerminalWithCursor(int descriptor);

// The current size of the terminal; 80 by 24 if it does not report one.
TerminalSize terminalSize(int descriptor);

// False when the environment asks for no colours (NO_COLOR is set and not empty).
bool coloursAreWanted();

}  // namespace platform
