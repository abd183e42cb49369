#pragma once

#include <cstdint>
#include <string_view>

#include "KDXFileTools/kdxdispatchcopy/ProgressClock.h"
#include "platform/FileURL.h"

// Lines of output that the jobs for one file and for a sequence have in common. The functions queue a line and return.

// "INFO: <what> speed ...", for the bytes handled since `start`, in decimal megabytes.
void queueSpeedLine(std::string_view what, uint64_t bytes, ProgressClock::Clock::time_point start);

// The line of a destination that is not read back.
enum class SizeCheck { skipped, made };
void queueCompletedLine(const platform::FileURL& temporaryURL, SizeCheck sizeCheck);
