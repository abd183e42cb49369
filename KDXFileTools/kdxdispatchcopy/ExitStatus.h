#pragma once

#include <array>

#include "KDXFileTools/kdxdispatchcopy/ErrorTexts.h"

// Statuses with which the process ends. The status of a failed phase is the code of its error. If that is an error of the
// platform, the code is an errno value.
namespace ExitStatus {

inline constexpr int success = 0;
inline constexpr int failure = 1;  // command line or external hash not understood; a failure without an error code
inline constexpr int externalHashDiffers = 103;
inline constexpr int sizeDiffers = 104;
inline constexpr int destinationDigestDiffers = 105;
inline constexpr int flushFailed = 106;
inline constexpr int temporaryFileNotCreated = 107;
inline constexpr int fileNotReadable = 108;  // it could not be opened
inline constexpr int finalNameTaken = 109;
inline constexpr int writeFailed = 110;
inline constexpr int sourceReadFailed = 111;
inline constexpr int verificationFailed = 121;
inline constexpr int assertionFailed = 134;  // 128 and the number of the signal

}  // namespace ExitStatus

// What a status means, and its text: the description of the error, or the line that is printed before the process ends.
// Texts are formats of {fmt}; empty where nothing is printed, or where the line depends on what failed.
struct ExitStatusText {
  int status;
  const char* meaning;
  const char* text;
};

// All statuses, in order. Managing applications recognise the cause of a failure by its status.
inline constexpr std::array exitStatuses{
    ExitStatusText{ExitStatus::success, "every destination is complete, proved as asked for, in place and flushed", ""},
    ExitStatusText{ExitStatus::failure,
                   "the command line or the external hash is not understood, or a phase failed without an error", ""},
    ExitStatusText{ExitStatus::externalHashDiffers, "the external hash differs", ErrorText::externalHashDiffers},
    ExitStatusText{ExitStatus::sizeDiffers, "a size differs", ErrorText::sizeOnDiskDiffers},
    ExitStatusText{ExitStatus::destinationDigestDiffers, "a destination differs from the source when read back",
                   ErrorText::destinationDigestDiffers},
    ExitStatusText{ExitStatus::flushFailed, "a flush failed", ErrorText::notSynced},
    ExitStatusText{ExitStatus::temporaryFileNotCreated, "a temporary destination could not be created", ""},
    ExitStatusText{ExitStatus::fileNotReadable, "a file could not be opened for reading", ErrorText::fileNotReadable},
    ExitStatusText{ExitStatus::finalNameTaken, "a final name is taken already", ErrorText::finalNameTaken},
    ExitStatusText{ExitStatus::writeFailed, "writing to a destination failed, or a frame of a sequence can't be read",
                   ""},
    ExitStatusText{ExitStatus::sourceReadFailed, "reading the source failed", ""},
    ExitStatusText{ExitStatus::verificationFailed, "the source differs when read back", ErrorText::verificationFailed},
    ExitStatusText{ExitStatus::assertionFailed, "an assertion failed", ""},
};
