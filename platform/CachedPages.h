#pragma once

#include <cstddef>
#include <cstdint>

// The pages of a file that the system keeps in memory: what the tool reads to prove a file has to come from the device,
// and what it copies must not push out what others need.
namespace platform {

// Dropped in pieces of this size or more: small ones cost more than they save.
inline constexpr int64_t smallestDrop = int64_t{8} << 20;

// One call of the system moves no more than this, a multiple of every alignment.
inline constexpr std::size_t largestTransfer = std::size_t{1} << 30;

// Gives up the cached pages of `length` bytes at `offset` (0: to the end of the file). Advice: pages that are dirty, or
// mapped by another process, stay.
void dropPages(int descriptor, int64_t offset, int64_t length);

// Writes the dirty pages of `length` bytes at `offset` (0: to the end of the file) to the device and waits for them.
// Returns 0, or the errno value of the failure.
[[nodiscard]] int pushPages(int descriptor, int64_t offset, int64_t length);

// Alignment, in bytes, that offset and length of a transfer past the cache need for this file; its address needs no more
// than that of a buffer (Memory.h). 0 when the file system says that it has no such transfers, also where it would take the
// flag and use the cache. Where the system can't tell it is a guess, and a transfer that is refused takes the road through
// the cache.
[[nodiscard]] int64_t directAlignment(int descriptor);

// Switches transfers past the cache (O_DIRECT) on or off. False when the file system refuses.
[[nodiscard]] bool setDirect(int descriptor, bool on);

}  // namespace platform
