#include "platform/Memory.h"

#include <fmt/format.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <tuple>

#include "platform/Process.h"

namespace platform {

std::size_t pageSize() {
  constexpr long smallest = 4096;
  return static_cast<std::size_t>(std::max(smallest, ::sysconf(_SC_PAGESIZE)));
}

void FreeMemory::operator()(std::byte* memory) const noexcept {
  std::free(memory);
}

PageAlignedMemory allocatePages(std::size_t size, std::size_t used) {
  constexpr std::size_t hugePageSize = std::size_t{2} << 20;
  const bool fillsHugePages = std::min(size, used) >= hugePageSize;
  void* memory = nullptr;
  if (::posix_memalign(&memory, fillsHugePages ? hugePageSize : pageSize(), size) != 0) {
    endProcessForLackOf(fmt::format("{} bytes of memory", size));
  }
  // A device takes a transfer past the cache in pieces that are contiguous in memory. Small pages may make so many pieces
  // that it is half as fast. This is only advice: a system without huge pages gives small ones.
  if (fillsHugePages) std::ignore = ::madvise(memory, size, MADV_HUGEPAGE);
  return PageAlignedMemory(static_cast<std::byte*>(memory));
}

void shareOneHeap() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): called before there is a second thread
  std::ignore = ::mallopt(M_ARENA_MAX, 1);
}

void giveBackLargePieces() {
  constexpr int large = 256 << 10;  // bytes
  // NOLINTNEXTLINE(concurrency-mt-unsafe): called before there is a second thread
  std::ignore = ::mallopt(M_MMAP_THRESHOLD, large);
}

}  // namespace platform
