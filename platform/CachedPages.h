#pragma once

#include <cstddef>
#include <cstdint>

// The pages of a file that the system keeps in memory. What the tool reads to verify a file must come from the device, and
// what it copies must not push other programs' files out of memory.
namespace platform {

// Pages are dropped in pieces of at least this size: smaller ones cost more than they save.
inline constexpr int64_t smallestDrop = int64_t{8} << 20;

// The most that one system call is asked to transfer; a multiple of every alignment.
inline constexpr std::size_t largestTransfer = std::size_t{1} << 30;

// Drops the cached pages of `length` bytes at `offset` (length 0: to the end of the file). This is only advice: pages that
// are dirty, or mapped by another process, stay.
void dropPages(int descriptor, int64_t offset, int64_t length);

// Writes the dirty pages of `length` bytes at `offset` (length 0: to the end of the file) to the device and waits for them.
// Returns 0, or the errno value of the failure.
[[nodiscard]] int pushPages(int descriptor, int64_t offset, int64_t length);

// Alignment, in bytes, of offset and length that transfers past the cache need for this file. The address needs no more
// than the alignment of a buffer (Memory.h). 0 when the file system says that it has no such transfers, even if it would
// accept the flag and use the cache. Where the system does not report the alignment this is a guess; a transfer that is
// refused then goes through the cache.
[[nodiscard]] int64_t directAlignment(int descriptor);

// Switches transfers past the cache (O_DIRECT) on or off. False when the file system refuses.
[[nodiscard]] bool setDirect(int descriptor, bool on);

}  // namespace platform
