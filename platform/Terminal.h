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

// The size that the terminal has now; 80 by 24 where it does not tell.
TerminalSize terminalSize(int descriptor);

// False when the environment asks for no colours (NO_COLOR, with any text in it).
bool coloursAreWanted();

}  // namespace platform
