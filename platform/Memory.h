#pragma once

#include <cstddef>
#include <memory>

namespace platform {

// Bytes of a page of memory, a power of two. At least 4096, which is enough for nearly every device; some systems have 16 KiB
// or 64 KiB.
std::size_t pageSize();

struct FreeMemory {
  void operator()(std::byte* memory) const noexcept;
};

// Memory that starts on a page boundary, as transfers past the file cache need it.
using PageAlignedMemory = std::unique_ptr<std::byte, FreeMemory>;

// `size` bytes, not initialised, of which `used` will be touched. If these fill a huge page, the system is asked for huge
// pages. When there is not enough memory, the process ends with a message (endProcessForLackOf).
PageAlignedMemory allocatePages(std::size_t size, std::size_t used);
inline PageAlignedMemory allocatePages(std::size_t size) {
  return allocatePages(size, size);
}

// Lets all threads take small pieces of memory from one heap. These programs' threads allocate so little that starting a heap
// for each thread would cost more than waiting for one another. Best called before there is a second thread.
void shareOneHeap();

// Memory of more than 256 KiB goes back to the system as soon as it is not used any more, for a process that has large lists one
// after the other. Each such piece then takes calls of the system. To be called before there is a second thread.
void giveBackLargePieces();

}  // namespace platform
