#pragma once

namespace kdxoffload {

// Statuses with which the program ends. If several apply, a change of the card or a destination comes first, then what is not
// proved, then what was left out.
namespace ExitStatus {

inline constexpr int safe = 0;
inline constexpr int nothingDone = 1;  // the command line is wrong, or there was a reason not to start
inline constexpr int notProved = 2;
inline constexpr int leftOut = 3;  // all that was asked for succeeded, but it was not everything
inline constexpr int changedMeanwhile = 4;
inline constexpr int signalled = 128;  // and the number of the signal

}  // namespace ExitStatus

}  // namespace kdxoffload
