#pragma once

#include <cstddef>
#include <memory>

namespace platform {

// Bytes of a page of memory, a power of two. At least 4096, with which nearly every device is content; there are systems with
// 16 KiB and 64 KiB.
std::size_t pageSize();

struct FreeMemory {
  void operator()(std::byte* memory) const noexcept;
};

// Memory that starts on a page, as transfers past the file cache need it.
using PageAlignedMemory = std::unique_ptr<std::byte, FreeMemory>;

// `size` bytes, not initialised, of which `used` will be touched: as many as fill huge pages are put into such, where the
// system has them to give. When the bytes cannot be had the process ends with a message (endProcessForLackOf).
PageAlignedMemory allocatePages(std::size_t size, std::size_t used);
inline PageAlignedMemory allocatePages(std::size_t size) {
  return allocatePages(size, size);
}

// Lets all threads take small pieces of memory from one heap: a heap for each costs more, at its start, than the waiting for
// one another that it saves a program whose threads hardly ask. Best called before there is a second thread.
void shareOneHeap();

// Memory of more than 256 KiB goes back to the system as soon as it is not used any more, for a process that has large lists one
// after the other. Each such piece then takes calls of the system. To be called before there is a second thread.
void giveBackLargePieces();

}  // namespace platform
