#pragma once

namespace platform {

inline constexpr int standardOutput = 1;
inline constexpr int standardError = 2;

// True when a person looks at what is written to the descriptor.
bool isTerminal(int descriptor);

}  // namespace platform
