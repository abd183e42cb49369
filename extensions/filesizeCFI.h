#pragma once

#include <cstdint>
#include <optional>

#include "platform/FileURL.h"

// Size in bytes of the file, as its file system reports it, through symbolic links; none when it can't be found out.
std::optional<uint64_t> filesizeCFI(const platform::FileURL& file);
