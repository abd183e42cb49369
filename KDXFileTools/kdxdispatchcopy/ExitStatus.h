#pragma once

// Statuses with which the process ends, but for those that come from the code of a phase's error. Managing applications
// tell the causes apart by them.
namespace ExitStatus {

inline constexpr int success = 0;
inline constexpr int failure = 1;  // command line or external hash not understood; a failure without an error code
inline constexpr int flushFailed = 106;
inline constexpr int temporaryFileNotCreated = 107;
inline constexpr int fileNotReadable = 108;  // it could not be opened
inline constexpr int writeFailed = 110;
inline constexpr int sourceReadFailed = 111;

}  // namespace ExitStatus
